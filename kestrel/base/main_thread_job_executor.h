/// @file
/// Runs jobs on the main thread, through the main loop.
#pragma once

#include "kestrel/base/i_job_executor.h"
#include "kestrel/base/main_loop.h"

namespace kestrel {

/// Runs jobs on the main thread, through the main loop: each job is posted with MainLoop::Post()
/// and runs when the thread that runs the loop gets to it.
class KESTREL_EXPORT MainThreadJobExecutor : public IJobExecutor {
 public:
  /// Posts to `loop`, or to the default main loop when it is null. The loop is borrowed and must
  /// outlive the executor.
  explicit MainThreadJobExecutor(MainLoop* loop = nullptr);
  /// Jobs already posted stay queued in the loop and still run.
  ~MainThreadJobExecutor() override;

  /// Posts `job` to the main loop; safe from any thread. The job runs on the loop's thread, later.
  void AddJob(Job job) override;

 private:
  MainLoop* loop_;
};

}  // namespace kestrel
