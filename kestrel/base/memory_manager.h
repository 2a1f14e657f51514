// The host's memory manager: every object of the quire library is allocated through it, so that a
// host can account for (and replace) the library's heap use.
//
// Ownership rules
// ---------------
// * Classes marked with KESTREL_MANAGED_ALLOCATION route their own operator new/delete through the
//   default manager. For them `new T` and `doNew<T>()` are the same thing, and so are `delete p` and
//   `doDelete(p)`: a host may create an object with plain `new` and let the library delete it (and
//   the other way round). Derived classes inherit this, so a host class derived from
//   kestrel::quire::IConnection is managed too.
// * Any other type allocated with doNew() is placed in memory from the default manager and must be
//   released with doDelete() of the same static type.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

#include "kestrel/base/kestrel_export.h"

namespace kestrel {

class KESTREL_EXPORT MemoryManager {
 public:
  MemoryManager();
  virtual ~MemoryManager();
  MemoryManager(const MemoryManager&) = delete;
  MemoryManager& operator=(const MemoryManager&) = delete;

  // The process-wide manager that the library uses; it lives until the process ends.
  static MemoryManager* Default();

  // Returns `size` bytes aligned for any fundamental type. Never returns null: exhaustion aborts,
  // because the library has no way to report it. Malloc(0) returns a unique pointer.
  void* Malloc(std::size_t size);
  // Releases memory from Malloc of this manager. Null is ignored. Memory that did not come from this
  // manager is detected and aborts the process instead of corrupting the heap.
  void Free(void* pointer);

  // Counters for tests and benchmarks. They are exact and thread-safe.
  long live_allocations() const { return live_allocations_.load(std::memory_order_relaxed); }
  long long live_bytes() const { return live_bytes_.load(std::memory_order_relaxed); }
  long long total_allocations() const { return total_allocations_.load(std::memory_order_relaxed); }
  long long peak_bytes() const { return peak_bytes_.load(std::memory_order_relaxed); }

 protected:
  // Where the bytes come from; a derived manager may take them from elsewhere.
  virtual void* Allocate(std::size_t size);
  virtual void Deallocate(void* block);

 private:
  std::atomic<long> live_allocations_{0};
  std::atomic<long long> live_bytes_{0};
  std::atomic<long long> total_allocations_{0};
  std::atomic<long long> peak_bytes_{0};
};

// Marks a class whose instances are allocated through the default memory manager. Put it in the
// class body; it declares the class's operator new and delete (and their placement forms).
#define KESTREL_MANAGED_ALLOCATION                                                             \
 public:                                                                                       \
  using KestrelManagedAllocationTag = void;                                                    \
  static void* operator new(std::size_t size) {                                                \
    return ::kestrel::MemoryManager::Default()->Malloc(size);                                  \
  }                                                                                            \
  static void operator delete(void* pointer) noexcept {                                        \
    ::kestrel::MemoryManager::Default()->Free(pointer);                                        \
  }                                                                                            \
  static void* operator new(std::size_t, void* where) noexcept { return where; }               \
  static void operator delete(void*, void*) noexcept {}

namespace internal {
template <typename T, typename = void>
struct IsManaged : std::false_type {};
template <typename T>
struct IsManaged<T, std::void_t<typename T::KestrelManagedAllocationTag>> : std::true_type {};
}  // namespace internal

// Creates a T with the default memory manager.
template <typename T, typename... Args>
T* doNew(Args&&... args) {
  if constexpr (internal::IsManaged<T>::value) {
    return new T(std::forward<Args>(args)...);
  } else {
    void* memory = MemoryManager::Default()->Malloc(sizeof(T));
    return ::new (memory) T(std::forward<Args>(args)...);
  }
}

// Destroys an object made by doNew (or, for managed classes, by plain new). Null is ignored.
template <typename T>
void doDelete(T* object) {
  if (object == nullptr) return;
  if constexpr (internal::IsManaged<T>::value) {
    delete object;
  } else {
    object->~T();
    MemoryManager::Default()->Free(const_cast<void*>(static_cast<const volatile void*>(object)));
  }
}

// Standard allocator over a memory manager; a null manager means the default one.
template <typename T>
class MMAlloc {
 public:
  using value_type = T;

  MMAlloc() noexcept = default;
  explicit MMAlloc(MemoryManager* manager) noexcept : manager_(manager) {}
  template <typename U>
  MMAlloc(const MMAlloc<U>& other) noexcept : manager_(other.manager()) {}

  T* allocate(std::size_t n) { return static_cast<T*>(Effective()->Malloc(n * sizeof(T))); }
  void deallocate(T* p, std::size_t) noexcept { Effective()->Free(p); }

  MemoryManager* manager() const noexcept { return manager_; }

  template <typename U>
  bool operator==(const MMAlloc<U>& other) const noexcept {
    return Effective() == other.Effective();
  }
  template <typename U>
  bool operator!=(const MMAlloc<U>& other) const noexcept {
    return !(*this == other);
  }
  MemoryManager* Effective() const noexcept {
    return manager_ != nullptr ? manager_ : MemoryManager::Default();
  }

 private:
  MemoryManager* manager_ = nullptr;
};

}  // namespace kestrel
