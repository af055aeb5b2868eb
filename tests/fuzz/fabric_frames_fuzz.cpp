// Any bytes at the listeners of a fabric node, and any answers to its clients. The first byte of an input says which:
//
//   0, 1   the rest is what a broker or link connection receives
//   2, 3   the same, but the rest are requests that get a good header and come after a good hello:
//          operation (1), length of the arguments (2), length of the data (2), the arguments
//   4..    the rest is what a client receives, which makes the call of that number
//
// The last byte of what a connection receives says how its end looks: bit 0 that the peer has gone as soon as
// its bytes have been taken, bit 1 that it was reset.
//
// Afterwards the node's account must agree with what it lists.

#include "platform/fabric/node/fabric_session.h"
#include "support/temp_dir.h"

namespace {

using namespace vyn::fabric;
namespace net = vyn::net;

constexpr std::uint16_t kNodeId = 7;
const std::string kKnownId = "b0007" + std::string(55, 'A');

void Require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

/// Gives the input, takes everything that is sent.
class InputStream : public ByteStream {
 public:
  explicit InputStream(std::string input) : mInput(std::move(input)) {}

  net::IoStatus Receive(void* buffer, std::size_t room, std::size_t& received, net::Deadline) override {
    received = mInput.copy(static_cast<char*>(buffer), room, mPosition);
    mPosition += received;
    return received > 0       ? net::IoStatus::kOk
           : (mEnd & 2U) != 0 ? net::IoStatus::kReset
                              : net::IoStatus::kClosed;
  }
  net::IoStatus Send(iovec* parts, std::size_t count, net::Deadline, int) override {
    for (std::size_t index = 0; index < count; ++index) {
      mSent.assign(static_cast<char*>(parts[index].iov_base), parts[index].iov_len);  // all of it can be read
    }
    return net::IoStatus::kOk;
  }
  net::IoStatus SendFile(int, std::uint64_t, std::uint64_t, net::Deadline) override {
    return net::IoStatus::kOk;
  }
  bool Quiet() override { return true; }
  bool PeerGone() override { return (mEnd & 1U) != 0 && mPosition == mInput.size(); }
  net::Descriptor TakeDescriptor() override { return net::Descriptor(::memfd_create("fuzz", MFD_CLOEXEC)); }
  void Shutdown() override {}

 private:
  const std::string mInput;
  const unsigned mEnd = mInput.empty() ? 0 : static_cast<unsigned char>(mInput.back());
  std::size_t mPosition = 0;
  std::string mSent;
};

/// Serves the bytes by a node whose namespace "app" with the token "t" holds one object of a known id.
void Serve(ByteStream& stream, ListenerKind kind) {
  const vyn::test::TempDir folder("/dev/shm");
  const auto ignore = [](const std::string&) {};
  std::string error;
  Pool first(kNodeId, 1U << 20U);
  Require(PrepareTokenHash() && first.Open(folder.Path(), ignore, error) &&
          first.CreateNamespace("app", "t") == 0);
  first.Close();
  folder.Write("app/" + kKnownId, std::string(8192, 'k'));
  Pool pool(kNodeId, 1U << 20U);
  Require(pool.Open(folder.Path(), ignore, error) && pool.ObjectCount() == 1);
  {
    Neighbours neighbours(nullptr, {});
    PulledCopies copies(pool, neighbours, ignore);
    NodeParts parts{kNodeId, pool, copies, neighbours};
    FabricSession session(parts, kind);
    session.OnConnectionEnd(ServeConnection(
        stream, [&](ServerCall& call, Reader& arguments) { return session.Handle(call, arguments); },
        std::chrono::seconds(1)));
  }
  std::uint64_t charged = 0;
  for (const NamespaceInfo& info : pool.Namespaces()) {
    charged += info.bytes;
  }
  Require(pool.Bytes().Used() == charged && charged <= pool.Bytes().Limit());
  pool.Close();
}

std::string WithGoodHeaders(std::string_view input) {
  std::string bytes;
  std::uint32_t sequence = 0;
  const auto add = [&](std::uint8_t operation, std::string_view head, std::uint32_t data) {
    Writer frame;
    frame.Put(kFrameMagic).Put<std::uint16_t>(operation).Put<std::uint16_t>(0).Put(sequence++).Put(0);
    frame.Put(static_cast<std::uint32_t>(head.size())).Put(data);
    bytes.append(frame.Bytes()).append(head).append(data, 'd');
  };
  add(1, Writer().Put(kProtocolVersion).Put<std::uint16_t>(1).Put(kAnyNode).Bytes(), 0);
  while (input.size() >= 5) {
    Reader lengths(input.substr(1, 4));
    const std::string_view head = input.substr(5, lengths.Get<std::uint16_t>());
    add(static_cast<std::uint8_t>(input[0]), head, lengths.Get<std::uint16_t>());
    input.remove_prefix(5 + head.size());
  }
  return bytes;
}

void CallWithAnswers(unsigned call, const std::string& answers) {
  RemoteNode node([&](net::Deadline, int&) { return std::make_unique<InputStream>(answers); },
                  PeerRole::kClient, kAnyNode);
  const ObjectName object{{"app", "t"}, kKnownId};
  NodeAttributes attributes;
  std::string id;
  std::uint64_t number = 0;
  net::Descriptor file;
  bool writable = true;
  std::vector<bool> exist;
  std::string bytes(3U << 20U, '\0');
  const std::function<void()> calls[] = {
      [&] { node.Query(attributes); },
      [&] { node.Allocate(7, object.access, 1, id); },
      [&] { node.Open(object, writable, file, number); },
      [&] { node.Stat(object, number); },
      [&] { node.Read(object, 0, 100, bytes.data()); },
      [&] { node.Read(object, 0, bytes.size(), bytes.data()); },
      [&] { node.Write(object, 0, bytes.size(), bytes.data()); },
      [&] {
        node.Exist({kKnownId, kKnownId}, exist);
      },
      [&] { node.Copy(object, 0, object, 0, 1); },
  };
  calls[call % std::size(calls)]();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string rest(data + std::min<std::size_t>(1, size), data + size);
  if (size > 0 && data[0] > 3) {
    CallWithAnswers(data[0] - 4U, rest);
  } else if (size > 0) {
    InputStream stream(data[0] < 2 ? rest : WithGoodHeaders(rest));
    Serve(stream, data[0] % 2 == 0 ? ListenerKind::kBroker : ListenerKind::kLink);
  }
  return 0;
}
