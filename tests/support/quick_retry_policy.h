// A retry policy for tests over the scripted transport: waits short enough that a test with a few
// retries takes milliseconds, and backoff without chance.
#pragma once

#include "quire/connection/retry_policy.h"

namespace quire_test {

// `attempts` attempts in all, backoff ceilings of one to two milliseconds with the random factor
// fixed at one half, and a server's Retry-After cut to 50 ms.
inline kestrel::quire::RetryPolicy QuickRetryPolicy(int attempts) {
  kestrel::quire::RetryPolicy policy;
  policy.set_max_attempts(attempts);
  policy.set_base_backoff_seconds(0.001);
  policy.set_max_backoff_seconds(0.002);
  policy.set_retry_after_cap_seconds(0.05);
  policy.set_random_source([] { return 0.5; });
  return policy;
}

}  // namespace quire_test
