#include "kestrel/base/i_job_executor.h"

namespace kestrel {

IJobExecutor::~IJobExecutor() = default;

}  // namespace kestrel
