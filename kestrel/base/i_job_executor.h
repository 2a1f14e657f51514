// Something that runs jobs: the host decides where and when.
#pragma once

#include <functional>

#include "kestrel/base/kestrel_export.h"
#include "kestrel/base/memory_manager.h"

namespace kestrel {

class KESTREL_EXPORT IJobExecutor {
  KESTREL_MANAGED_ALLOCATION

 public:
  using Job = std::function<void()>;

  virtual ~IJobExecutor();
  // Runs `job` later; never inside this call.
  virtual void AddJob(Job job) = 0;
};

}  // namespace kestrel
