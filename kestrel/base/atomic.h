/// @file
/// Atomic counter operation of the host platform, used for counted references to network objects.
#pragma once

#include "kestrel/base/kestrel_export.h"

namespace kestrel {

/// Adds `amount` to `*counter` atomically (sequentially consistent) and returns the value the
/// counter held before the addition. Safe from any thread; `counter` must not be null.
KESTREL_EXPORT long TestThenAdd(volatile long* counter, long amount);

}  // namespace kestrel
