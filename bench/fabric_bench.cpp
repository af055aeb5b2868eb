// Compares the memory fabric with what it is built from: files on tmpfs, sockets on loopback, private memory.
//
// The fabric node runs in a forked child process. The sizes are smaller than those of a real pool, so that
// the benchmark can repeat each function; they are much larger than the processor's caches.

#include "platform/fabric/client/fabric_client.h"
#include "platform/fabric/node/fabric_node.h"
#include "platform/fabric/transport/broker_socket.h"
#include "platform/fabric/transport/link.h"
#include "support/ratio.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>

namespace {

using vyn::fabric::FabricClient;
using vyn::fabric::FabricNode;
using vyn::fabric::FabricNodeOptions;
using vyn::net::Descriptor;

constexpr std::uint64_t kBlock = 4U << 20U;
constexpr std::uint64_t kLarge = 1U << 30U;
constexpr std::uint64_t kSent = 256U << 20U;

/// A fabric node in a child process, which ends with this one, and two clients: one maps blocks, one uses a
/// link.
class Fabric {
 public:
  static Fabric& Get() {
    static Fabric gFabric;
    return gFabric;
  }

  FabricClient local;
  FabricClient linked;

  std::string Allocate(std::uint64_t size) {
    std::string id(64, '\0');
    const BmSecContext context{id.data(), "bench", "token"};
    if (local.Allocate(&context, size, 1) != 0) {
      std::abort();
    }
    return id;
  }
  void Free(const std::string& id) {
    const BmSecContext context{id.c_str(), "bench", "token"};
    local.Free(&context);
  }
  std::string FileOf(const char* id) const { return mPool + "/bench/" + (id == nullptr ? "" : id); }
  const std::string& Pool() const { return mPool; }
  const std::string& Home() const { return mHome; }

 private:
  Fabric() {
    ::mkdtemp(mHome.data());
    ::mkdtemp(mPool.data());
    int ready[2];
    if (::pipe(ready) != 0) {
      std::abort();
    }
    mChild = ::fork();
    if (mChild == 0) {
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      Serve(ready[1]);
    }
    std::uint16_t port = 0;
    if (::read(ready[0], &port, sizeof(port)) != sizeof(port)) {
      std::abort();
    }
    local.Initialize(mHome.c_str(), 0);
    linked.Initialize(mHome.c_str(), 1);
    if (linked.CreateLink(1, "127.0.0.1", port) != 0 || local.CreateNamespace(1, "bench", "token") != 0) {
      std::abort();
    }
  }
  ~Fabric() {
    ::kill(mChild, SIGKILL);
    ::waitpid(mChild, nullptr, 0);
    std::error_code ignored;
    std::filesystem::remove_all(mPool, ignored);
    std::filesystem::remove_all(mHome, ignored);
  }

  [[noreturn]] void Serve(int ready) {
    FabricNodeOptions options;
    options.home = mHome;
    options.poolPath = mPool;
    options.capacity = 8U * kLarge;
    options.nodeId = 1;
    options.listenAddress = "127.0.0.1";
    FabricNode node;
    std::string error;
    if (!node.Start(options, error)) {
      std::fprintf(stderr, "%s\n", error.c_str());
      ::_exit(1);
    }
    const std::uint16_t port = node.LinkPort();
    [[maybe_unused]] const auto written = ::write(ready, &port, sizeof(port));
    for (;;) {
      ::pause();
    }
  }

  std::string mHome = "/tmp/vyn-bench-XXXXXX";
  std::string mPool = "/dev/shm/vyn-bench-XXXXXX";
  pid_t mChild = -1;
};

std::uint64_t Sum(const void* bytes, std::uint64_t length) {
  const auto* words = static_cast<const std::uint64_t*>(bytes);
  std::uint64_t sum = 0;
  for (std::uint64_t index = 0; index < length / sizeof(std::uint64_t); ++index) {
    sum += words[index];
  }
  return sum;
}

// --- The first map of a block in a process that did not write it, alone and together with reading its bytes.
// The floor with reading opens and maps the file. The map alone needs a round trip to the node, which checks
// the token; its floor is a process that opens the file and sends the descriptor. Each block is mapped once;
// unmapping is not measured.

constexpr int kBlocks = 64;

/// Blocks that another process has allocated and filled, and their mappings in this process.
class ForeignBlocks {
 public:
  ForeignBlocks() {
    Fabric& fabric = Fabric::Get();
    int ids[2];
    if (::pipe(ids) != 0) {
      std::abort();
    }
    const pid_t writer = ::fork();
    if (writer == 0) {
      Write(fabric.Home(), ids[1]);
    }
    ::close(ids[1]);
    char id[64];
    while (::read(ids[0], id, sizeof(id)) == sizeof(id)) {
      mIds.emplace_back(id, sizeof(id));
    }
    ::close(ids[0]);
    ::waitpid(writer, nullptr, 0);
  }
  ~ForeignBlocks() {
    Fabric& fabric = Fabric::Get();
    for (std::size_t index = 0; index < mIds.size(); ++index) {
      if (index < mMapped.size() && fabric.local.Unmap(mIds[index].c_str(), mMapped[index]) != 0) {
        ::munmap(mMapped[index], kBlock);
      }
      fabric.Free(mIds[index]);
    }
  }

  /// Returns: the block to map next; null if the writing process has failed.
  const char* Next() const { return mMapped.size() < mIds.size() ? mIds[mMapped.size()].c_str() : nullptr; }
  void Mapped(void* address) { mMapped.push_back(address); }

 private:
  [[noreturn]] static void Write(const std::string& home, int ids) {
    FabricClient own;
    own.Initialize(home.c_str(), 0);
    for (int count = 0; count < kBlocks; ++count) {
      char id[64] = "";
      const BmSecContext context{id, "bench", "token"};
      void* address = nullptr;
      if (own.Allocate(&context, kBlock, 1) != 0 ||
          own.Map(&context, PROT_READ | PROT_WRITE, MAP_SHARED, &address) != 0) {
        ::_exit(1);
      }
      std::memset(address, 'b', kBlock);
      if (::write(ids, id, sizeof(id)) != sizeof(id)) {
        ::_exit(1);
      }
    }
    ::_exit(0);
  }

  std::vector<std::string> mIds;
  std::vector<void*> mMapped;
};

template <bool kRead>
void MapBlock(benchmark::State& state) {
  Fabric& fabric = Fabric::Get();
  ForeignBlocks blocks;
  for (auto _ : state) {
    const BmSecContext context{blocks.Next(), "bench", "token"};
    void* address = nullptr;
    if (fabric.local.Map(&context, PROT_READ | PROT_WRITE, MAP_SHARED, &address) != 0) {
      state.SkipWithError("cannot map");
      break;
    }
    benchmark::DoNotOptimize(kRead ? Sum(address, kBlock) : 0);
    blocks.Mapped(address);
  }
}

template <bool kRead>
void MapFile(benchmark::State& state) {
  Fabric& fabric = Fabric::Get();
  ForeignBlocks blocks;
  for (auto _ : state) {
    const Descriptor file(::open(fabric.FileOf(blocks.Next()).c_str(), O_RDWR | O_CLOEXEC));
    void* address = ::mmap(nullptr, kBlock, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
    if (address == MAP_FAILED) {
      state.SkipWithError("cannot map");
      break;
    }
    benchmark::DoNotOptimize(kRead ? Sum(address, kBlock) : 0);
    blocks.Mapped(address);
  }
}

void FirstMapHandedOverFloor(benchmark::State& state) {
  Fabric& fabric = Fabric::Get();
  ForeignBlocks blocks;
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
    std::abort();
  }
  const auto later = [] { return vyn::net::Deadline::After(std::chrono::seconds(10)); };
  char text[256] = "";
  std::size_t received = 0;
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(ends[0]);
    vyn::fabric::SocketStream stream{Descriptor(ends[1])};
    while (stream.Receive(text, sizeof(text), received, later()) == vyn::net::IoStatus::kOk) {
      const Descriptor file(::open(std::string(text, received).c_str(), O_RDWR | O_CLOEXEC));
      iovec part{text, 1};
      stream.Send(&part, 1, later(), file.Get());
    }
    ::_exit(0);
  }
  ::close(ends[1]);
  {
    vyn::fabric::SocketStream stream(Descriptor(ends[0]), true);
    for (auto _ : state) {
      std::string path = fabric.FileOf(blocks.Next());
      iovec part{path.data(), path.size()};
      stream.Send(&part, 1, later(), -1);
      stream.Receive(text, sizeof(text), received, later());
      const Descriptor file = stream.TakeDescriptor();
      void* address = ::mmap(nullptr, kBlock, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
      if (address == MAP_FAILED) {
        state.SkipWithError("cannot map");
        break;
      }
      blocks.Mapped(address);
    }
  }
  ::waitpid(child, nullptr, 0);
}

void FirstMapAndRead(benchmark::State& state) { MapBlock<true>(state); }
void FirstMapAndReadFloor(benchmark::State& state) { MapFile<true>(state); }
void FirstMapAlone(benchmark::State& state) { MapBlock<false>(state); }
void FirstMapAloneFloor(benchmark::State& state) { MapFile<false>(state); }
BENCHMARK(FirstMapAndRead)->UseRealTime()->Iterations(kBlocks);
BENCHMARK(FirstMapAndReadFloor)->UseRealTime()->Iterations(kBlocks);
BENCHMARK(FirstMapAlone)->UseRealTime()->Iterations(kBlocks);
BENCHMARK(FirstMapAloneFloor)->UseRealTime()->Iterations(kBlocks);
BENCHMARK(FirstMapHandedOverFloor)->UseRealTime()->Iterations(kBlocks);
VYN_RATIO_AT_MOST("FirstMapAndRead", "FirstMapAndReadFloor", 3.0);
VYN_RATIO_AT_MOST("FirstMapAlone", "FirstMapAloneFloor", 3.0);
VYN_RATIO_AT_MOST("FirstMapAlone", "FirstMapHandedOverFloor", 1.5);

// --- Filling 1 GiB through mapped blocks of 64 MiB. The floor fills mapped files on the same tmpfs.

constexpr std::uint64_t kFillBlock = 64U << 20U;

void FillMappedBlocks(benchmark::State& state) {
  Fabric& fabric = Fabric::Get();
  for (auto _ : state) {
    std::vector<std::string> ids;
    for (std::uint64_t filled = 0; filled < kLarge; filled += kFillBlock) {
      ids.push_back(fabric.Allocate(kFillBlock));
      const BmSecContext context{ids.back().c_str(), "bench", "token"};
      void* address = nullptr;
      if (fabric.local.Map(&context, PROT_READ | PROT_WRITE, MAP_SHARED, &address) != 0) {
        fabric.Free(ids.back());
        ids.pop_back();
        state.SkipWithError("cannot map");
        break;
      }
      std::memset(address, 'f', kFillBlock);
      fabric.local.Unmap(ids.back().c_str(), address);
    }
    for (const std::string& id : ids) {
      fabric.Free(id);
    }
  }
}

void FillMappedBlocksFloor(benchmark::State& state) {
  const std::string folder = Fabric::Get().Pool();
  for (auto _ : state) {
    std::vector<std::string> paths;
    for (std::uint64_t filled = 0; filled < kLarge; filled += kFillBlock) {
      paths.push_back(folder + "/floor" + std::to_string(filled));
      const Descriptor file(::open(paths.back().c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
      if (::fallocate(file.Get(), 0, 0, kFillBlock) != 0) {
        state.SkipWithError("no room");
      }
      void* address = ::mmap(nullptr, kFillBlock, PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
      std::memset(address, 'f', kFillBlock);
      ::munmap(address, kFillBlock);
    }
    for (const std::string& path : paths) {
      ::unlink(path.c_str());
    }
  }
}
BENCHMARK(FillMappedBlocks)->UseRealTime()->Iterations(1);
BENCHMARK(FillMappedBlocksFloor)->UseRealTime()->Iterations(1);
VYN_RATIO_AT_LEAST("FillMappedBlocks", "FillMappedBlocksFloor", 0.9);

// --- Reading a mapped GiB. The floor reads private memory.

void ReadMapped(benchmark::State& state) {
  Fabric& fabric = Fabric::Get();
  const std::string id = fabric.Allocate(kLarge);
  const BmSecContext context{id.c_str(), "bench", "token"};
  void* address = nullptr;
  if (fabric.local.Map(&context, PROT_READ | PROT_WRITE, MAP_SHARED, &address) != 0) {
    fabric.Free(id);
    state.SkipWithError("cannot map");
    return;
  }
  std::memset(address, 'r', kLarge);
  for (auto _ : state) {
    benchmark::DoNotOptimize(Sum(address, kLarge));
  }
  fabric.local.Unmap(id.c_str(), address);
  fabric.Free(id);
}

void ReadMappedFloor(benchmark::State& state) {
  void* address = ::mmap(nullptr, kLarge, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  std::memset(address, 'r', kLarge);
  for (auto _ : state) {
    benchmark::DoNotOptimize(Sum(address, kLarge));
  }
  ::munmap(address, kLarge);
}
BENCHMARK(ReadMapped)->UseRealTime();
BENCHMARK(ReadMappedFloor)->UseRealTime();
VYN_RATIO_AT_LEAST("ReadMapped", "ReadMappedFloor", 0.95);

// --- Writing 256 MiB from memory to memory over a link. The floor is a plain socket between the same two
// cores.

void WriteOverLink(benchmark::State& state) {
  Fabric& fabric = Fabric::Get();
  const std::string id = fabric.Allocate(kSent);
  const BmSecContext context{id.c_str(), "bench", "token"};
  const std::string bytes(kSent, 'w');
  for (auto _ : state) {
    if (fabric.linked.Write(&context, 0, kSent, bytes.data()) != 0) {
      state.SkipWithError("cannot write");
    }
  }
  fabric.Free(id);
}

void ReadOverLink(benchmark::State& state) {
  Fabric& fabric = Fabric::Get();
  const std::string id = fabric.Allocate(kSent);
  const BmSecContext context{id.c_str(), "bench", "token"};
  std::string bytes(kSent, 'r');
  fabric.local.Write(&context, 0, kSent, bytes.data());
  for (auto _ : state) {
    if (fabric.linked.Read(&context, 0, kSent, bytes.data()) != 0) {
      state.SkipWithError("cannot read");
    }
  }
  fabric.Free(id);
}

/// Sends all bytes and waits for one byte with which the receiver confirms their arrival.
void SocketCopyFloor(benchmark::State& state) {
  std::uint16_t port = 0;
  std::string text;
  Descriptor listener = vyn::fabric::ListenOnLinkPort("127.0.0.1", port, text);
  ::fcntl(listener.Get(), F_SETFL, 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const int accepted = ::accept(listener.Get(), nullptr, nullptr);
    std::string bytes(kSent, 'x');
    for (;;) {
      for (std::uint64_t got = 0; got < kSent;) {
        const ssize_t count = ::recv(accepted, bytes.data() + got, kSent - got, 0);
        if (count <= 0) {
          ::_exit(0);
        }
        got += static_cast<std::uint64_t>(count);
      }
      ::send(accepted, "x", 1, 0);
    }
  }
  {
    const auto stream =
        vyn::fabric::DialLink("127.0.0.1", port, vyn::net::Deadline::After(std::chrono::seconds(5)));
    listener.Close();
    ::fcntl(stream->Socket(), F_SETFL, 0);
    const std::string bytes(kSent, 'w');
    for (auto _ : state) {
      for (std::uint64_t sent = 0; sent < kSent;) {
        const ssize_t count = ::send(stream->Socket(), bytes.data() + sent, kSent - sent, MSG_NOSIGNAL);
        sent += count > 0 ? static_cast<std::uint64_t>(count) : 0;
      }
      char byte = 0;
      benchmark::DoNotOptimize(::recv(stream->Socket(), &byte, 1, 0));
    }
  }
  ::waitpid(child, nullptr, 0);
}
BENCHMARK(WriteOverLink)->UseRealTime()->Iterations(4);
BENCHMARK(ReadOverLink)->UseRealTime()->Iterations(4);
BENCHMARK(SocketCopyFloor)->UseRealTime()->Iterations(4);
VYN_RATIO_AT_LEAST("WriteOverLink", "SocketCopyFloor", 0.7);
VYN_RATIO_AT_LEAST("ReadOverLink", "SocketCopyFloor", 0.7);

}  // namespace
