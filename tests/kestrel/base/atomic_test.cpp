#include "kestrel/base/atomic.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

TEST(TestThenAddTest, ReturnsThePreviousValue) {
  volatile long counter = 5;
  EXPECT_EQ(kestrel::TestThenAdd(&counter, 3), 5);
  EXPECT_EQ(counter, 8);
  EXPECT_EQ(kestrel::TestThenAdd(&counter, -8), 8);
  EXPECT_EQ(counter, 0);
  EXPECT_EQ(kestrel::TestThenAdd(&counter, -1), 0);
  EXPECT_EQ(counter, -1);
}

TEST(TestThenAddTest, IsAtomicAcrossThreads) {
  volatile long counter = 0;
  constexpr int kThreads = 4;
  constexpr int kIterations = 200000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&counter] {
      for (int i = 0; i < kIterations; ++i) kestrel::TestThenAdd(&counter, 1);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, static_cast<long>(kThreads) * kIterations);
}

}  // namespace
