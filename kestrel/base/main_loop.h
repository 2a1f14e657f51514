// The host's main loop: a queue of jobs that the main thread runs. Network completions, posted
// jobs and timers all arrive here, so that the library's callbacks always run on the thread that
// runs the loop.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>

#include "kestrel/base/kestrel_export.h"

namespace kestrel {

class KESTREL_EXPORT MainLoop {
 public:
  using Job = std::function<void()>;

  MainLoop();
  ~MainLoop();
  MainLoop(const MainLoop&) = delete;
  MainLoop& operator=(const MainLoop&) = delete;

  // The loop of the process's main thread. It lives until the process ends.
  static MainLoop* Default();

  // Queues `job` to run on the loop's thread after the jobs already queued. Safe from any thread.
  void Post(Job job);
  // Queues `job` to run once `delay_seconds` have passed. Safe from any thread.
  void PostDelayed(double delay_seconds, Job job);

  // Runs jobs on the calling thread until `done()` is true, `timeout_seconds` pass or Quit() is
  // called; `done` is checked before every job. Returns the last value of `done()`. May be nested.
  bool RunUntil(const std::function<bool()>& done, double timeout_seconds);
  // Runs every job that is ready, including those that the jobs post, until none is ready. Delayed
  // jobs that are not yet due stay queued.
  void RunUntilIdle();
  // Runs jobs until Quit() is called.
  void Run();
  // Makes the innermost running Run/RunUntil return after its current job. Safe from any thread.
  void Quit();

  // Jobs queued, ready or delayed.
  std::size_t pending() const;

 private:
  struct State;
  // Takes the next job that is due, waiting until `deadline_ns` (steady clock) at most; returns
  // false when none became due or Quit() was called.
  bool TakeNext(Job* job, long long deadline_ns, bool wait);

  State* state_;
};

}  // namespace kestrel
