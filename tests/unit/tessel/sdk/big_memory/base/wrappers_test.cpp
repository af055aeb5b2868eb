#include "support/captured_log.h"
#include "support/fake_clock.h"
#include "support/scripted_bmclient.h"
#include "vyn/big_memory.h"
#include "vyn/status.h"

#include <gmock/gmock.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using vyn::test::CapturedLog;
using vyn::test::FakeClock;
using vyn::test::Joined;
using vyn::test::ScriptedBmClient;
using Texts = std::vector<std::string>;
using std::chrono::seconds;

namespace {

const std::string kId(60, 'a');
const std::string kOther(60, 'b');
const std::string kAccess = kId + "|app_1|tok";
constexpr const char* kNs = "app_1";
constexpr const char* kToken = "tok";
int gBuffer = 0;
char gNewId[64];
void* gAddress = nullptr;
const char* gIds[1] = {kId.c_str()};
unsigned int gNodeId = 0;
const BmFileRecord kFile{-4, 0, "/tmp/file", "rb", 512, 1024};
const BmBlockRecord kBlock{kId.c_str(), kNs, kToken};
const BmGatherContext kContext{0, 0};

/// A wrapper, one good call of it, and what the library is to see of that.
struct Wrapper {
  const char* name;
  const char* function;
  std::function<std::uint32_t()> call;
  std::string arguments;
  std::string retried;  ///< in the warning line of the common retry; empty for a wrapper without it
};

const std::vector<Wrapper> kWrappers{
    {"BmCreateNamespace", "BM_CreateNSSec", [] { return BmCreateNamespace(3, "t", kNs, 5, kToken); },
     "3|t|app_1|5|tok", ""},
    {"BmDestroyNamespace", "BM_DestroyNSSec", [] { return BmDestroyNamespace(70000, "t", kNs, kToken); },
     "70000|t|app_1|tok", ""},
    {"BmAlloc", "BM_AllocSec", [] { return BmAlloc(kNs, 1UL << 40, 16, 65535, gNewId, kToken); },
     "app_1|tok|1099511627776|16|65535", "Bm alloc"},
    {"BmExpand", "BM_ExpandSec", [] { return BmExpand(kId.c_str(), 8192, 2, kNs, kToken); },
     kAccess + "|8192|2", "Bm expand"},
    {"BmFree", "BM_FreeSec", [] { return BmFree(kId.c_str(), 4, kNs, kToken); }, kAccess + "|4", "Bm free"},
    {"BmBatchFree", "BM_BatchFreeSec", [] { return BmBatchFree(gIds, 0, 16, kNs, kToken); },
     Joined(gIds, 0, 16, kNs, kToken), "Bm batch free"},
    {"BmMmap", "BM_MapSec", [] { return BmMmap(kId.c_str(), 3, 1, &gAddress, kNs, kToken); },
     kAccess + "|3|1", "Bm mmap"},
    {"BmUnmap", "BM_Unmap", [] { return BmUnmap(kId.c_str(), &gBuffer); }, Joined(kId, &gBuffer), "Bm unmap"},
    {"BmCopy", "BM_CopySec", [] { return BmCopy(kId.c_str(), 1, kOther.c_str(), 2, 3, kNs, kToken); },
     kAccess + "|1|" + kOther + "|app_1|tok|2|3|1", "Bm copy"},
    {"BmRead", "BM_ReadSec", [] { return BmRead(kId.c_str(), 1, 4, &gBuffer, 9, kNs, kToken); },
     kAccess + "|" + Joined(1, 4, &gBuffer, 9), "Bm read"},
    {"BmWrite", "BM_WriteSec", [] { return BmWrite(kId.c_str(), 1, 4, &gBuffer, 9, kNs, kToken); },
     kAccess + "|" + Joined(1, 4, &gBuffer, 9), "Bm write"},
    {"BmGather", "BM_GatherSec",
     [] { return BmGather(&kContext, 200, true, kId.c_str(), kNs, kToken, &gBuffer); },
     Joined(&kContext, 200, 128, kAccess, &gBuffer), "Bm gather"},
    {"BmGather new", "BM_GatherSec",
     [] { return BmGather(&kContext, 200, false, kId.c_str(), kNs, kToken, &gBuffer); },
     Joined(&kContext, 200, 256, kAccess, &gBuffer), "Bm gather"},
    {"BmQueryNodeId", "BM_QueryResAttri", [] { return BmQueryNodeId(&gNodeId); }, "0", "query nodeId"},
    {"BmSpecificObjectSwapIn", "BM_SpecificObjSwapInSec",
     [] { return BmSpecificObjectSwapIn(&kFile, &kBlock, 6, &gBuffer, 2048); },
     Joined(&kFile, &kBlock, 6, &gBuffer, 2048), ""},
};

const Wrapper& Find(const std::string& name) {
  for (const Wrapper& wrapper : kWrappers) {
    if (wrapper.name == name) {
      return wrapper;
    }
  }
  throw std::runtime_error("no wrapper " + name);
}

/// The library is up before every case.
class BmWrappers : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(BmInitialize("", 0), 0U);
    mLibrary.script.Clear();
  }
  ScriptedBmClient mLibrary;
  FakeClock mClock;
  CapturedLog mLog;
};

TEST_F(BmWrappers, HandTheirArgumentsOn) {
  for (const Wrapper& wrapper : kWrappers) {
    mLibrary.script.Clear();
    EXPECT_EQ(wrapper.call(), 0U) << wrapper.name;
    EXPECT_THAT(mLibrary.script.Calls(wrapper.function), ElementsAre(wrapper.arguments)) << wrapper.name;
  }
  EXPECT_EQ(gNewId, std::string(60, 'n'));
  EXPECT_EQ(gNodeId, 77U);
  EXPECT_NE(gAddress, nullptr);
  EXPECT_THAT(
      mLog.Texts(1),
      ElementsAre(
          "will BmFree bmId:" + kId + " flags:4",
          "Execute swap in from file { node: -4, name: /tmp/file, length: 1024, offset: 512, mode: rb }; "
          "bm { bmId: " +
              kId + ", length: 2048 }; flags: 6"));
  EXPECT_THAT(mLog.Lines(), SizeIs(2));
}

TEST_F(BmWrappers, RetryAConnectionThatIsNotUp) {
  for (const Wrapper& wrapper : kWrappers) {
    if (wrapper.retried.empty()) {
      continue;
    }
    SCOPED_TRACE(wrapper.name);
    mLog.Clear();
    mLibrary.script.Clear();
    const std::size_t slept = mClock.Sleeps().size();
    mLibrary.script.ExpectResults(wrapper.function, {-195, -195, 0});
    EXPECT_EQ(wrapper.call(), 0U);
    EXPECT_THAT(mLibrary.script.Calls(wrapper.function), AllOf(SizeIs(3), Each(wrapper.arguments)));
    const std::string line = "Connection unconnected, retry " + wrapper.retried + " ";
    EXPECT_THAT(mLog.Texts(3), ElementsAre(line + "1/3", line + "2/3"));

    mLibrary.script.ExpectResults(wrapper.function, {-195, -195, -195, -195});
    EXPECT_TRUE(vyn::Failed(wrapper.call()));
    auto sleeps = mClock.Sleeps();
    sleeps.erase(sleeps.begin(), sleeps.begin() + static_cast<std::ptrdiff_t>(slept));
    EXPECT_THAT(sleeps, ElementsAre(seconds(5), seconds(10), seconds(5), seconds(10), seconds(15)));
    EXPECT_THAT(mLibrary.script.Calls(wrapper.function), SizeIs(7));
  }
}

TEST_F(BmWrappers, TranslateResults) {
  const std::string copy = "Failed to copy src bm id: " + kId + " from offset: 1 to dst bm id: " + kOther +
                           " offset is: 2 length is: 3";
  const std::string range = kId + " offset is: 1 length is: 4";
  const std::string gather = "Failed to gather bm as dst bmId: " + kId + " ns: app_1 token: ";
  const std::string swap =
      "Failed swap in from file node is: -4 name: /tmp/file length is: 1024 offset is: 512 mode is: "
      "rb bmId is: " +
      kId + " length is: 2048 flags is: 6 mf ret";
  struct Case {
    const char* wrapper;
    int result;  ///< of every call
    std::uint32_t status;
    std::string text;
  };
  const std::vector<Case> cases{
      {"BmCreateNamespace", 22, 2080007, "Failed to create namespace, the parameter namespace is invalid."},
      {"BmCreateNamespace", -195, 2080007, "Failed to create namespace, errno <13>."},
      {"BmDestroyNamespace", -195, 2080007, "Failed to destroy namespace, errno is 13"},
      {"BmAlloc", -191, 2080007, "Failed to allocate memory block from memory fabric, with ret :-191"},
      {"BmExpand", -79999, 2080007,
       "Failed to expand memory for bm id: " + kId + " with size: 8192 and flags: 2 with ret -79999"},
      {"BmFree", -2, 2080007, "Failed to free memory for bm id: " + kId + " with flags: 4, errno<13>"},
      {"BmFree", -195, 2080007, "Failed to free memory for bm id: " + kId + " with flags: 4, errno<13>"},
      {"BmBatchFree", 1, 2080007, "Failed to free memory with flags: 16, errno<13>"},
      {"BmMmap", -13, 2080007, "Failed to map bm id: " + kId + " with prot: 3 flags: 1 ret is: -13"},
      {"BmUnmap", -22, 2080007, "Failed to unmap bm id: " + kId + " ret is: -22"},
      {"BmCopy", -190, 2080019, copy + " mf ret is -190, remote error occurred"},
      {"BmCopy", -193, 2080021, copy + " mf ret is -193 mf return local error: 1"},
      {"BmCopy", -79989, 2080021, copy + " mf ret is -79989 mf return local error: 0"},
      {"BmRead", -191, 2080019,
       "Failed to read bm id is: " + range + " mf ret is -191, remote error occurred"},
      {"BmRead", -195, 2080021,
       "Failed to read bm id is: " + range + " mf return local error: 0 ret is: -195"},
      {"BmWrite", -194, 2080019,
       "Failed to write bm id is: " + range + " mf ret is -194, remote error occurred"},
      {"BmWrite", -193, 2080021,
       "Failed to write bm id is: " + range + " mf return local error: 1 ret is: -193"},
      {"BmGather", -194, 2080019, gather + "*** isDstExist: 1, remote error occurred"},
      {"BmGather new", -79989, 2080019, gather + "*** isDstExist: 0, remote error occurred"},
      {"BmGather", -79988, 2080021, gather + " mf return local error: 0 ret is: -79988"},
      {"BmGather", -193, 2080021, gather + " mf return local error: 1 ret is: -193"},
      {"BmSpecificObjectSwapIn", -79988, 2080019, swap + " code: -79988, remote error occurred"},
      {"BmSpecificObjectSwapIn", -79989, 2080019, swap + " code: -79989, remote error occurred"},
      {"BmSpecificObjectSwapIn", -193, 2080021, swap + "urn local error: 1 ret is: -193"},
      {"BmSpecificObjectSwapIn", -79999, 2080021, swap + "urn local error: 0 ret is: -79999"},
      {"BmQueryNodeId", -190, 2080021, "Failed to get machine id,  mf ret code: -190"},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(std::string(one.wrapper) + " " + std::to_string(one.result));
    const Wrapper& wrapper = Find(one.wrapper);
    const bool isSwapIn = std::string(one.wrapper) == "BmSpecificObjectSwapIn";
    const bool again = (one.result == -195 && !wrapper.retried.empty()) || (one.result == -79999 && isSwapIn);
    mLibrary.script.Clear();
    mLog.Clear();
    for (int i = 0; i < 4; ++i) {
      mLibrary.script.Expect(wrapper.function, {{one.result, 13, {}}});
    }
    EXPECT_EQ(wrapper.call(), one.status);
    EXPECT_STREQ(BmGetLastErrorMessage(), one.text.c_str());
    EXPECT_THAT(mLibrary.script.Calls(wrapper.function), SizeIs(again ? 4 : 1));
    const bool twice = std::string(one.wrapper) == "BmAlloc";
    EXPECT_THAT(mLog.Texts(4), AllOf(SizeIs(twice ? 2 : 1), Each(one.text)));
  }
}

TEST_F(BmWrappers, FullPoolAndExistingNamespaceAreNotRecorded) {
  mLibrary.script.ExpectResults("BM_AllocSec", {-79999});
  mLibrary.script.ExpectResults("BM_CreateNSSec", {-79995});
  std::thread([&] {  // a thread without a record
    EXPECT_EQ(Find("BmAlloc").call(), 2100041U);
    EXPECT_EQ(Find("BmCreateNamespace").call(), 0U);
    EXPECT_EQ(BmGetLastErrorMessage(), nullptr);
  })
      .join();
  EXPECT_THAT(mLog.Texts(3), ElementsAre("the namespace already exists."));
  EXPECT_THAT(mLog.Texts(4), IsEmpty());
  EXPECT_THAT(mClock.Sleeps(), IsEmpty());
}

TEST_F(BmWrappers, SwapInRetriesInItsOwnWay) {
  mLibrary.script.ExpectResults("BM_SpecificObjSwapInSec", {-79999, -195, -79999, 0});
  EXPECT_EQ(Find("BmSpecificObjectSwapIn").call(), 0U);
  EXPECT_THAT(mClock.Sleeps(), ElementsAre(seconds(0), seconds(5), seconds(10)));
  const std::string line =
      "Bm capacity is not enough or rpc connection unconnected, retry to swap in from disk, attempt: ";
  EXPECT_THAT(mLog.Texts(3), ElementsAre(line + "0/3 is not enough: 1 is connection unconnected: 0",
                                         line + "1/3 is not enough: 0 is connection unconnected: 1",
                                         line + "2/3 is not enough: 1 is connection unconnected: 0"));
}

TEST_F(BmWrappers, RefuseArgumentsBeforeTheLibraryIsTouched) {
  const std::string shortId(59, 'a');
  const std::string longId(61, 'a');
  const std::string notEqual =
      "Invalid input param " + shortId + " with length 59 whose length is not equal to 60";
  const char* id = kId.c_str();
  BmFileRecord nameless = kFile;
  nameless.name = "";
  struct Case {
    std::function<std::uint32_t()> call;
    std::uint32_t status;
    std::string text;  ///< of the record; empty for none
  };
  const std::string noLength = "Invalid input params whose length is 0";
  const std::string noToken = "Unexpected nullptr value token";
  const std::vector<Case> cases{
      {[&] { return BmCreateNamespace(1, "", "", 0, kToken); }, 2080001, noLength},
      {[&] { return BmDestroyNamespace(1, "", nullptr, kToken); }, 2080001, ""},
      {[&] { return BmDestroyNamespace(1, "", kNs, nullptr); }, 2080001, noToken},
      {[&] { return BmAlloc(kNs, 1, 0, 0, nullptr, nullptr); }, 2080001,
       "Invalid parameter. bmId is null?1, token is null?1"},
      {[&] { return BmAlloc("a.b", 1, 0, 0, gNewId, kToken); }, 2080001,
       "Invalid parameter. bmId is null?0, token is null?0"},
      {[&] { return BmExpand(longId.c_str(), 1, 0, kNs, ""); }, 2080001,
       "Invalid input param " + longId + " with length 61 whose length is not equal to 60"},
      {[&] { return BmFree(shortId.c_str(), 0, kNs, kToken); }, 2080001, notEqual},
      {[&] { return BmFree(shortId.c_str(), 0, kNs, nullptr); }, 2080001,
       noToken},  // the token is looked at first
      {[&] { return BmBatchFree(gIds, 1, 0, kNs, nullptr); }, 2080001, noToken},
      {[&] { return BmBatchFree(gIds, 1, 0, "", kToken); }, 2080001, noLength},
      {[&] { return BmMmap(nullptr, 3, 1, &gAddress, kNs, kToken); }, 2080001,
       "Invalid input params is nullptr"},
      {[&] { return BmUnmap(shortId.c_str(), nullptr); }, 2080001, notEqual},
      {[&] { return BmUnmap(id, nullptr); }, 2080001, "Invalid address that is nullptr, bm_id is " + kId},
      {[&] { return BmCopy(id, 0, shortId.c_str(), 0, 1, kNs, kToken); }, 2080001, notEqual},
      {[&] { return BmRead(shortId.c_str(), 0, 1, &gBuffer, 0, kNs, kToken); }, 2080001, notEqual},
      {[&] { return BmWrite(id, 0, 1, &gBuffer, 0, "", kToken); }, 2080001, noLength},
      {[&] { return BmGather(nullptr, 0, true, id, kNs, kToken, nullptr); }, 1, "Invalid context as null"},
      {[&] { return BmSpecificObjectSwapIn(nullptr, &kBlock, 0, nullptr, 1); }, 2080005,
       "Invalid Params for specific object swap in"},
      {[&] { return BmSpecificObjectSwapIn(&kFile, nullptr, 0, nullptr, 1); }, 2080005,
       "Invalid Params for specific object swap in"},
      {[&] { return BmSpecificObjectSwapIn(&nameless, &kBlock, 0, nullptr, 1); }, 2080005,
       "Invalid Params for specific object swap in"},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(i);
    mLog.Clear();
    std::thread([&] {
      EXPECT_EQ(cases[i].call(), cases[i].status);
      const char* text = BmGetLastErrorMessage();
      EXPECT_EQ(text == nullptr ? "" : std::string(text), cases[i].text);
    }).join();
    EXPECT_FALSE(mLog.Texts(4).empty()) << "a refusal leaves a line";
  }
  EXPECT_EQ(mLibrary.script.CallCount(), 0U);
}

TEST_F(BmWrappers, OfAClosedLibraryReopenItOrSayThatItIsNotUp) {
  for (const Wrapper& wrapper : kWrappers) {
    SCOPED_TRACE(wrapper.name);
    BmUninitialize();
    mLibrary.script.Clear();
    mLog.Clear();
    const std::string pointer = wrapper.name == std::string("BmBatchFree")            ? "apiBmBatchFree"
                                : wrapper.function == std::string("BM_GatherSec")     ? "apiBmGather"
                                : wrapper.function == std::string("BM_QueryResAttri") ? "apiBmQueryResAttri"
                                : wrapper.name == std::string("BmSpecificObjectSwapIn")
                                    ? "apiBmSpecificObjectSwapIn"
                                    : "";
    std::thread([&] {
      EXPECT_EQ(wrapper.call(), pointer.empty() ? 0U : 2000057U);
      EXPECT_EQ(BmGetLastErrorMessage(), nullptr);
    }).join();
    if (pointer.empty()) {
      EXPECT_THAT(mLibrary.script.Calls("BM_Init"), SizeIs(1));
    } else {
      EXPECT_EQ(mLibrary.script.CallCount(), 0U);
      EXPECT_THAT(mLog.Texts(4), ElementsAre("Unexpected nullptr value " + pointer));
      continue;
    }
    // And when it cannot be reopened, its status is the wrapper's.
    BmUninitialize();
    mLog.Clear();
    mLibrary.script.ExpectResults("BM_Init", {-1});
    EXPECT_EQ(wrapper.call(), 2100021U);
    EXPECT_EQ(mLog.Has(4, "Failed to execute BmInitialize(g_vynHome.c_str(), g_clientFlag)"),
              wrapper.name == std::string("BmCreateNamespace"));
  }
}

TEST_F(BmWrappers, GatherContextHoldsACopyBehindTwoWords) {
  char data[] = "twelve bytes";
  const std::unique_ptr<BmGatherContext, decltype(&std::free)> context(
      GenerateBmGatherContext(0xfffffff0U, data, 12), &std::free);
  std::memset(data, 0, sizeof(data));
  EXPECT_EQ(std::memcmp(context.get(), "\xf0\xff\xff\xff\0\0\0\0\x0c\0\0\0\0\0\0\0twelve bytes", 28), 0);
  EXPECT_EQ(GenerateBmGatherContext(1, nullptr, 8), nullptr);
  EXPECT_THAT(mLog.Texts(4), ElementsAre("Failed to memory copy for bm user context"));
}

}  // namespace
