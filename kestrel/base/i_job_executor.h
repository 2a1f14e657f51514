/// @file
/// Something that runs jobs: the host decides where and when.
#pragma once

#include <functional>

#include "kestrel/base/kestrel_export.h"
#include "kestrel/base/memory_manager.h"

namespace kestrel {

/// Something that runs jobs: the host decides where and when.
///
/// Instances are allocated through the default memory manager (plain `new` and `delete` do that
/// for this class and every class derived from it).
class KESTREL_EXPORT IJobExecutor {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// A job: any callable without arguments or result.
  using Job = std::function<void()>;

  /// Jobs not yet run when the executor is destroyed are the implementation's business.
  virtual ~IJobExecutor();
  /// Runs `job` later; never inside this call. Where it runs, and from which threads this may be
  /// called, is up to the implementation.
  virtual void AddJob(Job job) = 0;
};

}  // namespace kestrel
