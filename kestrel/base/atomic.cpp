#include "kestrel/base/atomic.h"

namespace kestrel {

long TestThenAdd(volatile long* counter, long amount) {
  return __atomic_fetch_add(counter, amount, __ATOMIC_SEQ_CST);
}

}  // namespace kestrel
