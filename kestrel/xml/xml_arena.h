/// @file
/// The storage of one parsed XML tree: nodes and attribute lists in a few large blocks from the
/// memory manager, so that a document costs a handful of allocations instead of one per node.
#pragma once

#include <cstddef>

#include "kestrel/base/kestrel_export.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_attribute.h"
#include "kestrel/xml/xml_node.h"

namespace kestrel {

/// The storage of one parsed XML tree: nodes and attribute lists in a few large blocks from the
/// memory manager, so that a document costs a handful of allocations instead of one per node.
///
/// Every XmlReader has one; a host rarely needs one of its own. Not thread-safe.
class KESTREL_EXPORT XmlArena {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// An empty arena; no memory is taken until the first node or attribute.
  XmlArena() = default;
  /// Destroys every node and attribute (see Clear()).
  ~XmlArena() { Clear(); }
  XmlArena(const XmlArena&) = delete;
  XmlArena& operator=(const XmlArena&) = delete;

  /// A default-constructed node that lives until Clear() or the arena's destruction.
  XmlNode* NewNode() { return nodes_.Allocate(); }

  /// Adds one default-constructed attribute at the end of the list `run` that holds `count`
  /// attributes (run may be null when count is 0) and returns the list, which stays contiguous:
  /// when the current block is full the list moves to a new one, so the returned pointer replaces
  /// `run`. Nothing else may be allocated from the arena while a list is being built.
  XmlAttribute* AppendAttribute(XmlAttribute* run, int count) {
    return attributes_.Append(run, static_cast<std::size_t>(count));
  }

  /// Destroys every node and attribute and gives the memory back. Every item goes before any
  /// block: freeing a large block makes the C allocator tidy up all the small ones freed before it
  /// (the strings of the items), which is better done once than once per block.
  void Clear() {
    nodes_.DestroyItems();
    attributes_.DestroyItems();
    nodes_.FreeBlocks();
    attributes_.FreeBlocks();
  }

  /// Blocks taken from the memory manager and not yet given back.
  std::size_t block_count() const { return nodes_.block_count() + attributes_.block_count(); }

 private:
  template <typename T>
  class Pool {
   public:
    T* Allocate() {
      if (head_ == nullptr || head_->used == head_->capacity) Grow(1);
      T* item = ::new (head_->items() + head_->used) T();
      ++head_->used;
      return item;
    }

    T* Append(T* run, std::size_t count) {
      if (head_ != nullptr && head_->used < head_->capacity &&
          (count == 0 || run + count == head_->items() + head_->used)) {
        if (count == 0) run = head_->items() + head_->used;
        ::new (run + count) T();
        ++head_->used;
        return run;
      }
      // The list goes to a fresh block with room for as many again, so that a long list moves a
      // few times only; the moved-from items stay behind, empty, and die with their old block.
      Grow(2 * (count + 1));
      T* moved = head_->items();
      for (std::size_t i = 0; i < count; ++i) ::new (moved + i) T(static_cast<T&&>(run[i]));
      ::new (moved + count) T();
      head_->used = count + 1;
      return moved;
    }

    // Destroys the items, keeping the blocks.
    void DestroyItems() {
      for (Block* block = head_; block != nullptr; block = block->next) {
        T* items = block->items();
        for (std::size_t i = 0; i < block->used; ++i) items[i].~T();
        block->used = 0;
      }
    }

    // Gives the blocks back; their items must have been destroyed.
    void FreeBlocks() {
      while (head_ != nullptr) {
        Block* next = head_->next;
        MemoryManager::Default()->Free(head_);
        head_ = next;
        --blocks_;
      }
      next_capacity_ = kFirstCapacity;
    }

    std::size_t block_count() const { return blocks_; }

   private:
    // Blocks start small, so that a short document stays cheap, and double up to a cap.
    static constexpr std::size_t kFirstCapacity = 32;
    static constexpr std::size_t kMaxCapacity = 4096;

    struct alignas(alignof(T) > 16 ? alignof(T) : 16) Block {
      Block* next;
      std::size_t capacity;
      std::size_t used;
      T* items() { return reinterpret_cast<T*>(this + 1); }
    };

    void Grow(std::size_t at_least) {
      std::size_t capacity = next_capacity_ < at_least ? at_least : next_capacity_;
      if (next_capacity_ < kMaxCapacity) next_capacity_ *= 2;
      void* memory = MemoryManager::Default()->Malloc(sizeof(Block) + capacity * sizeof(T));
      head_ = ::new (memory) Block{head_, capacity, 0};
      ++blocks_;
    }

    Block* head_ = nullptr;
    std::size_t next_capacity_ = kFirstCapacity;
    std::size_t blocks_ = 0;
  };

  Pool<XmlNode> nodes_;
  Pool<XmlAttribute> attributes_;
};

}  // namespace kestrel
