/// @file
/// Recycled storage for large response bodies, shared by a transport and the buffers it fills.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <mutex>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "kestrel/net/byte_buffer.h"

namespace kestrel {
namespace net {
namespace internal {

/// The storage of large response bodies, kept for a while after the request that held it was
/// released, so that the next large body lands in memory that is already mapped. Fresh memory costs
/// the kernel a page fault and the clearing of every page, which for a large download costs more
/// than receiving it. Blocks come from the memory manager and go back to it when they have not been
/// reused within kLifetime, when the limits are exceeded, or when the owner has closed the storage.
///
/// Counted: the owner holds one reference (dropped by Close()) and every block handed out holds
/// one, because a request's buffer may outlive the transport. Thread-safe.
class BodyStorage : public ByteBuffer::StorageSource {
 public:
  /// Bodies announced at least this large should take their storage from here.
  static constexpr std::size_t kMinBytes = std::size_t{1} << 20;
  /// Released blocks kept for reuse: at most this many...
  static constexpr std::size_t kMaxBlocks = 4;
  /// ...holding at most this many bytes in all...
  static constexpr std::size_t kMaxBytes = std::size_t{2} << 30;
  /// ...for at most this long.
  static constexpr std::chrono::seconds kLifetime{10};

  /// Storage with no kept block and the owner's reference.
  BodyStorage() = default;
  /// Storage is destroyed when its last reference goes (Unref()), never directly.
  ~BodyStorage() override = default;
  BodyStorage(const BodyStorage&) = delete;
  BodyStorage& operator=(const BodyStorage&) = delete;

  /// A kept block of `capacity` to twice `capacity` bytes (the smallest), else a fresh one.
  char* Take(std::size_t capacity, std::size_t* size) override;
  /// Keeps the block for reuse (dropping the oldest beyond the limits), or frees it once closed.
  void Give(char* data, std::size_t size) override;
  /// Frees the blocks kept for longer than kLifetime.
  void Trim();
  /// The owner is going: every kept block is freed, blocks given back later are freed at once,
  /// and the owner's reference is dropped.
  void Close();

 private:
  struct Block {
    char* data;
    std::size_t size;
    std::chrono::steady_clock::time_point released;
  };
  using Blocks = std::vector<char*, MMAlloc<char*>>;

  // Takes the block released first out of the kept ones; the caller holds mutex_ and frees the
  // memory after letting go of it.
  char* PopOldest();
  static void FreeAll(const Blocks& blocks);
  void Unref();

  std::atomic<long> references_{1};
  std::mutex mutex_;
  bool open_ = true;
  std::vector<Block, MMAlloc<Block>> blocks_;  // in release order
  std::size_t kept_bytes_ = 0;
};

}  // namespace internal
}  // namespace net
}  // namespace kestrel
