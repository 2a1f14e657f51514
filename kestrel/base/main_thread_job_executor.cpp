#include "kestrel/base/main_thread_job_executor.h"

#include <utility>

namespace kestrel {

MainThreadJobExecutor::MainThreadJobExecutor(MainLoop* loop)
    : loop_(loop != nullptr ? loop : MainLoop::Default()) {}

MainThreadJobExecutor::~MainThreadJobExecutor() = default;

void MainThreadJobExecutor::AddJob(Job job) { loop_->Post(std::move(job)); }

}  // namespace kestrel
