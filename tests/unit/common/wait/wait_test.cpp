// Tries, rounds and claims, on a clock that does not wait.

#include "common/wait/claim_once.h"
#include "common/wait/periodic_task.h"
#include "common/wait/retry.h"
#include "support/captured_log.h"
#include "support/fake_clock.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::test {
namespace {

using common::ClaimOnce;
using common::PeriodicTask;
using common::Retry;
using std::chrono::seconds;
using Pauses = std::vector<std::chrono::nanoseconds>;

TEST(RetryTest, PausesBetweenAttemptsAndNeverAfterTheLast) {
  static constexpr Retry::Duration kPauses[] = {seconds(0), seconds(5)};
  const struct {
    std::function<Retry()> make;
    Pauses sleeps;
  } kCases[] = {{[] { return Retry::After(kPauses); }, {seconds(0), seconds(5)}},
                {[] { return Retry::Times(3, seconds(2)); }, {seconds(2), seconds(2)}},
                {[] { return Retry::Times(1, seconds(2)); }, {}},
                {[] { return Retry::For(seconds(5), seconds(2)); }, {seconds(2), seconds(2)}},
                {[] { return Retry::For(seconds(4), seconds(2)); }, {seconds(2)}},
                {[] { return Retry::For(seconds(0), seconds(2)); }, {}}};
  for (const auto& one : kCases) {
    FakeClock clock;
    Retry retry = one.make();
    while (retry.Again()) {
      ASSERT_LT(retry.Count(), 10U);
    }
    EXPECT_EQ(clock.Sleeps(), one.sleeps);
    EXPECT_EQ(retry.Count(), one.sleeps.size());
  }
}

TEST(PeriodicTaskTest, RoundsComeAfterThePeriodOnAWakeAndAfterAnException) {
  FakeClock clock;
  CapturedLog log;
  std::atomic<int> rounds{0};
  const auto await = [&](int count) {
    EXPECT_TRUE(WaitUntil([&] { return rounds == count; })) << count;
    // The next wait has begun.
    EXPECT_TRUE(WaitUntil([&] { return clock.Waits().size() > static_cast<std::size_t>(count); }));
  };
  PeriodicTask task;
  EXPECT_FALSE(task.Stop()) << "it does not run";
  task.Start({"A round failed", seconds(7)}, [&] {
    if (++rounds == 2) {
      task.SetPeriod(seconds(9));
      throw std::runtime_error("the second");
    }
  });
  await(0);
  clock.EndOneWait();
  await(1);
  task.Wake();
  await(2);
  EXPECT_TRUE(log.Has(4, "A round failed: the second"));
  clock.EndOneWait();
  await(3);
  EXPECT_FALSE(task.Stopping());
  EXPECT_TRUE(task.Stop());
  EXPECT_TRUE(task.Stopping());
  task.Wake();
  EXPECT_EQ(rounds, 3);
  EXPECT_THAT(clock.Waits(), testing::ElementsAre(seconds(7), seconds(7), seconds(9), seconds(9)));

  task.Start({"A round failed", seconds(7), true}, [&] { ++rounds; });
  EXPECT_TRUE(WaitUntil([&] { return rounds == 4; })) << "the first round comes at once";
}

TEST(ClaimOnceTest, WhoWaitsLearnsWhatBecameOfTheWork) {
  const struct {
    const char* name;
    std::function<void(ClaimOnce&)> work;
    bool wantsFailure;
    ClaimOnce::Result result;
    std::uint32_t failure;
  } kCases[] = {{"up", [](ClaimOnce& claim) { claim.Succeed(); }, true, ClaimOnce::Result::kUp, 0},
                {"failed", [](ClaimOnce& claim) { claim.Fail(7); }, true, ClaimOnce::Result::kFailed, 7},
                {"failed and tried again", [](ClaimOnce& claim) { claim.Fail(7); }, false,
                 ClaimOnce::Result::kClaimed, 0},
                {"freed", [](ClaimOnce& claim) { claim.Free(); }, true, ClaimOnce::Result::kClaimed, 0}};
  for (const auto& one : kCases) {
    FakeClock clock;
    ClaimOnce claim;
    ASSERT_EQ(claim.Take(seconds(60)), ClaimOnce::Result::kClaimed);
    std::uint32_t failure = 0;
    ClaimOnce::Result result{};
    std::thread waiter([&] { result = claim.Take(seconds(60), one.wantsFailure ? &failure : nullptr); });
    EXPECT_TRUE(WaitUntil([&] { return clock.Waits().size() == 1; }));
    one.work(claim);
    waiter.join();
    EXPECT_EQ(result, one.result) << one.name;
    EXPECT_EQ(failure, one.failure) << one.name;
    EXPECT_EQ(claim.IsUp(), result == ClaimOnce::Result::kUp) << one.name;
  }

  FakeClock clock;
  ClaimOnce claim;
  EXPECT_FALSE(claim.TakeDown()) << "it is not up";
  ASSERT_EQ(claim.Take(seconds(60)), ClaimOnce::Result::kClaimed);
  std::thread waiter([&] { EXPECT_EQ(claim.Take(seconds(60)), ClaimOnce::Result::kTimedOut); });
  clock.EndOneWait();
  waiter.join();
  claim.Succeed();
  EXPECT_TRUE(claim.TakeDown());
  EXPECT_FALSE(claim.TakeDown()) << "another thread does it";
  EXPECT_FALSE(claim.IsUp());
}

}  // namespace
}  // namespace vyn::test
