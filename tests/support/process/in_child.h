#pragma once

#include "support/test.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

namespace vyn::test {

/// Runs `work` in a process of its own, which ends as a program does. A failed expectation of `work` is one of
/// the caller.
inline void InChild(const std::function<void()>& work) {
  const pid_t child = ::fork();
  if (child == 0) {
    work();
    std::exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace vyn::test
