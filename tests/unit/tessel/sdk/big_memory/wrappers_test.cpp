// The wrappers of the library's functions: what they hand on, what they make of each result, when they call
// again, and what they refuse.

#include "support/captured_log.h"
#include "support/fake_clock.h"
#include "support/scripted_bmclient.h"
#include "support/test.h"
#include "vyn/big_memory.h"
#include "vyn/status.h"

using std::chrono::seconds;
using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::SizeIs;
using vyn::test::Joined;

namespace {

const std::string kId(60, 'a');
const std::string kOther(60, 'b');
const std::string kAccess = kId + "|app_1|tok";
constexpr const char* kNs = "app_1";
constexpr const char* kToken = "tok";
const char* const id = kId.c_str();
int gBuffer = 0;
char gNewId[64];
void* gAddress = nullptr;
const char* gIds[1] = {id};
unsigned int gNodeId = 0;
const BmFileRecord kFile{-4, 0, "/tmp/file", "rb", 512, 1024};
const BmBlockRecord kBlock{id, kNs, kToken};
const BmGatherContext kContext{0, 0};

const std::vector<seconds> kOnce{};
const std::vector<seconds> kCommon{seconds(5), seconds(10), seconds(15)};
const std::vector<seconds> kSwapIn{seconds(0), seconds(5), seconds(10)};
using Statuses = std::map<int, std::uint32_t>;
const Statuses kNone;
const Statuses kExists{{-79995, 0}};
const Statuses kFull{{-79999, 2100041}};
const Statuses kRemote{{-190, 2080019}, {-191, 2080019}, {-194, 2080019}};
const Statuses kRemoteGather{{-190, 2080019}, {-191, 2080019}, {-194, 2080019}, {-79989, 2080019}};
const Statuses kRemoteSwapIn{
    {-190, 2080019}, {-191, 2080019}, {-194, 2080019}, {-79989, 2080019}, {-79988, 2080019}};

/// A wrapper, one good call of it, and what the library is to see of that.
struct Wrapper {
  const char* function;
  std::function<std::uint32_t()> call;
  std::string arguments;
  std::uint32_t failure = 2080007;  ///< the status of every result that `special` does not name
  Statuses special = {};
  std::vector<seconds> pauses = kCommon;  ///< before each retry
  bool opens = true;                      ///< whether it opens a closed library, or says that there is none
};

const std::vector<Wrapper> kWrappers{
    {"BM_CreateLink", [] { return BmCreateLink(7, "host", "10.0.0.1", 65535, 3); }, "7|host|10.0.0.1|65535|3",
     2080007, kNone, kOnce},
    {"BM_CreateNSSec", [] { return BmCreateNamespace(3, "t", kNs, 5, kToken); }, "3|t|app_1|5|tok", 2080007,
     kExists, kOnce},
    {"BM_DestroyNSSec", [] { return BmDestroyNamespace(70000, "t", kNs, kToken); }, "70000|t|app_1|tok",
     2080007, kNone, kOnce},
    {"BM_AllocSec", [] { return BmAlloc(kNs, 1UL << 40, 16, 65535, gNewId, kToken); },
     "app_1|tok|1099511627776|16|65535", 2080007, kFull},
    {"BM_ExpandSec", [] { return BmExpand(id, 8192, 2, kNs, kToken); }, kAccess + "|8192|2"},
    {"BM_FreeSec", [] { return BmFree(id, 4, kNs, kToken); }, kAccess + "|4"},
    {"BM_BatchFreeSec", [] { return BmBatchFree(gIds, 0, 16, kNs, kToken); },
     Joined(gIds, 0, 16, kNs, kToken), 2080007, kNone, kCommon, false},
    {"BM_MapSec", [] { return BmMmap(id, 3, 1, &gAddress, kNs, kToken); }, kAccess + "|3|1"},
    {"BM_Unmap", [] { return BmUnmap(id, &gBuffer); }, Joined(kId, &gBuffer)},
    {"BM_CopySec", [] { return BmCopy(id, 1, kOther.c_str(), 2, 3, kNs, kToken); },
     kAccess + "|1|" + kOther + "|app_1|tok|2|3|1", 2080021, kRemote},
    {"BM_ReadSec", [] { return BmRead(id, 1, 4, &gBuffer, 9, kNs, kToken); },
     kAccess + "|" + Joined(1, 4, &gBuffer, 9), 2080021, kRemote},
    {"BM_WriteSec", [] { return BmWrite(id, 1, 4, &gBuffer, 9, kNs, kToken); },
     kAccess + "|" + Joined(1, 4, &gBuffer, 9), 2080021, kRemote},
    {"BM_GatherSec", [] { return BmGather(&kContext, 200, true, id, kNs, kToken, &gBuffer); },
     Joined(&kContext, 200, 128, kAccess, &gBuffer), 2080021, kRemoteGather, kCommon, false},
    {"BM_GatherSec", [] { return BmGather(&kContext, 200, false, id, kNs, kToken, &gBuffer); },
     Joined(&kContext, 200, 256, kAccess, &gBuffer), 2080021, kRemoteGather, kCommon, false},
    {"BM_SpecificObjSwapInSec", [] { return BmSpecificObjectSwapIn(&kFile, &kBlock, 6, &gBuffer, 2048); },
     Joined(&kFile, &kBlock, 6, &gBuffer, 2048), 2080021, kRemoteSwapIn, kSwapIn, false},
    {"BM_QueryResAttri", [] { return BmQueryNodeId(&gNodeId); }, "0", 2080021, kNone, kCommon, false},
};

/// Runs a call on a thread that has no record of an earlier failure. `record` receives the one it leaves.
std::uint32_t OnFreshThread(const std::function<std::uint32_t()>& call, std::string& record) {
  std::uint32_t status = 0;
  std::thread([&] {
    status = call();
    const char* text = BmGetLastErrorMessage();
    record = text == nullptr ? "" : text;
  }).join();
  return status;
}

/// The library is up before every case.
class BmWrappers : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(BmInitialize("", 0), 0U);
    mLibrary.script.Clear();
  }
  vyn::test::ScriptedBmClient mLibrary;
  vyn::test::FakeClock mClock;
  vyn::test::CapturedLog mLog;
};

TEST_F(BmWrappers, HandTheirArgumentsOnAndTranslateEveryResult) {
  constexpr int kErrno = 13;
  for (const Wrapper& wrapper : kWrappers) {
    for (const int result :
         {0, 1, 22, -1, -190, -191, -193, -194, -195, -79988, -79989, -79995, -79997, -79999}) {
      SCOPED_TRACE(std::string(wrapper.function) + " " + std::to_string(result));
      const bool isSwapIn = wrapper.pauses == kSwapIn;
      const auto pauses = result == -195 || (isSwapIn && result == -79999) ? wrapper.pauses : kOnce;
      const auto special = wrapper.special.find(result);
      const std::uint32_t expected = result == 0                        ? 0
                                     : special != wrapper.special.end() ? special->second
                                                                        : wrapper.failure;
      mLibrary.script.Clear();
      mLog.Clear();
      const auto slept = mClock.Sleeps().size();
      for (int i = 0; i < 4; ++i) {
        mLibrary.script.Expect(wrapper.function, {{result, kErrno, {}}});
      }
      std::string record;
      EXPECT_EQ(OnFreshThread(wrapper.call, record), expected);
      EXPECT_THAT(mLibrary.script.Calls(wrapper.function),
                  AllOf(SizeIs(1 + pauses.size()), Each(wrapper.arguments)));
      const auto sleeps = mClock.Sleeps();
      EXPECT_THAT(std::vector(sleeps.begin() + static_cast<std::ptrdiff_t>(slept), sleeps.end()),
                  ElementsAreArray(pauses));
      // A full pool and a namespace that exists are no failures to record.
      const bool recorded = expected != 0 && expected != 2100041;
      const std::size_t lines = wrapper.function == std::string("BM_AllocSec") ? 2 : 1;
      EXPECT_EQ(record.empty(), !recorded) << record;
      EXPECT_THAT(mLog.Texts(4), AllOf(SizeIs(recorded ? lines : 0), Each(record)));
      EXPECT_THAT(mLog.Texts(3), SizeIs(result == -79995 && expected == 0 ? 1 : pauses.size()));
      if (record.find("errno") != std::string::npos) {
        EXPECT_NE(record.find(std::to_string(kErrno)), std::string::npos) << "the errno of the last call";
      }
    }
  }
  EXPECT_EQ(gNewId, std::string(60, 'n'));
  EXPECT_EQ(gNodeId, 77U);
  EXPECT_NE(gAddress, nullptr);
}

TEST_F(BmWrappers, ARetryThatSucceedsEndsTheRetries) {
  for (const Wrapper& wrapper : kWrappers) {
    if (wrapper.pauses == kCommon) {
      mLibrary.script.Clear();
      mLibrary.script.ExpectResults(wrapper.function, {-195, -195, 0});
      EXPECT_EQ(wrapper.call(), 0U) << wrapper.function;
      EXPECT_THAT(mLibrary.script.Calls(wrapper.function), SizeIs(3)) << wrapper.function;
    }
  }
  mLibrary.script.ExpectResults("BM_SpecificObjSwapInSec", {-79999, -195, -79999, 0});
  EXPECT_EQ(BmSpecificObjectSwapIn(&kFile, &kBlock, 6, &gBuffer, 2048), 0U);
}

TEST_F(BmWrappers, RefuseArgumentsBeforeTheLibraryIsTouched) {
  const std::string shortId(59, 'a');
  const std::string longId(61, 'a');
  const char* bad = shortId.c_str();
  BmFileRecord nameless = kFile;
  nameless.name = "";
  struct Case {
    std::function<std::uint32_t()> call;
    std::uint32_t status = 2080001;
    bool recorded = true;
  };
  const std::vector<Case> cases{
      {[] { return BmCreateLink(1, "host", nullptr, 1, 0); }, 2080001, false},
      {[] { return BmCreateLink(1, "host", "", 1, 0); }},
      {[] { return BmCreateLink(1, "host", "10.0.0.1:80", 1, 0); }},
      {[] { return BmCreateLink(1, "host", "a b", 1, 0); }},
      {[] { return BmCreateNamespace(1, "", "", 0, kToken); }},
      {[] { return BmDestroyNamespace(1, "", nullptr, kToken); }, 2080001, false},
      {[] { return BmDestroyNamespace(1, "", kNs, nullptr); }},
      {[] { return BmAlloc(kNs, 1, 0, 0, nullptr, nullptr); }},
      {[] { return BmAlloc("a.b", 1, 0, 0, gNewId, kToken); }},
      {[&] { return BmExpand(longId.c_str(), 1, 0, kNs, ""); }},
      {[&] { return BmFree(bad, 0, kNs, kToken); }},
      {[] { return BmBatchFree(gIds, 1, 0, kNs, nullptr); }},
      {[] { return BmBatchFree(gIds, 1, 0, "", kToken); }},
      {[] { return BmMmap(nullptr, 3, 1, &gAddress, kNs, kToken); }},
      {[&] { return BmUnmap(bad, nullptr); }},
      {[] { return BmUnmap(id, nullptr); }},
      {[&] { return BmCopy(id, 0, bad, 0, 1, kNs, kToken); }},
      {[&] { return BmRead(bad, 0, 1, &gBuffer, 0, kNs, kToken); }},
      {[] { return BmWrite(id, 0, 1, &gBuffer, 0, "", kToken); }},
      {[] { return BmGather(nullptr, 0, true, id, kNs, kToken, nullptr); }, 1},
      {[] { return BmSpecificObjectSwapIn(nullptr, &kBlock, 0, nullptr, 1); }, 2080005},
      {[] { return BmSpecificObjectSwapIn(&kFile, nullptr, 0, nullptr, 1); }, 2080005},
      {[&] { return BmSpecificObjectSwapIn(&nameless, &kBlock, 0, nullptr, 1); }, 2080005},
      {[] { return BmQueryNodeId(nullptr); }, 2000057, false},
  };
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(i);
    mLog.Clear();
    std::string record;
    EXPECT_EQ(OnFreshThread(cases[i].call, record), cases[i].status);
    EXPECT_EQ(!record.empty(), cases[i].recorded) << record;
    EXPECT_FALSE(mLog.Texts(4).empty());
  }
  EXPECT_EQ(mLibrary.script.CallCount(), 0U);
}

TEST_F(BmWrappers, OfAClosedLibraryReopenItOrSayThatItIsNotUp) {
  for (const Wrapper& wrapper : kWrappers) {
    SCOPED_TRACE(wrapper.function);
    BmUninitialize();
    mLibrary.script.Clear();
    std::string record;
    EXPECT_EQ(OnFreshThread(wrapper.call, record), wrapper.opens ? 0U : 2000057U);
    EXPECT_EQ(record, "");
    EXPECT_THAT(mLibrary.script.Calls("BM_Init"), SizeIs(wrapper.opens ? 1 : 0));
    EXPECT_THAT(mLibrary.script.Calls(wrapper.function), SizeIs(wrapper.opens ? 1 : 0));
    if (wrapper.opens) {  // and when it cannot be reopened, that status is the wrapper's
      BmUninitialize();
      mLibrary.script.ExpectResults("BM_Init", {-1});
      EXPECT_EQ(wrapper.call(), 2100021U);
    }
  }
}

TEST_F(BmWrappers, GatherContextHoldsACopyBehindTwoWords) {
  char data[] = "twelve bytes";
  const std::unique_ptr<BmGatherContext, decltype(&std::free)> context(
      GenerateBmGatherContext(0xfffffff0U, data, 12), &std::free);
  std::memset(data, 0, sizeof(data));
  EXPECT_EQ(std::memcmp(context.get(), "\xf0\xff\xff\xff\0\0\0\0\x0c\0\0\0\0\0\0\0twelve bytes", 28), 0);
  EXPECT_EQ(GenerateBmGatherContext(1, nullptr, 8), nullptr);
}

}  // namespace
