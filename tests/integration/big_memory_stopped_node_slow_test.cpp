// A node that stands still while it is asked: the library gives up in its own time, which is real, and the
// wrapper tries again.

#include "common/util/clock.h"
#include "support/fabric.h"
#include "support/installation.h"
#include "vyn/big_memory.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

namespace {

using vyn::test::Installation;

/// The node moves again while the wrapper sleeps.
class WakingClock : public vyn::common::Clock {
 public:
  explicit WakingClock(vyn::test::FabricHost& host) : mHost(host) { vyn::common::Clock::Replace(this); }
  ~WakingClock() override { vyn::common::Clock::Replace(nullptr); }
  void SleepFor(std::chrono::nanoseconds duration) override {
    EXPECT_EQ(duration, std::chrono::seconds(5));
    ++mSleeps;
    mHost.Process().Signal(SIGCONT);
  }

  int Sleeps() const { return mSleeps; }

 private:
  vyn::test::FabricHost& mHost;
  int mSleeps = 0;
};

/// A signal takes a moment: the process is stopped when the system says so.
void Stop(vyn::test::ChildProcess& process) {
  process.Signal(SIGSTOP);
  const std::string status = "/proc/" + std::to_string(process.Pid()) + "/status";
  for (int i = 0; i < 30000 && vyn::test::ReadFile(status).find("State:\tT") == std::string::npos; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

TEST(BigMemoryStoppedNode, IsAskedAgainAndAnswersWhenItMoves) {
  Installation::Get().LinkBmClient();
  vyn::test::FabricPlace place(1);
  vyn::test::FabricHost host(place);
  ASSERT_EQ(BmInitialize(place.Home().c_str(), 0), 0U);
  ASSERT_EQ(BmCreateNamespace(1, "", "app_1", 0, "token"), 0U) << BmGetLastErrorMessage();
  char id[64] = {};
  ASSERT_EQ(BmAlloc("app_1", 4096, 16, 1, id, "token"), 0U) << BmGetLastErrorMessage();

  {
    WakingClock clock(host);
    Stop(host.Process());
    char byte = 'x';
    EXPECT_EQ(BmWrite(id, 4095, 1, &byte, 0, "app_1", "token"), 0U) << BmGetLastErrorMessage();
    EXPECT_EQ(clock.Sleeps(), 1);
  }
  EXPECT_EQ(BmUninitialize(), 0U);
}

}  // namespace
