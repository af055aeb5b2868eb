// The exported functions with texts that are none, and when the n-th allocation of a call fails, for each n in turn: the status, and what is
// taken back.

#include "support/client/sdk_world.h"
#include "vyn/status.h"
#include "vyn/variable.h"

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
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }

namespace vyn::test {
namespace {

using namespace tessel;

constexpr unsigned long kSizes[] = {100, 50};
constexpr const char* kApp = "an_application_with_a_name_that_needs_memory";
const std::string kName = kApp;
const std::string kVariable = kName + "-7";

/// A driver on a node of the fabric, registered.
class OutOfMemoryTest : public testing::Test {
 protected:
  OutOfMemoryTest() {
    bool registered = false;
    EXPECT_EQ(RegisterBroadcastApp(kApp, true, "tok", &registered), 0U);
    for (const auto opcode :
         {ShuffleServer::BROADCAST_BLOCK_BATCH_CREATE, ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH}) {
      mWorld.server.Answer(opcode, {0, SdkWorld::Blocks(kName)});
    }
    BroadcastRemoteNodeRsp nodes;
    mWorld.meta.Answer(ShuffleMeta::BROADCAST_REMOTE_NODE_GET, {0, BytesOf(nodes)});
    mWorld.meta.Answer(ShuffleMeta::BROADCAST_VAR_GET, {0, SdkWorld::Blocks(kName)});
  }
  /// Makes `call` again and again, each time failing one allocation further on, until none is left to fail.
  /// `check` gets the status; an exception would end the test. Returns: how many were checked.
  static int FailEach(Form form, const std::function<std::uint32_t()>& call,
                      const std::function<void(std::uint32_t status)>& check) {
    for (int n = 0;; ++n) {
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
  }

  DriverWorld mWorld;
  const CapturedLog mLog{5};  // a line that cannot be written is no failure
};

TEST_F(OutOfMemoryTest, ExportedFunctionsCheckTheirTextsAndReturnAStatusWhenAllocationsFail) {
  std::vector<std::string> list;
  std::vector<unsigned short> nodeIds;
  unsigned long sizes[2];
  char data[8] = {};
  void* address = nullptr;
  VynVariable* variable = nullptr;
  bool registered = false;
  const std::string id(60, 'a');
  const char* process = "a_process_with_a_name_that_is_long";
  using Text = const char*;
  const auto remote = [&](Text app, Text token) {
    return CreateBroadcastBlockBatchRemote(app, token, 5, kSizes, 2, "10.9.8.7:1", "h", 3, list);
  };
  struct Row {
    std::function<std::uint32_t(Text)> call;  ///< takes one text that it checks
    int messages = 0;                         ///< that it makes
    std::uint32_t refused = 2120001;
  };
  int failures = 0;
  for (const Row& row : std::vector<Row>{
           {[](Text app) { return CreateBroadcastVar(app, 7, 2); }, 1},
           {[](Text app) { return DeleteBroadcastVar(app, 7); }, 1},
           {[](Text app) { return CreateBroadcastBlockBatch(app, 7, kSizes, 2); }, 2},
           {[&](Text app) {
              g_broadcastCache->RemoveVarInfo(kVariable);
              return FetchBroadcastBlockBatch(app, 7, sizes);
            },
            2},
           {[&](Text app) { return GetRemoteNodeInfo(app, list, list, nodeIds, list, true); }, 2},
           {[&](Text token) { return RegisterBroadcastApp("new", true, token, &registered); }, 1},
           {[&](Text app) { return RegisterBroadcastApp(app, true, process, &registered); }},
           {[&](Text app) { return ObtainBroadcastBlockAddr(app, 7, 0, &address); }},
           {[&](Text app) { return ReleaseBroadcastBlockAddr(app, 7, 0, data); }},
           {[&](Text app) { return ReadRemoteBlock(app, 7, 0, data, "tok"); }},
           {[&](Text token) { return ReadRemoteBlock(kApp, 7, 0, data, token); }},
           {[&](Text app) { return WriteRemoteBlock(app, id.c_str(), data, 8, "tok"); }},
           {[&](Text app) { return remote(app, "tok"); }},
           {[&](Text token) { return remote(kApp, token); }},
           {[&](Text app) { return VynVariableCreate(app, 8, 100, &variable); }},
           {[&](Text app) {
             VynVariableClose(std::exchange(variable, nullptr));
             return VynVariableOpen(app, 7, &variable);
           }},
           {[](Text app) { return VynVariableStat(app, 7, nullptr); }},
           {[](Text app) { return VynVariableDelete(app, 7); }},
           {[](Text app) { return UnRegisterBroadcastApp(app); }},
           {[](Text app) { return MarkBroadcastApplicationCompleted(app); }},
           {[&](Text app) { return HeartBeat(app, 2, process, "", true); }, 0, 2080001},
           {[&](Text name) { return HeartBeat(kApp, 2, name, "", false); }, 0, 2080001},
           {[&](Text content) { return HeartBeat(kApp, 2, process, content, false); }, 0, 2080001},
           {[](Text ip) { return BmCreateLink(1, "host", ip, 1, 0); }, 0, 2080001},
           {[](Text ns) { return BmCreateNamespace(1, "", ns, 0, "tok"); }, 0, 2080001},
           {[&](Text ns) { return BmCopy(id.c_str(), 0, id.c_str(), 0, 1, ns, "tok"); }, 0, 2080001}}) {
    EXPECT_EQ(row.call(nullptr), row.refused);
    EXPECT_EQ(row.call("a b"), row.refused);
    mWorld.server.Clear();
    mWorld.meta.Clear();
    const auto call = [&] { return row.call(kApp); };
    const auto check = [&](std::uint32_t status) {
      const bool asked = !mWorld.server.Requests().empty() || !mWorld.meta.Requests().empty();
      EXPECT_TRUE(row.messages == 0 || (status == 2000057 && !asked));
    };
    EXPECT_GE(FailEach(Form::kNothrow, call, check), row.messages);
    FailEach(Form::kThrowing, call, [&](std::uint32_t status) { failures += status == 2000057 ? 1 : 0; });
  }
  EXPECT_GE(FailEach(Form::kNothrow, &CheckMfNode, [](std::uint32_t status) { EXPECT_EQ(status, 2000057U); }),
            2);
  EXPECT_GT(failures, 20);
}

TEST_F(OutOfMemoryTest, AFailedRemoteCreateFreesItsBlocks) {
  auto& script = mWorld.bm.script;
  std::vector<std::string> ids;
  std::string order;
  const auto create = [&] {
    const int goWell = std::exchange(gGoWell, -1);  // from the moment when the blocks are there
    ids.clear();
    order.clear();
    g_broadcastCache->CleanTable();
    script.Clear();
    script.Expect("BM_AllocSec", {0, {0, [goWell] { gGoWell = goWell; }}});
    script.Expect("BM_BatchFreeSec", {{-5, [&] { order += "free "; }}});  // nobody looks at these results
    script.Expect("BM_DestroyNSSec", {{-5, [&] { order += "destroy "; }}});
    return CreateBroadcastBlockBatchRemote(kApp, "tok", 7, kSizes, 2, "10.9.8.7:3899", "host", 3, ids);
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

}  // namespace
}  // namespace vyn::test
