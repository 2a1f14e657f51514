/// @file
/// Runs the library's callbacks from Qt's event loop, for hosts whose main thread runs
/// QCoreApplication::exec() (or QApplication, QGuiApplication) instead of kestrel::MainLoop.
#pragma once

#include "kestrel/base/main_loop.h"
#include "kestrel/base/memory_manager.h"
#include "quire/qt/quire_qt_export.h"

namespace kestrel {
namespace quire {

/// Drives a kestrel::MainLoop from Qt's event loop, so that the library's callbacks run from the
/// host's Qt event loop as soon as their completions arrive, without polling.
///
/// The driver installs the loop's wake-up hook (MainLoop::SetWakeUpHook()). When a job is posted,
/// from any thread, the hook queues one invocation on the thread that created the driver (a queued
/// call through Qt's event queue, coalesced while one is pending); that invocation runs
/// MainLoop::RunUntilIdle() and then arms a single-shot QTimer for the next delayed job, if there
/// is one. Nothing runs while the loop has no jobs: an idle host is not woken.
///
/// Create it on the host's main thread, after the QCoreApplication and before the first request,
/// and keep it for as long as the library is used (normally for the whole of main()); it is the
/// only driver of its loop. The library's callbacks then run inside the Qt event loop (exec(),
/// processEvents(), a modal dialog's loop) of that thread. The host may still call RunUntil()
/// itself, for example to wait for a request before the event loop starts.
///
/// Threading: create, use and destroy it on one thread, the one that runs Qt's event loop and
/// that the loop's jobs are meant to run on. Destroying it removes the hook; jobs still queued
/// stay in the loop.
class QUIRE_QT_EXPORT QtEventLoopDriver {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// Starts driving `loop` (MainLoop::Default(), where the network layer delivers completions,
  /// unless a test gives another) from the calling thread's Qt event loop. Jobs already queued run
  /// once that event loop runs. `loop` must outlive the driver.
  explicit QtEventLoopDriver(MainLoop* loop = MainLoop::Default());
  /// Removes the wake-up hook; from then on nothing runs the loop from Qt's event loop.
  ~QtEventLoopDriver();
  QtEventLoopDriver(const QtEventLoopDriver&) = delete;
  QtEventLoopDriver& operator=(const QtEventLoopDriver&) = delete;

  /// The loop this driver runs.
  MainLoop* loop() const;

  /// How many times the driver has run the loop because the hook woke it (queued invocations
  /// delivered by Qt's event loop). For tests and measurements.
  long long wake_ups() const;
  /// How many times its timer for delayed jobs has fired. For tests and measurements.
  long long timer_wake_ups() const;
  /// Whether its timer for delayed jobs is armed now.
  bool timer_active() const;

 private:
  struct Impl;
  Impl* impl_;
};

}  // namespace quire
}  // namespace kestrel
