// The exported functions when the n-th allocation of a call fails, for each n in turn: the status, and what is
// taken back.

#include "support/captured_log.h"
#include "support/sdk_world.h"
#include "support/test.h"
#include "tessel/sdk/broadcast/base_api_broadcast.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/big_memory.h"
#include "vyn/status.h"

namespace {

enum class Form { kThrowing, kNothrow };

/// In this thread so many allocations of this form go well before one fails. Negative: all do.
thread_local Form gForm = Form::kThrowing;
thread_local int gGoWell = -1;

void* Allocate(std::size_t size, Form form) {
  const bool fails = form == gForm && gGoWell >= 0 && gGoWell-- == 0;
  return fails ? nullptr : std::malloc(size == 0 ? 1 : size);
}

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
  void* memory = Allocate(size, Form::kThrowing);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, Form::kNothrow);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace vyn::test {
namespace {

using namespace tessel;

constexpr unsigned long kSizes[] = {100, 50};

/// A driver on a node of the fabric that is ready and registered.
class OutOfMemoryTest : public testing::Test {
 protected:
  OutOfMemoryTest() {
    mWorld.WriteConf(mGround.url);
    EXPECT_EQ(mWorld.Initialize(0), 0U);
    bool registered = false;
    EXPECT_EQ(RegisterBroadcastApp("app", true, "tok", &registered), 0U);
    for (const auto opcode :
         {ShuffleServer::BROADCAST_BLOCK_BATCH_CREATE, ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH}) {
      mWorld.server.Answer(opcode, {0, SdkWorld::Blocks("app", 7, 9)});
    }
    BroadcastRemoteNodeRsp nodes;
    mWorld.meta.Answer(ShuffleMeta::BROADCAST_REMOTE_NODE_GET, {0, BytesOf(nodes)});
    mLog = std::make_unique<CapturedLog>(5);  // a line that cannot be written is no failure
  }
  /// Makes `call` again and again, each time failing one allocation further on, until none is left to fail.
  /// `check` gets the status; an exception would end the test. Returns: how many failed.
  static int FailEach(Form form, const std::function<std::uint32_t()>& call,
                      const std::function<void(std::uint32_t status)>& check, int limit = 1000) {
    for (int n = 0; n < limit; ++n) {
      SCOPED_TRACE(n);
      std::uint32_t status = 0;
      bool failed = false;
      std::thread([&] {
        gForm = form;
        gGoWell = n;
        status = call();
        failed = gGoWell < 0;
        gGoWell = -1;
      }).join();
      if (!failed) {
        return n;
      }
      check(status);
    }
    return limit;
  }

  DriverGround mGround;
  SdkWorld mWorld;
  std::unique_ptr<CapturedLog> mLog;
};

TEST_F(OutOfMemoryTest, AMissingMessageEndsTheCall) {
  std::vector<std::string> texts;
  std::vector<unsigned short> nodeIds;
  unsigned long sizes[2];
  bool registered = false;
  struct Row {
    int messages;
    std::function<std::uint32_t()> call;
  };
  for (const Row& row : std::vector<Row>{
           {1, [] { return CreateBroadcastVar("app", 7, 2); }},
           {1, [] { return DeleteBroadcastVar("app", 7); }},
           {2, [] { return CreateBroadcastBlockBatch("app", 7, kSizes, 2); }},
           {2, [&] { return g_broadcastCache->CleanTable(), FetchBroadcastBlockBatch("app", 7, sizes); }},
           {2, [&] { return GetRemoteNodeInfo("app", texts, texts, nodeIds, texts, true); }},
           {1, [&] { return RegisterBroadcastApp("new", true, "t", &registered); }},
           {2, &CheckMfNode}}) {
    mWorld.server.Clear();
    mWorld.meta.Clear();
    const auto check = [&](std::uint32_t status) {
      EXPECT_EQ(status, 2000057U);
      EXPECT_EQ(mWorld.server.Requests().size() + mWorld.meta.Requests().size(), 0U);
    };
    EXPECT_GE(FailEach(Form::kNothrow, row.call, check), row.messages);
    FailEach(Form::kThrowing, row.call, [](std::uint32_t status) { EXPECT_TRUE(Failed(status)); });
  }
}

TEST_F(OutOfMemoryTest, NoExceptionLeavesAnExportedFunction) {
  char data[8] = {};
  void* address = nullptr;
  bool registered = false;
  const std::string id(60, 'a');
  const char* process = "a process with a name that is long";
  EXPECT_EQ(CreateBroadcastBlockBatch("app", 7, kSizes, 2), 0U);
  int failures = 0;
  for (const std::function<std::uint32_t()>& call : std::vector<std::function<std::uint32_t()>>{
           [&] { return RegisterBroadcastApp("new", true, process, &registered); },
           [] { return UnRegisterBroadcastApp("new"); },
           [] { return MarkBroadcastApplicationCompleted("new"); },
           [&] { return ObtainBroadcastBlockAddr("app", 7, 0, &address); },
           [&] { return ReleaseBroadcastBlockAddr("app", 7, 0, data); },
           [&] { return ReadRemoteBlock("app", 7, 0, data, "tok"); },
           [&] { return WriteRemoteBlock("app", id.c_str(), data, 8, "tok"); },
           [&] { return HeartBeat("app", 2, process, "", true); },
           [&] { return HeartBeat("app", 2, process, "", false); },
           [] { return BmCreateLink(1, "host", "10.0.0.1", 1, 0); },
           [] { return BmCreateNamespace(1, "", "app", 0, "tok"); },
           [&] { return BmCopy(id.c_str(), 0, id.c_str(), 0, 1, "app", "tok"); }}) {
    FailEach(Form::kThrowing, call, [&](std::uint32_t status) { failures += status == 2000057 ? 1 : 0; });
  }
  EXPECT_GT(failures, 10);
}

TEST_F(OutOfMemoryTest, TheRemoteFormTakesBackWhatItMade) {
  auto& script = mWorld.bm.script;
  std::vector<std::string> ids;
  std::string order;
  const auto create = [&] {
    // From the moment when the blocks are there.
    const int goWell = std::exchange(gGoWell, -1);
    ids.clear();
    order.clear();
    g_broadcastCache->CleanTable();
    script.Clear();
    script.Expect("BM_AllocSec", {{}, {0, 0, [goWell] { gGoWell = goWell; }}});
    script.Expect("BM_BatchFreeSec", {{-5, 0, [&] { order += "free "; }}});  // nobody looks at these results
    script.Expect("BM_DestroyNSSec", {{-5, 0, [&] { order += "destroy "; }}});
    return CreateBroadcastBlockBatchRemote("app", "tok", 7, kSizes, 2, "10.9.8.7:3899", "host", 3, ids);
  };
  for (const Form form : {Form::kThrowing, Form::kNothrow}) {
    int freed = 0;
    FailEach(form, create, [&](std::uint32_t status) {
      EXPECT_TRUE(order.empty() || (order == "free " && ids.empty())) << "what the caller knows stays";
      EXPECT_TRUE(Failed(status) || !ids.empty());
      freed += order == "free " ? 1 : 0;
    });
    EXPECT_GT(freed, 0);
  }
}

TEST_F(OutOfMemoryTest, AStartThatFailsFreesTheClaim) {
  const auto start = [this] {
    BroadcastUninitialize();
    return mWorld.Initialize(0);
  };
  for (const auto& [form, limit] : {std::pair{Form::kThrowing, 30}, std::pair{Form::kNothrow, 1000}}) {
    int failures = 0;
    FailEach(
        form, start,
        [&](std::uint32_t status) {
          failures += status != 0 ? 1 : 0;
          EXPECT_EQ(g_initClaim.load(), Failed(status) ? 0 : 1);
        },
        limit);
    EXPECT_GT(failures, 1);
  }
  EXPECT_EQ(start(), 0U);
}

}  // namespace
}  // namespace vyn::test
