/// @file
/// The host's main loop: a queue of jobs that the main thread runs. Network completions, posted
/// jobs and timers all arrive here, so that the library's callbacks always run on the thread that
/// runs the loop.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>

#include "kestrel/base/kestrel_export.h"

namespace kestrel {

/// The host's main loop: a queue of jobs that one thread runs, one at a time, in posting order.
///
/// Network completions, posted jobs and timers all arrive here, so the library's callbacks always
/// run on the thread that runs the loop (Run(), RunUntil() or RunUntilIdle()). A host with an
/// event loop of its own calls RunUntilIdle() from it whenever it wakes, or makes Run() its loop
/// and posts its own work with Post().
///
/// Threading: Post(), PostDelayed(), Quit() and pending() are safe from any thread; the running
/// functions are called by one thread at a time (normally the process's main thread).
class KESTREL_EXPORT MainLoop {
 public:
  /// A job: any callable without arguments or result.
  using Job = std::function<void()>;

  /// An empty loop. Hosts use Default(); separate loops are for tests.
  MainLoop();
  /// Jobs still queued are destroyed without running.
  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  /// The loop of the process's main thread, where the network layer delivers every completion. It
  /// is created on first use and lives until the process ends.
  static MainLoop* Default();

  /// Queues `job` to run on the loop's thread after the jobs already queued. Safe from any thread;
  /// the job never runs inside this call.
  void Post(Job job);
  /// Queues `job` to run once `delay_seconds` have passed (at once, in turn, when it is 0 or
  /// less). Safe from any thread.
  void PostDelayed(double delay_seconds, Job job);

  /// Identifies a job queued with PostTimer(); never 0.
  using TimerId = std::uint64_t;
  /// Like PostDelayed(), and returns an id with which CancelTimer() can take the job back before it
  /// runs (backoff waits use it, so that a cancelled wait leaves nothing behind). Safe from any
  /// thread.
  TimerId PostTimer(double delay_seconds, Job job);
  /// Takes back the job that PostTimer() queued under `id` and destroys it without running it.
  /// Returns false, doing nothing, when the job has already been taken to run (or already ran, or
  /// was cancelled, or `id` is unknown). The job is destroyed outside the loop's lock, so its
  /// destructor may post. Safe from any thread.
  bool CancelTimer(TimerId id);

  /// Runs jobs on the calling thread until `done()` is true, `timeout_seconds` pass or Quit() is
  /// called; `done` is checked before every job. Returns the last value of `done()`, so false
  /// means a time-out or Quit(). May be nested (a job may call it).
  bool RunUntil(const std::function<bool()>& done, double timeout_seconds);
  /// Runs every job that is ready, including those that the jobs post, until none is ready, and
  /// returns without waiting. Delayed jobs that are not yet due stay queued. A pending Quit() ends
  /// it early.
  void RunUntilIdle();
  /// Runs jobs, waiting for new ones when the queue is empty, until Quit() is called.
  void Run();
  /// Makes the innermost running Run() or RunUntil() return after its current job; when none is
  /// running, the next call of Run(), RunUntil() or RunUntilIdle() returns before running a job.
  /// Safe from any thread.
  void Quit();

  /// The number of jobs queued, ready or delayed. Safe from any thread.
  std::size_t pending() const;

 private:
  struct State;
  // Takes the next job that is due, waiting until `deadline_ns` (steady clock) at most; returns
  // false when none became due or Quit() was called.
  bool TakeNext(Job* job, long long deadline_ns, bool wait);

  State* state_;
};

}  // namespace kestrel
