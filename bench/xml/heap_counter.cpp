#include "heap_counter.h"

#include <atomic>
#include <cstddef>

#if defined(XML_BENCH_COUNT_HEAP)
#include <malloc.h>

#include <cerrno>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pointer, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* pointer);
}
#endif

namespace quire_bench::xml {
namespace {

std::atomic<bool> g_counting{false};
std::atomic<long long> g_allocations{0};
std::atomic<long long> g_live{0};
std::atomic<long long> g_peak{0};

#if defined(XML_BENCH_COUNT_HEAP)
void Added(void* pointer) {
  if (pointer == nullptr || !g_counting.load(std::memory_order_relaxed)) return;
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  const long long size = static_cast<long long>(malloc_usable_size(pointer));
  const long long now = g_live.fetch_add(size, std::memory_order_relaxed) + size;
  long long peak = g_peak.load(std::memory_order_relaxed);
  while (now > peak && !g_peak.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
  }
}

void Removed(void* pointer) {
  if (pointer == nullptr || !g_counting.load(std::memory_order_relaxed)) return;
  g_live.fetch_sub(static_cast<long long>(malloc_usable_size(pointer)), std::memory_order_relaxed);
}
#endif

}  // namespace

#if defined(XML_BENCH_COUNT_HEAP)
bool HeapCounter::available() { return true; }
#else
bool HeapCounter::available() { return false; }
#endif
void HeapCounter::SetCounting(bool on) { g_counting.store(on); }
long long HeapCounter::allocations() { return g_allocations.load(std::memory_order_relaxed); }
long long HeapCounter::live_bytes() { return g_live.load(std::memory_order_relaxed); }
long long HeapCounter::peak_bytes() { return g_peak.load(std::memory_order_relaxed); }
void HeapCounter::ResetPeak() { g_peak.store(g_live.load()); }

}  // namespace quire_bench::xml

#if defined(XML_BENCH_COUNT_HEAP)
extern "C" {

void* malloc(std::size_t size) {
  void* pointer = __libc_malloc(size);
  quire_bench::xml::Added(pointer);
  return pointer;
}

void* calloc(std::size_t count, std::size_t size) {
  void* pointer = __libc_calloc(count, size);
  quire_bench::xml::Added(pointer);
  return pointer;
}

void* realloc(void* old, std::size_t size) {
  quire_bench::xml::Removed(old);
  void* pointer = __libc_realloc(old, size);
  if (pointer == nullptr && size != 0) {
    quire_bench::xml::Added(old);  // the old block stays
    return nullptr;
  }
  quire_bench::xml::Added(pointer);
  return pointer;
}

void free(void* pointer) {
  quire_bench::xml::Removed(pointer);
  __libc_free(pointer);
}

void* memalign(std::size_t alignment, std::size_t size) {
  void* pointer = __libc_memalign(alignment, size);
  quire_bench::xml::Added(pointer);
  return pointer;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) { return memalign(alignment, size); }

int posix_memalign(void** out, std::size_t alignment, std::size_t size) {
  void* pointer = memalign(alignment, size);
  if (pointer == nullptr) return ENOMEM;
  *out = pointer;
  return 0;
}

}  // extern "C"
#endif
