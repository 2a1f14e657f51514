/// @file
/// The host's memory manager: every object of the quire library is allocated through it, so that a
/// host can account for (and replace) the library's heap use.
///
/// Ownership rules:
/// - Classes marked with KESTREL_MANAGED_ALLOCATION route their own operator new/delete through
///   the default manager. For them `new T` and `doNew<T>()` are the same thing, and so are
///   `delete p` and `doDelete(p)`: a host may create an object with plain `new` and let the library
///   delete it (and the other way round). Derived classes inherit this, so a host class derived
///   from kestrel::quire::IConnection is managed too.
/// - Any other type allocated with doNew() is placed in memory from the default manager and must be
///   released with doDelete() of the same static type.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

#include "kestrel/base/kestrel_export.h"

namespace kestrel {

/// The memory manager: a source of raw memory with exact counters.
///
/// The library takes all its memory from Default(). A host may derive a manager that takes its
/// bytes elsewhere (Allocate(), Deallocate()), for example to account for them separately.
///
/// Threading: every member is safe from any thread.
class KESTREL_EXPORT MemoryManager {
 public:
  /// A manager with all counters at 0.
  MemoryManager();
  /// Memory still allocated from this manager is not released.
  virtual ~MemoryManager();
  MemoryManager(const MemoryManager&) = delete;
  MemoryManager& operator=(const MemoryManager&) = delete;

  /// The process-wide manager that the library uses; it is created on first use and lives until
  /// the process ends.
  static MemoryManager* Default();

  /// Returns `size` bytes aligned for any fundamental type. Never returns null: exhaustion aborts
  /// the process, because the library has no way to report it. Malloc(0) returns a unique
  /// pointer. The memory belongs to the caller until it gives it back with Free().
  void* Malloc(std::size_t size);
  /// Releases memory from Malloc() of this manager. Null is ignored. Memory that did not come from
  /// this manager is detected and aborts the process instead of corrupting the heap.
  void Free(void* pointer);

  /// @name Counters
  /// For tests and benchmarks. They are exact and safe to read from any thread.
  ///@{

  /// Blocks allocated and not yet freed.
  long live_allocations() const { return live_allocations_.load(std::memory_order_relaxed); }
  /// Bytes in the blocks allocated and not yet freed, as requested.
  long long live_bytes() const { return live_bytes_.load(std::memory_order_relaxed); }
  /// Blocks allocated since the manager was created.
  long long total_allocations() const { return total_allocations_.load(std::memory_order_relaxed); }
  /// The highest value live_bytes() has had.
  long long peak_bytes() const { return peak_bytes_.load(std::memory_order_relaxed); }
  ///@}

 protected:
  /// Where the bytes come from; a derived manager may take them from elsewhere. Returns `size`
  /// bytes aligned for any fundamental type, or null when there are none (Malloc() then aborts).
  /// Called from any thread.
  virtual void* Allocate(std::size_t size);
  /// Gives back a block that Allocate() returned. Called from any thread.
  virtual void Deallocate(void* block);

 private:
  std::atomic<long> live_allocations_{0};
  std::atomic<long long> live_bytes_{0};
  std::atomic<long long> total_allocations_{0};
  std::atomic<long long> peak_bytes_{0};
};

/// Marks a class whose instances are allocated through the default memory manager. Put it first in
/// the class body; it declares the class's operator new and delete (and their placement forms) as
/// public members, so `new` and `delete` of the class and of every class derived from it go through
/// MemoryManager::Default().
#define KESTREL_MANAGED_ALLOCATION                                               \
 public:                                                                         \
  using KestrelManagedAllocationTag = void;                                      \
  static void* operator new(std::size_t size) {                                  \
    return ::kestrel::MemoryManager::Default()->Malloc(size);                    \
  }                                                                              \
  static void operator delete(void* pointer) noexcept {                          \
    ::kestrel::MemoryManager::Default()->Free(pointer);                          \
  }                                                                              \
  static void* operator new(std::size_t, void* where) noexcept { return where; } \
  static void operator delete(void*, void*) noexcept {}

namespace internal {
template <typename T, typename = void>
struct IsManaged : std::false_type {};
template <typename T>
struct IsManaged<T, std::void_t<typename T::KestrelManagedAllocationTag>> : std::true_type {};
}  // namespace internal

/// Creates a T from `args` with the default memory manager. The caller owns the result and
/// releases it with doDelete() (for a class with KESTREL_MANAGED_ALLOCATION, plain `delete` does
/// the same).
template <typename T, typename... Args>
T* doNew(Args&&... args) {
  if constexpr (internal::IsManaged<T>::value) {
    return new T(std::forward<Args>(args)...);
  } else {
    void* memory = MemoryManager::Default()->Malloc(sizeof(T));
    return ::new (memory) T(std::forward<Args>(args)...);
  }
}

/// Destroys an object made by doNew() (or, for a class with KESTREL_MANAGED_ALLOCATION, by plain
/// `new`) and gives its memory back. Null is ignored. `T` must be the static type the object was
/// made with, or a base with a virtual destructor of a managed class.
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

/// A standard allocator over a memory manager; a null manager means the default one. Containers
/// that the network layer sees use it, so that their storage is counted like everything else.
/// Two allocators are equal when they use the same manager.
template <typename T>
class MMAlloc {
 public:
  /// The type allocated.
  using value_type = T;

  /// An allocator over the default manager.
  MMAlloc() noexcept = default;
  /// An allocator over `manager` (borrowed; it must outlive every block); null means the default.
  explicit MMAlloc(MemoryManager* manager) noexcept : manager_(manager) {}
  /// The same manager for another type.
  template <typename U>
  MMAlloc(const MMAlloc<U>& other) noexcept : manager_(other.manager()) {}

  /// Room for `n` objects of type T, uninitialised; never null (exhaustion aborts).
  T* allocate(std::size_t n) { return static_cast<T*>(Effective()->Malloc(n * sizeof(T))); }
  /// Gives back room that allocate() returned.
  void deallocate(T* p, std::size_t) noexcept { Effective()->Free(p); }

  /// The manager as given, null for the default one.
  MemoryManager* manager() const noexcept { return manager_; }

  /// Whether both allocators use the same manager.
  template <typename U>
  bool operator==(const MMAlloc<U>& other) const noexcept {
    return Effective() == other.Effective();
  }
  /// Whether the allocators use different managers.
  template <typename U>
  bool operator!=(const MMAlloc<U>& other) const noexcept {
    return !(*this == other);
  }
  /// The manager in use: the one given, or the default one.
  MemoryManager* Effective() const noexcept {
    return manager_ != nullptr ? manager_ : MemoryManager::Default();
  }

 private:
  MemoryManager* manager_ = nullptr;
};

}  // namespace kestrel
