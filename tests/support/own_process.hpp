// Scenarios in processes of their own, since a unit chooses its hooks once. For tests.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

namespace kel::test {

// Runs a scenario in a child, which inherits runtimes that nothing has touched.
inline void inAProcessOfItsOwn(const std::function<void()>& scenario) {
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    scenario();
    std::exit(testing::Test::HasFailure() ? 1 : 0);  // unlike _exit, it writes coverage
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
}

}  // namespace kel::test
