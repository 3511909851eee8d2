// A part of a test in a process of its own.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include <gtest/gtest.h>

namespace support {

// The exit code of the child, or its signal, negative.
inline int WaitFor(pid_t child) {
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// What `body` returns in a child: a number below 256.
template <class Body>
int InChild(Body body) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(static_cast<int>(body()));
  return WaitFor(child);
}

// Checks `body` in a process that begins anew: what it returns, and that no expectation failed.
template <class Body>
void ExpectTrueInFreshProcess(Body body) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(std::exit(body() && !testing::Test::HasFailure() ? 0 : 1),
              testing::ExitedWithCode(0), "");
}

}  // namespace support
