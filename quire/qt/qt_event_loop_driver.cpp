#include "quire/qt/qt_event_loop_driver.h"

#include <QMetaObject>
#include <QObject>
#include <QTimer>
#include <algorithm>
#include <atomic>
#include <cmath>

#include "quire/qt/internal/qt_event_loop_receiver.h"

namespace kestrel {
namespace quire {
namespace {

// The longest timer the driver arms; a job due later is looked at again then.
constexpr double kLongestTimerMs = 24.0 * 3600 * 1000;

}  // namespace

// Hidden: a nested class of an exported class would otherwise be exported with it.
struct __attribute__((visibility("hidden"))) QtEventLoopDriver::Impl {
  explicit Impl(MainLoop* main_loop)
      : loop(main_loop), receiver([this] {
          wake_queued.store(false, std::memory_order_release);
          wake_ups.fetch_add(1, std::memory_order_relaxed);
          RunReady();
        }) {
    timer.setSingleShot(true);
    // Coarse timers may fire up to 5 % late; a delayed job (a retry's back-off) should not.
    timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer, &QTimer::timeout, &receiver, [this] {
      timer_wake_ups.fetch_add(1, std::memory_order_relaxed);
      RunReady();
    });
  }

  // Called by the hook, on any thread: queues one run on the driver's thread unless one is
  // queued already. The flag is cleared by the run before it takes jobs, so a job posted during
  // the run queues the next one and is never left behind.
  void Wake() {
    if (wake_queued.exchange(true, std::memory_order_acq_rel)) return;
    QMetaObject::invokeMethod(&receiver, "Run", Qt::QueuedConnection);
  }

  // On the driver's thread: runs what is ready, then waits for the next delayed job by timer.
  void RunReady() {
    loop->RunUntilIdle();
    Rearm();
  }

  void Rearm() {
    const double seconds = loop->SecondsUntilNextJob();
    if (seconds < 0) {
      timer.stop();
    } else if (seconds == 0) {
      // Something became ready after the run ended (a pending Quit() ends it early too).
      timer.stop();
      Wake();
    } else {
      const double ms = std::min(std::ceil(seconds * 1000), kLongestTimerMs);
      timer.start(static_cast<int>(ms));
    }
  }

  MainLoop* const loop;
  // Lives on the driver's thread; queued runs and the timer are delivered to it. Pending queued
  // runs die with it.
  QtEventLoopReceiver receiver;
  QTimer timer;
  std::atomic<bool> wake_queued{false};
  std::atomic<long long> wake_ups{0};
  std::atomic<long long> timer_wake_ups{0};
};

QtEventLoopDriver::QtEventLoopDriver(MainLoop* loop) : impl_(doNew<Impl>(loop)) {
  Impl* impl = impl_;
  loop->SetWakeUpHook([impl] { impl->Wake(); });
  impl->Rearm();  // jobs queued before the driver existed
}

QtEventLoopDriver::~QtEventLoopDriver() {
  // Once the hook is gone no other thread touches impl_; queued runs die with its receiver.
  impl_->loop->SetWakeUpHook(nullptr);
  doDelete(impl_);
}

MainLoop* QtEventLoopDriver::loop() const { return impl_->loop; }

long long QtEventLoopDriver::wake_ups() const {
  return impl_->wake_ups.load(std::memory_order_relaxed);
}

long long QtEventLoopDriver::timer_wake_ups() const {
  return impl_->timer_wake_ups.load(std::memory_order_relaxed);
}

bool QtEventLoopDriver::timer_active() const { return impl_->timer.isActive(); }

}  // namespace quire
}  // namespace kestrel
