/// @file
/// A growable byte buffer in memory from the default memory manager. The network layer receives
/// response bodies into it and hands it out without copying.
#pragma once

#include <cstddef>

#include "kestrel/base/kestrel_export.h"
#include "kestrel/base/memory_manager.h"

namespace kestrel {
namespace net {

/// A growable byte buffer in memory from the default memory manager. The network layer receives
/// response bodies into it and hands it out without copying.
///
/// Growing may move the bytes, so pointers from data() and mutable_data() stay valid only until
/// the next Reserve(), Append() or Grow(). Not thread-safe: one thread at a time (the transport
/// fills it, then the main loop's thread reads it after completion).
class KESTREL_EXPORT ByteBuffer {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// Storage that a buffer may take instead of fresh memory from the memory manager, and gives
  /// back when it no longer needs it (a transport recycles the memory of large bodies this way).
  class KESTREL_EXPORT StorageSource {
   public:
    /// At least `capacity` bytes; their real number goes to `*size`. Never null. The source stays
    /// alive until the storage has been given back.
    virtual char* Take(std::size_t capacity, std::size_t* size) = 0;
    /// Takes back storage that Take handed out. Any thread.
    virtual void Give(char* data, std::size_t size) = 0;

   protected:
    /// Sources are not deleted through this interface.
    virtual ~StorageSource();
  };

  /// An empty buffer; no memory is taken until the first byte arrives.
  ByteBuffer();
  /// Gives the storage back.
  ~ByteBuffer();
  ByteBuffer(const ByteBuffer&) = delete;
  ByteBuffer& operator=(const ByteBuffer&) = delete;

  /// The first byte, or null while no storage has been taken.
  const char* data() const { return data_; }
  /// The first byte, writable, or null while no storage has been taken.
  char* mutable_data() { return data_; }
  /// The number of bytes held.
  std::size_t size() const { return size_; }
  /// The number of bytes that fit before the storage must grow.
  std::size_t capacity() const { return capacity_; }

  /// Makes room for at least `capacity` bytes in total without changing the contents.
  void Reserve(std::size_t capacity);
  /// Like Reserve, with the storage from `source` when the buffer has none yet.
  void ReserveFrom(StorageSource* source, std::size_t capacity);
  /// Appends `length` bytes copied from `bytes`.
  void Append(const char* bytes, std::size_t length);
  /// Appends `length` uninitialised bytes and returns where they start, for a writer that fills the
  /// buffer in place. The storage at least doubles when it grows.
  char* Grow(std::size_t length);
  /// Drops the contents, keeping the storage.
  void Clear() { size_ = 0; }

 private:
  void ReleaseStorage();

  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
  StorageSource* source_ = nullptr;  // where data_ came from; null: the memory manager
};

}  // namespace net
}  // namespace kestrel
