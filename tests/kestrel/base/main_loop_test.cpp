#include "kestrel/base/main_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "kestrel/base/main_thread_job_executor.h"

namespace {

using kestrel::MainLoop;

TEST(MainLoopTest, RunsPostedJobsInOrderOnTheCallingThread) {
  MainLoop loop;
  std::vector<int> order;
  const auto me = std::this_thread::get_id();
  bool same_thread = true;
  for (int i = 0; i < 5; ++i) {
    loop.Post([&, i] {
      order.push_back(i);
      same_thread = same_thread && std::this_thread::get_id() == me;
    });
  }
  EXPECT_TRUE(order.empty()) << "Post must not run the job";
  loop.RunUntilIdle();
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_TRUE(same_thread);
  EXPECT_EQ(loop.pending(), 0u);
}

TEST(MainLoopTest, RunUntilIdleRunsJobsPostedByJobs) {
  MainLoop loop;
  int depth = 0;
  std::function<void()> chain = [&] {
    if (++depth < 10) loop.Post(chain);
  };
  loop.Post(chain);
  loop.RunUntilIdle();
  EXPECT_EQ(depth, 10);
}

TEST(MainLoopTest, RunUntilStopsWhenThePredicateHolds) {
  MainLoop loop;
  int ran = 0;
  for (int i = 0; i < 10; ++i) loop.Post([&] { ++ran; });
  EXPECT_TRUE(loop.RunUntil([&] { return ran == 3; }, 5.0));
  EXPECT_EQ(ran, 3);
  EXPECT_EQ(loop.pending(), 7u);
  loop.RunUntilIdle();
}

TEST(MainLoopTest, RunUntilTimesOut) {
  MainLoop loop;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(loop.RunUntil([] { return false; }, 0.05));
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, std::chrono::milliseconds(45));
  EXPECT_LT(elapsed, std::chrono::seconds(5));
}

TEST(MainLoopTest, DelayedJobsRunInDueOrderAfterTheirDelay) {
  MainLoop loop;
  std::vector<int> order;
  loop.PostDelayed(0.06, [&] { order.push_back(2); });
  loop.PostDelayed(0.02, [&] { order.push_back(1); });
  loop.Post([&] { order.push_back(0); });
  loop.RunUntilIdle();
  EXPECT_EQ(order, (std::vector<int>{0})) << "delayed jobs are not due yet";
  EXPECT_TRUE(loop.RunUntil([&] { return order.size() == 3; }, 5.0));
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST(MainLoopTest, PostFromAnotherThreadWakesTheLoop) {
  MainLoop loop;
  std::atomic<bool> ran{false};
  std::thread poster([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    loop.Post([&] { ran = true; });
  });
  EXPECT_TRUE(loop.RunUntil([&] { return ran.load(); }, 5.0));
  poster.join();
}

TEST(MainLoopTest, QuitEndsRun) {
  MainLoop loop;
  int ran = 0;
  loop.Post([&] { ++ran; });
  loop.Post([&] { loop.Quit(); });
  loop.Post([&] { ++ran; });
  loop.Run();
  EXPECT_EQ(ran, 1);
  loop.RunUntilIdle();
  EXPECT_EQ(ran, 2);
}

TEST(MainLoopTest, CancelledTimersNeverRunAndAreDestroyedAtOnce) {
  MainLoop loop;
  std::vector<int> order;
  auto token = std::make_shared<int>(7);
  const MainLoop::TimerId first = loop.PostTimer(0.02, [&order, token] { order.push_back(1); });
  const MainLoop::TimerId second = loop.PostTimer(0.01, [&order] { order.push_back(2); });
  EXPECT_NE(first, 0u);
  EXPECT_NE(first, second);
  EXPECT_EQ(token.use_count(), 2);
  EXPECT_TRUE(loop.CancelTimer(first));
  EXPECT_EQ(token.use_count(), 1) << "a cancelled job must be destroyed by CancelTimer";
  EXPECT_FALSE(loop.CancelTimer(first)) << "cancelling twice";
  EXPECT_EQ(loop.pending(), 1u);
  loop.RunUntil([&] { return !order.empty(); }, 2.0);
  loop.RunUntil([] { return false; }, 0.05);
  EXPECT_EQ(order, std::vector<int>{2});
  EXPECT_FALSE(loop.CancelTimer(second)) << "a timer that ran cannot be cancelled";
  EXPECT_FALSE(loop.CancelTimer(12345)) << "an unknown id";
  EXPECT_EQ(loop.pending(), 0u);
}

TEST(MainLoopTest, TimersAndDelayedJobsKeepDueOrderAndPostingOrder) {
  MainLoop loop;
  std::vector<int> order;
  loop.PostTimer(0.03, [&] { order.push_back(3); });
  loop.PostDelayed(0.01, [&] { order.push_back(1); });
  loop.PostTimer(0.02, [&] { order.push_back(2); });
  loop.PostTimer(0, [&] { order.push_back(0); });
  loop.RunUntil([&] { return order.size() == 4; }, 2.0);
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3}));
}

TEST(MainThreadJobExecutorTest, PostsToItsLoop) {
  MainLoop loop;
  kestrel::MainThreadJobExecutor executor(&loop);
  int ran = 0;
  executor.AddJob([&] { ++ran; });
  EXPECT_EQ(ran, 0);
  loop.RunUntilIdle();
  EXPECT_EQ(ran, 1);
}

}  // namespace
