// The wrappers of the library's functions: what they hand on, what they make of each result, when they call
// again, and what they refuse.

#include "support/captured_log.h"
#include "support/client/scripted_bmclient.h"
#include "support/fake_clock.h"
#include "vyn/status.h"

using std::chrono::seconds;
using testing::AllOf;
using testing::Each;
using testing::SizeIs;
using vyn::test::Joined;

namespace {

const std::string kId(60, 'a');
const std::string kOther(60, 'b');
const std::string kAccess = kId + "|app_1|tok";
// The arguments of the calls, which a test may spoil.
const char* gId = kId.c_str();
const char* gNs = "app_1";
const char* gToken = "tok";
int gBuffer = 0;
char gNewId[64];
void* gAddress = nullptr;
unsigned int gNodeId = 0;
const char* gIds[1] = {gId};
const BmFileRecord kFile{-4, 0, "/tmp/file", "rb", 512, 1024};
const BmBlockRecord kBlock{gId, gNs, gToken};
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
  std::string function;
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
    {"BM_CreateNSSec", [] { return BmCreateNamespace(3, "t", gNs, 5, gToken); }, "3|t|app_1|5|tok", 2080007,
     kExists, kOnce},
    {"BM_DestroyNSSec", [] { return BmDestroyNamespace(70000, "t", gNs, gToken); }, "70000|t|app_1|tok",
     2080007, kNone, kOnce},
    {"BM_AllocSec", [] { return gNewId[0] = 0, BmAlloc(gNs, 1UL << 40, 16, 65535, gNewId, gToken); },
     "|app_1|tok|1099511627776|16|65535", 2080007, kFull},
    {"BM_ExpandSec", [] { return BmExpand(gId, 8192, 2, gNs, gToken); }, kAccess + "|8192|2"},
    {"BM_FreeSec", [] { return BmFree(gId, 4, gNs, gToken); }, kAccess + "|4"},
    {"BM_BatchFreeSec", [] { return BmBatchFree(gIds, 0, 16, gNs, gToken); },
     Joined(gIds, 0, 16, "app_1|tok"), 2080007, kNone, kCommon, false},
    {"BM_MapSec", [] { return BmMmap(gId, 3, 1, &gAddress, gNs, gToken); }, kAccess + "|3|1|"},
    {"BM_Unmap", [] { return BmUnmap(gId, &gBuffer); }, Joined(kId, &gBuffer)},
    {"BM_CopySec", [] { return BmCopy(gId, 1, kOther.c_str(), 2, 3, gNs, gToken); },
     kAccess + "|1|" + kOther + "|app_1|tok|2|3|1", 2080021, kRemote},
    {"BM_ReadSec", [] { return BmRead(gId, 1, 4, &gBuffer, 9, gNs, gToken); },
     Joined(kAccess, 1, 4, &gBuffer, 9), 2080021, kRemote},
    {"BM_WriteSec", [] { return BmWrite(gId, 1, 4, &gBuffer, 9, gNs, gToken); },
     Joined(kAccess, 1, 4, &gBuffer, 9), 2080021, kRemote},
    {"BM_GatherSec", [] { return BmGather(&kContext, 200, true, kId.c_str(), "app_1", "tok", &gBuffer); },
     Joined(&kContext, 200, 128, kAccess, &gBuffer), 2080021, kRemoteGather, kCommon, false},
    {"BM_SpecificObjSwapInSec", [] { return BmSpecificObjectSwapIn(&kFile, &kBlock, 6, &gBuffer, 2048); },
     Joined(&kFile, &kBlock, 6, &gBuffer, 2048), 2080021, kRemoteSwapIn, kSwapIn, false},
    {"BM_QueryResAttri", [] { return BmQueryNodeId(&gNodeId); }, "0|", 2080021, kNone, kCommon, false},
};

/// The library is up before every case.
class BmWrappers : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(BmInitialize("", 0), 0U); }
  vyn::test::ScriptedBmClient mLibrary;
  vyn::test::BmScript& mScript = mLibrary.script;
  vyn::test::FakeClock mClock;
  vyn::test::CapturedLog mLog;
};

TEST_F(BmWrappers, TheWrappersPassTheirArgumentsOnAndTranslateEveryResult) {
  for (const Wrapper& wrapper : kWrappers) {
    for (const int result : {0, 1, 22, -1, -190, -191, -193, -194, -195, -79988, -79989, -79995, -79999}) {
      SCOPED_TRACE(Joined(wrapper.function, result));
      const bool again = result == -195 || (wrapper.pauses == kSwapIn && result == -79999);
      const auto pauses = again ? wrapper.pauses : kOnce;
      const auto special = wrapper.special.find(result);
      const std::uint32_t expected = result == 0                        ? 0
                                     : special != wrapper.special.end() ? special->second
                                                                        : wrapper.failure;
      mScript.Clear();
      mLog.Clear();
      const auto slept = mClock.Sleeps().size();
      mScript.Expect(wrapper.function, std::vector<vyn::test::BmScript::Answer>(4, result));
      EXPECT_EQ(wrapper.call(), expected);
      EXPECT_THAT(mScript.Calls(wrapper.function), AllOf(SizeIs(1 + pauses.size()), Each(wrapper.arguments)));
      auto sleeps = mClock.Sleeps();
      sleeps.erase(sleeps.begin(), sleeps.begin() + static_cast<std::ptrdiff_t>(slept));
      EXPECT_THAT(sleeps, testing::ElementsAreArray(pauses));
      // A full pool and a namespace that exists are no failures to tell of.
      EXPECT_EQ(mLog.Texts(4).empty(), expected == 0 || expected == 2100041);
    }
  }
  EXPECT_EQ(gNodeId, 77U);
  EXPECT_NE(gAddress, nullptr);
  mScript.Clear();  // a retry that succeeds is the last
  mScript.Expect("BM_FreeSec", {-195, -195, 0});
  EXPECT_EQ(BmFree(gId, 4, gNs, gToken), 0U);
  mScript.Expect("BM_SpecificObjSwapInSec", {-79999, -195, 0});
  EXPECT_EQ(BmSpecificObjectSwapIn(&kFile, &kBlock, 6, &gBuffer, 2048), 0U);
}

TEST_F(BmWrappers, TheWrappersRefuseBadArgumentsWithoutCallingTheLibrary) {
  mScript.Clear();
  const std::string shortId(59, 'a');
  const std::tuple<const char**, const char*, const char*> spoilt[] = {
      {&gId, shortId.c_str(), kId.c_str()}, {&gNs, "a.b", "app_1"}, {&gToken, nullptr, "tok"}};
  for (const auto& [argument, bad, good] : spoilt) {
    *argument = bad;
    for (const Wrapper& wrapper : kWrappers) {  // gather and swap-in leave these checks to the library
      if (wrapper.arguments.find(good) != std::string::npos && !wrapper.function.starts_with("BM_Gather")) {
        EXPECT_EQ(wrapper.call(), 2080001U) << wrapper.function << " " << good;
      }
    }
    *argument = good;
  }
  EXPECT_EQ(BmCreateLink(1, "host", "10.0.0.1:80", 1, 0), 2080001U);
  EXPECT_EQ(BmAlloc(gNs, 1, 0, 0, nullptr, gToken), 2080001U);
  EXPECT_EQ(BmUnmap(gId, nullptr), 2080001U);
  EXPECT_EQ(BmCopy(gId, 0, shortId.c_str(), 0, 1, gNs, gToken), 2080001U);
  EXPECT_EQ(BmGather(nullptr, 0, true, gId, gNs, gToken, nullptr), 1U);
  EXPECT_EQ(BmSpecificObjectSwapIn(nullptr, &kBlock, 0, nullptr, 1), 2080005U);
  EXPECT_EQ(BmQueryNodeId(nullptr), 2000057U);
  EXPECT_EQ(GenerateBmGatherContext(1, nullptr, 8), nullptr);
  EXPECT_TRUE(mScript.Untouched());
}

TEST_F(BmWrappers, TheWrappersReopenAClosedLibraryOrReportThatItIsClosed) {
  for (const Wrapper& wrapper : kWrappers) {
    SCOPED_TRACE(wrapper.function);
    BmUninitialize();
    mScript.Clear();
    EXPECT_EQ(wrapper.call(), wrapper.opens ? 0U : 2000057U);
    EXPECT_THAT(mScript.Calls("BM_Init"), SizeIs(wrapper.opens ? 1 : 0));
    EXPECT_THAT(mScript.Calls(wrapper.function), SizeIs(wrapper.opens ? 1 : 0));
    BmUninitialize();  // and when it cannot be reopened, that status is the wrapper's
    mScript.Expect("BM_Init", {-1});
    EXPECT_EQ(wrapper.call(), wrapper.opens ? 2100021U : 2000057U);
  }
}

}  // namespace
