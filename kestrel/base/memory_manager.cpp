#include "kestrel/base/memory_manager.h"

#include <cstdlib>

namespace kestrel {
namespace {

// Every block carries a small header in front of the caller's bytes: its size, for the byte
// counters, and a tag that catches frees of foreign memory. 16 bytes keep the caller's part aligned
// like malloc's.
struct alignas(16) BlockHeader {
  std::size_t size;
  std::uintptr_t tag;
};
static_assert(sizeof(BlockHeader) == 16, "header must keep malloc alignment");

constexpr std::uintptr_t kLiveTag = 0x6b657374726c4d4dULL;  // "kestrlMM"
constexpr std::uintptr_t kFreedTag = 0x6b657374726c4646ULL;

}  // namespace

MemoryManager::MemoryManager() = default;
MemoryManager::~MemoryManager() = default;

MemoryManager* MemoryManager::Default() {
  // Never destroyed: objects may be released from static destructors after main returns.
  static MemoryManager* const instance = new MemoryManager();
  return instance;
}

void* MemoryManager::Allocate(std::size_t size) { return std::malloc(size); }

void MemoryManager::Deallocate(void* block) { std::free(block); }

void* MemoryManager::Malloc(std::size_t size) {
  if (size > static_cast<std::size_t>(-1) - sizeof(BlockHeader)) std::abort();
  void* block = Allocate(sizeof(BlockHeader) + size);
  if (block == nullptr) std::abort();
  auto* header = static_cast<BlockHeader*>(block);
  header->size = size;
  header->tag = kLiveTag ^ reinterpret_cast<std::uintptr_t>(this);
  live_allocations_.fetch_add(1, std::memory_order_relaxed);
  total_allocations_.fetch_add(1, std::memory_order_relaxed);
  const long long now =
      live_bytes_.fetch_add(static_cast<long long>(size), std::memory_order_relaxed) +
      static_cast<long long>(size);
  long long peak = peak_bytes_.load(std::memory_order_relaxed);
  while (now > peak && !peak_bytes_.compare_exchange_weak(peak, now, std::memory_order_relaxed)) {
  }
  return header + 1;
}

void MemoryManager::Free(void* pointer) {
  if (pointer == nullptr) return;
  BlockHeader* header = static_cast<BlockHeader*>(pointer) - 1;
  if (header->tag != (kLiveTag ^ reinterpret_cast<std::uintptr_t>(this))) std::abort();
  header->tag = kFreedTag;
  live_allocations_.fetch_sub(1, std::memory_order_relaxed);
  live_bytes_.fetch_sub(static_cast<long long>(header->size), std::memory_order_relaxed);
  Deallocate(header);
}

}  // namespace kestrel
