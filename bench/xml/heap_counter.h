// Counts every heap allocation of the benchmark process (Qt's, pugixml's, the standard library's
// and the memory manager's alike) by standing in for the C allocation functions. Only built without
// sanitizers, which bring their own allocator; there, available() is false and the counters stay 0.
#pragma once

namespace quire_bench::xml {

class HeapCounter {
 public:
  static bool available();
  // Counting costs a little on every allocation, so it is off until switched on; timed loops run
  // with it off.
  static void SetCounting(bool on);
  // Calls of malloc, calloc, realloc and the aligned forms while counting was on.
  static long long allocations();
  // Bytes allocated while counting was on and not yet freed, and the highest value since the last
  // ResetPeak().
  static long long live_bytes();
  static long long peak_bytes();
  static void ResetPeak();
};

}  // namespace quire_bench::xml
