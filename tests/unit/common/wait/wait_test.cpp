// Tries, rounds and claims, on a clock that does not wait.

#include "common/wait/claim_once.h"
#include "common/wait/periodic_task.h"
#include "common/wait/retry.h"
#include "support/fake_clock.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::test {
namespace {

using common::ClaimOnce;
using common::PeriodicTask;
using common::Retry;
using std::chrono::seconds;
using testing::ElementsAre;

TEST(RetryTest, RetryPausesBetweenAttemptsAndNotAfterTheLast) {
  static constexpr Retry::Duration kPauses[] = {seconds(0), seconds(5)};
  const auto sleepsOf = [](Retry retry) {
    FakeClock clock;
    while (retry.Again() && retry.Count() < 10) {
    }
    return clock.Sleeps();
  };
  EXPECT_THAT(sleepsOf(Retry::After(kPauses)), ElementsAre(seconds(0), seconds(5)));
  EXPECT_THAT(sleepsOf(Retry::Times(3, seconds(2))), ElementsAre(seconds(2), seconds(2)));
  EXPECT_THAT(sleepsOf(Retry::For(seconds(5), seconds(2))), ElementsAre(seconds(2), seconds(2)));
  EXPECT_THAT(sleepsOf(Retry::For(seconds(4), seconds(2))), ElementsAre(seconds(2)));
  EXPECT_THAT(sleepsOf(Retry::For(seconds(0), seconds(2))), ElementsAre());
}

TEST(PeriodicTaskTest, ATaskRunsAfterItsPeriodAfterAWakeAndAfterAnException) {
  FakeClock clock;
  std::atomic<std::size_t> rounds{0};
  const auto await = [&](std::size_t count) {  // the round, and the beginning of the next wait
    EXPECT_TRUE(WaitUntil([&] { return rounds == count && clock.Waits().size() > count; })) << count;
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
  clock.EndOneWait();
  await(3);
  EXPECT_TRUE(task.Stop());
  EXPECT_THAT(clock.Waits(), ElementsAre(seconds(7), seconds(7), seconds(9), seconds(9)));
  task.Start({"A round failed", seconds(7), true}, [&] { ++rounds; });
  EXPECT_TRUE(WaitUntil([&] { return rounds == 4; })) << "the first round comes at once";
}

TEST(ClaimOnceTest, WaitingThreadsGetTheResultOfTheClaim) {
  FakeClock clock;
  std::size_t waits = 0;
  /// What a thread that waits for the claim gets after `work`, and the failure that it is told.
  const auto outcome = [&](ClaimOnce& claim, bool wantsFailure, const std::function<void()>& work) {
    std::pair<ClaimOnce::Result, std::uint32_t> got;
    std::thread waiter([&] { got.first = claim.Take(seconds(60), wantsFailure ? &got.second : nullptr); });
    EXPECT_TRUE(WaitUntil([&, wanted = ++waits] { return clock.Waits().size() == wanted; }));
    work();
    waiter.join();
    return got;
  };
  using Result = ClaimOnce::Result;
  ClaimOnce claim;
  EXPECT_FALSE(claim.TakeDown()) << "it is not up";
  EXPECT_EQ(claim.Take(seconds(60)), Result::kClaimed);
  EXPECT_EQ(outcome(claim, true, [&] { clock.EndOneWait(); }), std::pair(Result::kTimedOut, 0U));
  EXPECT_EQ(outcome(claim, true, [&] { claim.Fail(7); }), std::pair(Result::kFailed, 7U));
  EXPECT_EQ(claim.Take(seconds(60)), Result::kClaimed);
  EXPECT_EQ(outcome(claim, false, [&] { claim.Fail(7); }), std::pair(Result::kClaimed, 0U));
  EXPECT_EQ(outcome(claim, true, [&] { claim.Free(); }), std::pair(Result::kClaimed, 0U));
  EXPECT_EQ(outcome(claim, true, [&] { claim.Succeed(); }), std::pair(Result::kUp, 0U));
  EXPECT_TRUE(claim.IsUp());
  EXPECT_TRUE(claim.TakeDown());
  EXPECT_FALSE(claim.TakeDown()) << "another thread does it";
}

}  // namespace
}  // namespace vyn::test
