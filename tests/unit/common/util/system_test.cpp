#include "common/util/system.h"

#include "support/fake_clock.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace vyn::common {
namespace {

TEST(SystemTest, HostNameAndMilliseconds) {
  char name[256] = {};
  ASSERT_EQ(gethostname(name, sizeof(name) - 1), 0);
  EXPECT_EQ(VynGetHostname(), name);

  test::FakeClock clock;
  const unsigned long begin = VynGetCurrentTimeMicros();
  SleepFor(std::chrono::seconds(3));
  EXPECT_EQ(VynGetCurrentTimeMicros() - begin, 3000U);
}

}  // namespace
}  // namespace vyn::common
