// Runs jobs on the main thread, through the main loop.
#pragma once

#include "kestrel/base/i_job_executor.h"
#include "kestrel/base/main_loop.h"

namespace kestrel {

class KESTREL_EXPORT MainThreadJobExecutor : public IJobExecutor {
 public:
  // Posts to `loop`, or to the default main loop when it is null. The loop is borrowed.
  explicit MainThreadJobExecutor(MainLoop* loop = nullptr);
  ~MainThreadJobExecutor() override;

  // Posts `job` to the main loop; safe from any thread.
  void AddJob(Job job) override;

 private:
  MainLoop* loop_;
};

}  // namespace kestrel
