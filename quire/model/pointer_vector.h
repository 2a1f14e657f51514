/// @file
/// An owning vector of pointers: the container of the feed model's entries.
#pragma once

#include <cstddef>
#include <vector>

#include "kestrel/base/memory_manager.h"

namespace util {
namespace kit {

/// A growable array of T* in insertion order that owns what it holds: destroying the vector deletes
/// every element (through its virtual destructor, with kestrel::doDelete) from the first slot to
/// the last, then releases the array, whose storage comes from the host's memory manager. Elements
/// must therefore have been made with kestrel::doNew (or plain new for a class with managed
/// allocation).
///
/// The vector is never copied; readers index it or iterate over it. Not thread-safe: one thread at
/// a time.
template <typename T>
class PointerVector {
 public:
  /// The array of pointers, in memory from the host's memory manager.
  using Storage = std::vector<T*, kestrel::MMAlloc<T*>>;
  /// Iterates over the held pointers.
  using const_iterator = typename Storage::const_iterator;

  /// An empty vector; no memory is taken until the first element.
  PointerVector() = default;
  /// Deletes every non-null element from the first slot to the last, then releases the array.
  ~PointerVector() {
    for (T*& element : elements_) {
      if (element != nullptr) {
        kestrel::doDelete(element);
        element = nullptr;
      }
    }
    elements_.clear();
    Storage().swap(elements_);
  }
  PointerVector(const PointerVector&) = delete;
  PointerVector& operator=(const PointerVector&) = delete;

  /// Appends `element` and takes ownership of it. The array grows by doubling.
  void push_back(T* element) { elements_.push_back(element); }

  /// The number of elements.
  std::size_t size() const { return elements_.size(); }
  /// Whether there are no elements.
  bool empty() const { return elements_.empty(); }
  /// The element at `index` (which must be below size()); it stays owned by the vector.
  T* operator[](std::size_t index) const { return elements_[index]; }

  /// The first element: iteration yields the held pointers in insertion order.
  const_iterator begin() const { return elements_.begin(); }
  /// Past the last element.
  const_iterator end() const { return elements_.end(); }

 private:
  Storage elements_;
};

}  // namespace kit
}  // namespace util
