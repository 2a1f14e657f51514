// Death tests of the library's own guards. Where a caller breaks a contract that the library
// cannot report as a status (an empty callback at the moment it would be called, memory that the
// memory manager did not hand out), the library calls std::abort(). Other deaths look the same from
// outside: calling an empty std::function throws std::bad_function_call, which ends in
// std::terminate() and then abort(). EXPECT_GUARD_ABORT passes only when the statement ends the
// process with SIGABRT: an exception that gtest catches fails it, and so does one that reaches
// std::terminate() (the child then exits with kTerminatedExitCode), so that a test of a guard fails
// when the guard is gone.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>

namespace quire_test {

// The exit code of a death test's child that reached std::terminate().
constexpr int kTerminatedExitCode = 86;

// In a death test's child: std::terminate() says so on stderr and exits with kTerminatedExitCode
// instead of aborting.
inline void ExitOnTerminate() {
  std::set_terminate([] {
    std::fputs("std::terminate() was called (an exception escaped, e.g. bad_function_call)\n",
               stderr);
    std::_Exit(kTerminatedExitCode);
  });
}

}  // namespace quire_test

// Expects the statement given to be stopped by one of the library's guards (see above). Variadic,
// so that a block with commas outside parentheses is one statement.
#define EXPECT_GUARD_ABORT(...)          \
  EXPECT_EXIT(                           \
      {                                  \
        ::quire_test::ExitOnTerminate(); \
        __VA_ARGS__;                     \
      },                                 \
      ::testing::KilledBySignal(SIGABRT), "")
