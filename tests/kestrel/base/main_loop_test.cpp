#include "kestrel/base/main_loop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
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

TEST(MainLoopWakeUpHookTest, EveryPostCallsTheHookAfterTheJobIsQueued) {
  MainLoop loop;
  int calls = 0;
  std::size_t pending_seen = 0;
  loop.SetWakeUpHook([&] {
    ++calls;
    pending_seen = loop.pending();
  });
  loop.Post([] {});
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(pending_seen, 1u) << "the hook must see the job it announces";
  loop.Post([] {});
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(loop.SecondsUntilNextJob(), 0.0);
  loop.RunUntilIdle();
  EXPECT_EQ(calls, 2) << "running jobs that post nothing calls no hook";
  EXPECT_EQ(loop.SecondsUntilNextJob(), -1.0);
}

TEST(MainLoopWakeUpHookTest, DelayedJobCallsTheHookOnlyWhenItBecomesTheEarliest) {
  MainLoop loop;
  int calls = 0;
  loop.SetWakeUpHook([&] { ++calls; });
  loop.PostDelayed(10.0, [] {});
  EXPECT_EQ(calls, 1) << "the first delayed job sets the time to wait";
  const double first = loop.SecondsUntilNextJob();
  EXPECT_GT(first, 9.0);
  EXPECT_LE(first, 10.0);
  loop.PostDelayed(20.0, [] {});
  EXPECT_EQ(calls, 1) << "a later job does not change the time to wait";
  loop.PostDelayed(15.0, [] {});
  EXPECT_EQ(calls, 1) << "nor does one between the first two";
  loop.PostDelayed(1.0, [] {});
  EXPECT_EQ(calls, 2) << "an earlier job does";
  const double second = loop.SecondsUntilNextJob();
  EXPECT_GT(second, 0.0);
  EXPECT_LE(second, 1.0);
  EXPECT_EQ(loop.pending(), 4u);
}

TEST(MainLoopWakeUpHookTest, TimerCallsTheHookOnlyWhenItBecomesTheEarliest) {
  MainLoop loop;
  int calls = 0;
  loop.SetWakeUpHook([&] { ++calls; });
  loop.PostTimer(5.0, [] {});
  EXPECT_EQ(calls, 1);
  loop.PostTimer(10.0, [] {});
  EXPECT_EQ(calls, 1);
  const MainLoop::TimerId early = loop.PostTimer(1.0, [] {});
  EXPECT_EQ(calls, 2);
  EXPECT_LE(loop.SecondsUntilNextJob(), 1.0);
  EXPECT_TRUE(loop.CancelTimer(early));
  EXPECT_EQ(calls, 2) << "taking a timer back calls no hook";
  EXPECT_GT(loop.SecondsUntilNextJob(), 4.0) << "the next due time moved to the 5 s timer";
}

TEST(MainLoopWakeUpHookTest, SecondsUntilNextJobIsZeroOnceADelayedJobFellDue) {
  MainLoop loop;
  bool ran = false;
  loop.PostDelayed(0.02, [&] { ran = true; });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(loop.SecondsUntilNextJob(), 0.0);
  loop.RunUntilIdle();
  EXPECT_TRUE(ran);
  EXPECT_EQ(loop.SecondsUntilNextJob(), -1.0);
}

TEST(MainLoopWakeUpHookTest, RemovedOrReplacedHookIsNotCalled) {
  MainLoop loop;
  int first = 0;
  int second = 0;
  loop.SetWakeUpHook([&] { ++first; });
  loop.Post([] {});
  loop.SetWakeUpHook([&] { ++second; });
  loop.Post([] {});
  loop.SetWakeUpHook(nullptr);
  loop.Post([] {});
  loop.PostDelayed(0.5, [] {});
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
  EXPECT_EQ(loop.pending(), 4u) << "posting without a hook still queues";
}

TEST(MainLoopWakeUpHookTest, RunUntilAndRunStillWorkWithAHook) {
  MainLoop loop;
  std::atomic<int> calls{0};
  loop.SetWakeUpHook([&] { ++calls; });
  int ran = 0;
  loop.PostDelayed(0.01, [&] { ++ran; });
  loop.Post([&] { ++ran; });
  EXPECT_TRUE(loop.RunUntil([&] { return ran == 2; }, 5.0));
  loop.Post([&] { loop.Quit(); });
  loop.Run();
  EXPECT_EQ(calls.load(), 3);
}

// A host's loop on its own thread that sleeps until the hook wakes it, then runs what is ready:
// every job posted from several threads runs, on the host's thread, without polling.
TEST(MainLoopWakeUpHookTest, HookDrivesAnotherLoopAcrossThreads) {
  MainLoop loop;
  std::mutex mutex;
  std::condition_variable signal;
  bool woken = false;
  loop.SetWakeUpHook([&] {
    {
      std::lock_guard<std::mutex> lock(mutex);
      woken = true;
    }
    signal.notify_one();
  });

  constexpr int kThreads = 4;
  constexpr int kJobsEach = 500;
  int ran = 0;  // touched only on the host's thread
  std::thread::id host_thread;
  bool all_on_host = true;
  std::atomic<bool> host_done{false};
  std::thread host([&] {
    host_thread = std::this_thread::get_id();
    int wake_ups = 0;
    while (ran < kThreads * kJobsEach) {
      {
        std::unique_lock<std::mutex> lock(mutex);
        if (!signal.wait_for(lock, std::chrono::seconds(10), [&] { return woken; })) break;
        woken = false;
      }
      ++wake_ups;
      loop.RunUntilIdle();
    }
    EXPECT_GE(wake_ups, 1);
    host_done = true;
  });
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([&] {
      for (int i = 0; i < kJobsEach; ++i) {
        loop.Post([&] {
          ++ran;
          all_on_host = all_on_host && std::this_thread::get_id() == host_thread;
        });
      }
    });
  }
  for (auto& poster : posters) poster.join();
  host.join();
  EXPECT_TRUE(host_done.load());
  EXPECT_EQ(ran, kThreads * kJobsEach);
  EXPECT_TRUE(all_on_host);
  EXPECT_EQ(loop.pending(), 0u);
}

// Removing the hook waits for a call in progress, so the hook's owner can go right after.
TEST(MainLoopWakeUpHookTest, RemovingTheHookWaitsForARunningCall) {
  MainLoop loop;
  std::atomic<bool> in_hook{false};
  std::atomic<bool> hook_finished{false};
  loop.SetWakeUpHook([&] {
    in_hook = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    hook_finished = true;
  });
  std::thread poster([&] { loop.Post([] {}); });
  while (!in_hook.load()) std::this_thread::yield();
  loop.SetWakeUpHook(nullptr);
  EXPECT_TRUE(hook_finished.load()) << "SetWakeUpHook returned while the old hook still ran";
  poster.join();
  loop.RunUntilIdle();
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
