// Any bytes at a fabric node's doors, and any answers to its clients. The first byte of an input says which:
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
#include "platform/fabric/protocol/names.h"

#include <sys/mman.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>

namespace {

using namespace vyn::fabric;
namespace net = vyn::net;

void Require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

/// Gives the input, takes everything that is sent.
class MemoryStream : public ByteStream {
 public:
  explicit MemoryStream(std::string input) : mInput(std::move(input)) {}

  net::IoStatus Receive(void* buffer, std::size_t room, std::size_t& received, net::Deadline) override {
    received = std::min(room, mInput.size() - mPosition);
    std::memcpy(buffer, mInput.data() + mPosition, received);
    mPosition += received;
    return received > 0        ? net::IoStatus::kOk
           : (End() & 2U) != 0 ? net::IoStatus::kReset
                               : net::IoStatus::kClosed;
  }
  net::IoStatus Send(iovec* parts, std::size_t count, net::Deadline, int) override {
    for (std::size_t index = 0; index < count; ++index) {
      mSum += parts[index].iov_len > 0
                  ? static_cast<unsigned char*>(parts[index].iov_base)[parts[index].iov_len - 1]
                  : 0;
    }
    return net::IoStatus::kOk;
  }
  net::IoStatus SendFile(int, std::uint64_t, std::uint64_t, net::Deadline) override {
    return net::IoStatus::kOk;
  }
  bool Quiet() override { return true; }
  bool PeerGone() override { return (End() & 1U) != 0 && mPosition == mInput.size(); }
  net::Descriptor TakeDescriptor() override { return net::Descriptor(::memfd_create("fuzz", MFD_CLOEXEC)); }
  void Shutdown() override {}

 private:
  unsigned End() const { return mInput.empty() ? 0 : static_cast<unsigned char>(mInput.back()); }

  const std::string mInput;
  std::size_t mPosition = 0;
  unsigned mSum = 0;
};

/// The node behind the doors. Its namespace "app" with the token "t" holds one object of a known id.
class Node {
 public:
  static constexpr std::uint16_t kNodeId = 7;
  static std::string KnownId() { return "b0007" + std::string(55, 'A'); }

  Node() {
    Require(PrepareTokenHash() && ::mkdtemp(mFolder.data()) != nullptr);
    Open();
  }
  ~Node() {
    mCopies.reset();
    mPool->Close();
    std::filesystem::remove_all(mFolder);
  }

  void Serve(ByteStream& stream, ListenerKind door) {
    NodeParts parts{kNodeId, *mPool, *mCopies, mNeighbours};
    FabricSession session(parts, door);
    session.OnConnectionEnd(ServeConnection(
        stream, [&](ServerCall& exchange, Reader& arguments) { return session.Handle(exchange, arguments); },
        std::chrono::seconds(1)));
  }

  /// Checks the account and brings the node back to how it was.
  void Restore() {
    std::uint64_t charged = 0;
    bool asItWas = false;
    std::size_t spaces = 0;
    for (const NamespaceInfo& info : mPool->Namespaces()) {
      ++spaces;
      charged += info.bytes;
      const auto objects = Pool::Objects(mPool->Find(info.name));
      asItWas = asItWas || (info.name == "app" && objects.size() == 1 && objects[0].id == KnownId() &&
                            objects[0].size == 8192);
    }
    Require(mPool->Bytes().Used() == charged && charged <= mPool->Bytes().Limit());
    if (!asItWas || spaces != 1) {
      Open();
    }
  }

 private:
  void Open() {
    mCopies.reset();
    if (mPool.has_value()) {
      mPool->Close();
    }
    std::filesystem::remove_all(mFolder);
    std::string error;
    const auto ignore = [](const std::string&) {};
    mPool.emplace(kNodeId, 1U << 20U);
    Require(mPool->Open(mFolder, ignore, error) && mPool->CreateNamespace("app", "t") == 0);
    mPool->Close();
    std::ofstream(mFolder + "/app/" + KnownId()) << std::string(8192, 'k');
    mPool.emplace(kNodeId, 1U << 20U);
    Require(mPool->Open(mFolder, ignore, error) && mPool->ObjectCount() == 1);
    mCopies.emplace(*mPool, mNeighbours);
  }

  std::string mFolder = "/dev/shm/vyn-fuzz-XXXXXX";
  Neighbours mNeighbours{nullptr, {}};
  std::optional<Pool> mPool;
  std::optional<PulledCopies> mCopies;
};

std::string Framed(FabricOperation operation, std::uint32_t sequence, std::string_view head,
                   std::size_t data) {
  const FabricFrameHeader header{kFrameMagic,
                                 static_cast<std::uint16_t>(operation),
                                 0,
                                 sequence,
                                 0,
                                 static_cast<std::uint32_t>(head.size()),
                                 static_cast<std::uint32_t>(data)};
  std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
  return bytes.append(head).append(data, 'd');
}

std::string WithGoodHeaders(std::string_view input) {
  std::string bytes =
      Framed(FabricOperation::kHello, 0, std::string_view("\x01\0\x01\0\xff\xff\xff\xff", 8), 0);
  std::uint32_t sequence = 1;
  while (input.size() >= 5) {
    const auto operation = static_cast<FabricOperation>(static_cast<unsigned char>(input[0]));
    std::uint16_t lengths[2];  // of the arguments and of the data
    std::memcpy(lengths, input.data() + 1, sizeof(lengths));
    input.remove_prefix(5);
    const std::string_view head = input.substr(0, lengths[0]);
    input.remove_prefix(head.size());
    bytes += Framed(operation, sequence++, head, lengths[1]);
  }
  return bytes;
}

void CallWithAnswers(unsigned call, const std::string& answers) {
  RemoteNode node([&](net::Deadline, int&) { return std::make_unique<MemoryStream>(answers); },
                  PeerRole::kClient, kAnyNode);
  const std::string known = Node::KnownId();
  const ObjectName object{{"app", "t"}, known};
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
        node.Exist({known, known}, exist);
      },
      [&] { node.Copy(object, 0, object, 0, 1); },
  };
  calls[call % std::size(calls)]();
  Require(exist.size() <= 2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Node gNode;
  if (size == 0) {
    return 0;
  }
  const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] > 3) {
    CallWithAnswers(data[0] - 4U, rest);
    return 0;
  }
  MemoryStream stream(data[0] < 2 ? rest : WithGoodHeaders(rest));
  gNode.Serve(stream, data[0] % 2 == 0 ? ListenerKind::kBroker : ListenerKind::kLink);
  gNode.Restore();
  return 0;
}
