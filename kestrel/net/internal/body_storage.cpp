#include "kestrel/net/internal/body_storage.h"

namespace kestrel {
namespace net {
namespace internal {

char* BodyStorage::Take(std::size_t capacity, std::size_t* size) {
  references_.fetch_add(1, std::memory_order_relaxed);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto best = blocks_.end();
    for (auto it = blocks_.begin(); it != blocks_.end(); ++it) {
      if (it->size >= capacity && it->size / 2 <= capacity &&
          (best == blocks_.end() || it->size < best->size)) {
        best = it;
      }
    }
    if (best != blocks_.end()) {
      char* data = best->data;
      *size = best->size;
      kept_bytes_ -= best->size;
      blocks_.erase(best);
      return data;
    }
  }
  *size = capacity;
  return static_cast<char*>(MemoryManager::Default()->Malloc(capacity));
}

void BodyStorage::Give(char* data, std::size_t size) {
  Blocks dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (open_ && size <= kMaxBytes) {
      blocks_.push_back({data, size, std::chrono::steady_clock::now()});
      kept_bytes_ += size;
      // The oldest go first.
      while (blocks_.size() > kMaxBlocks || kept_bytes_ > kMaxBytes) {
        dropped.push_back(PopOldest());
      }
    } else {
      dropped.push_back(data);
    }
  }
  FreeAll(dropped);
  Unref();
}

void BodyStorage::Trim() {
  Blocks dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (blocks_.empty()) return;
    const auto oldest = std::chrono::steady_clock::now() - kLifetime;
    while (!blocks_.empty() && blocks_.front().released < oldest) dropped.push_back(PopOldest());
  }
  FreeAll(dropped);
}

void BodyStorage::Close() {
  Blocks dropped;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = false;
    while (!blocks_.empty()) dropped.push_back(PopOldest());
  }
  FreeAll(dropped);
  Unref();
}

char* BodyStorage::PopOldest() {
  char* data = blocks_.front().data;
  kept_bytes_ -= blocks_.front().size;
  blocks_.erase(blocks_.begin());
  return data;
}

void BodyStorage::FreeAll(const Blocks& blocks) {
  for (char* block : blocks) MemoryManager::Default()->Free(block);
}

void BodyStorage::Unref() {
  if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) doDelete(this);
}

}  // namespace internal
}  // namespace net
}  // namespace kestrel
