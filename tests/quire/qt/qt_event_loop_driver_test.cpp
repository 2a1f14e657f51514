// QtEventLoopDriver with a real QCoreApplication event loop: jobs posted from other threads and
// delayed jobs run from Qt's loop, on its thread, and an idle loop is not woken.
#include "quire/qt/qt_event_loop_driver.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "tests/quire/qt/qt_test_app.h"

namespace {

using kestrel::MainLoop;
using kestrel::quire::QtEventLoopDriver;
using quire_test::qt::RunQtLoop;

TEST(QtEventLoopDriverTest, JobPostedFromAnotherThreadRunsFromQtsLoopOnItsThread) {
  quire_test::qt::App();
  MainLoop loop;
  QtEventLoopDriver driver(&loop);
  const auto main_thread = std::this_thread::get_id();
  std::atomic<bool> ran{false};
  bool on_main_thread = false;
  std::thread poster([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    loop.Post([&] {
      on_main_thread = std::this_thread::get_id() == main_thread;
      ran = true;
    });
  });
  EXPECT_TRUE(RunQtLoop([&] { return ran.load(); }, 10.0));
  poster.join();
  EXPECT_TRUE(on_main_thread);
  EXPECT_GE(driver.wake_ups(), 1);
  EXPECT_EQ(driver.timer_wake_ups(), 0);
  EXPECT_FALSE(driver.timer_active());
  EXPECT_EQ(loop.pending(), 0u);
}

TEST(QtEventLoopDriverTest, BurstsOfPostsAreCoalescedAndAllRun) {
  quire_test::qt::App();
  MainLoop loop;
  QtEventLoopDriver driver(&loop);
  constexpr int kThreads = 4;
  constexpr int kJobsEach = 1000;
  int ran = 0;  // only touched on this thread
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t) {
    posters.emplace_back([&] {
      for (int i = 0; i < kJobsEach; ++i) loop.Post([&] { ++ran; });
    });
  }
  EXPECT_TRUE(RunQtLoop([&] { return ran == kThreads * kJobsEach; }, 10.0));
  for (auto& poster : posters) poster.join();
  RunQtLoop([] { return false; }, 0.05);
  EXPECT_EQ(ran, kThreads * kJobsEach);
  EXPECT_GE(driver.wake_ups(), 1);
  EXPECT_LT(driver.wake_ups(), kThreads * kJobsEach) << "every post woke Qt's loop on its own";
}

TEST(QtEventLoopDriverTest, JobsQueuedBeforeTheDriverRunOnceQtsLoopRuns) {
  quire_test::qt::App();
  MainLoop loop;
  int ran = 0;
  loop.Post([&] { ++ran; });
  loop.Post([&] { ++ran; });
  QtEventLoopDriver driver(&loop);
  EXPECT_EQ(ran, 0) << "the driver must not run jobs inside its constructor";
  EXPECT_TRUE(RunQtLoop([&] { return ran == 2; }, 10.0));
}

TEST(QtEventLoopDriverTest, DelayedJobsRunOnTheTimerInDueOrder) {
  quire_test::qt::App();
  MainLoop loop;
  QtEventLoopDriver driver(&loop);
  std::vector<int> order;
  const auto start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::duration first_after{};
  loop.PostDelayed(0.30, [&] { order.push_back(2); });
  loop.PostDelayed(0.05, [&] {
    first_after = std::chrono::steady_clock::now() - start;
    order.push_back(1);
  });
  EXPECT_TRUE(RunQtLoop([&] { return order.size() == 2; }, 10.0));
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
  EXPECT_GE(first_after, std::chrono::milliseconds(50)) << "ran before it was due";
  EXPECT_EQ(driver.timer_wake_ups(), 2) << "one timer per delayed job, no polling";
  EXPECT_FALSE(driver.timer_active());
}

TEST(QtEventLoopDriverTest, IdleLoopIsNeverWoken) {
  quire_test::qt::App();
  MainLoop loop;
  QtEventLoopDriver driver(&loop);
  int ran = 0;
  loop.Post([&] { ++ran; });
  EXPECT_TRUE(RunQtLoop([&] { return ran == 1; }, 10.0));
  const long long wake_ups = driver.wake_ups();
  const long long timer_wake_ups = driver.timer_wake_ups();
  RunQtLoop([] { return false; }, 0.5);
  EXPECT_EQ(driver.wake_ups(), wake_ups);
  EXPECT_EQ(driver.timer_wake_ups(), timer_wake_ups);
  EXPECT_FALSE(driver.timer_active());
}

TEST(QtEventLoopDriverTest, DestroyedDriverNoLongerRunsTheLoop) {
  quire_test::qt::App();
  MainLoop loop;
  int ran = 0;
  {
    QtEventLoopDriver driver(&loop);
    loop.Post([&] { ++ran; });  // a queued run is pending when the driver goes
  }
  loop.Post([&] { ++ran; });
  RunQtLoop([] { return false; }, 0.1);
  EXPECT_EQ(ran, 0);
  EXPECT_EQ(loop.pending(), 2u);
  loop.RunUntilIdle();
  EXPECT_EQ(ran, 2);
}

TEST(QtEventLoopDriverTest, CallbacksMayRunANestedQtLoop) {
  quire_test::qt::App();
  MainLoop loop;
  QtEventLoopDriver driver(&loop);
  std::vector<int> order;
  loop.Post([&] {
    order.push_back(1);
    std::thread([&] { loop.Post([&] { order.push_back(2); }); }).join();
    // As a modal dialog would: a nested Qt loop inside a callback still runs the library's jobs.
    RunQtLoop([&] { return order.size() == 2; }, 10.0);
    order.push_back(3);
  });
  EXPECT_TRUE(RunQtLoop([&] { return order.size() == 3; }, 10.0));
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

}  // namespace
