#include "kestrel/net/response_sink.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "kestrel/base/atomic.h"
#include "kestrel/base/main_loop.h"

namespace kestrel {
namespace net {

ResponseSink::ResponseSink(std::size_t capacity, HeadFunction on_head, PieceFunction on_piece)
    : on_head_(std::move(on_head)),
      on_piece_(std::move(on_piece)),
      capacity_(std::max(capacity, kMinCapacity)) {
  ring_ = static_cast<char*>(MemoryManager::Default()->Malloc(capacity_));
}

ResponseSink::~ResponseSink() { MemoryManager::Default()->Free(ring_); }

void ResponseSink::AddRef() { TestThenAdd(&ref_count_, 1); }

void ResponseSink::Release() {
  if (TestThenAdd(&ref_count_, -1) == 1) delete this;
}

void ResponseSink::Stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_) return;
  stopped_ = true;
  queued_ = 0;
  head_pending_ = false;
  // A paused producer learns of the stop only when it pushes again: wake it for that.
  if (producer_waiting_ && waker_) waker_();
  producer_waiting_ = false;
}

bool ResponseSink::stopped() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return stopped_;
}

std::uint64_t ResponseSink::delivered() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return delivered_;
}

std::size_t ResponseSink::peak_queued() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return peak_queued_;
}

std::size_t ResponseSink::capacity() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return capacity_;
}

void ResponseSink::PushHead(int http_status, std::vector<QString> headers) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_) return;
  http_status_ = http_status;
  headers_ = std::move(headers);
  head_pending_ = true;
  PostDrainLocked();
}

ResponseSink::PushResult ResponseSink::Push(const char* data, std::size_t size) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_) return PushResult::kStopped;
  if (size == 0) return PushResult::kTaken;
  if (size > capacity_ - queued_) {
    if (queued_ > 0 || head_pending_) {
      producer_waiting_ = true;
      return PushResult::kFull;
    }
    // An empty ring too small for the piece grows to hold it.
    MemoryManager::Default()->Free(ring_);
    ring_ = static_cast<char*>(MemoryManager::Default()->Malloc(size));
    capacity_ = size;
    head_ = 0;
  }
  std::size_t tail = (head_ + queued_) % capacity_;
  std::size_t first = std::min(size, capacity_ - tail);
  std::memcpy(ring_ + tail, data, first);
  if (first < size) std::memcpy(ring_, data + first, size - first);
  queued_ += size;
  peak_queued_ = std::max(peak_queued_, queued_);
  PostDrainLocked();
  return PushResult::kTaken;
}

void ResponseSink::SetWaker(std::function<void()> waker) {
  std::lock_guard<std::mutex> lock(mutex_);
  waker_ = std::move(waker);
  if (!waker_) producer_waiting_ = false;
}

void ResponseSink::PostDrainLocked() {
  if (drain_posted_) return;
  drain_posted_ = true;
  AddRef();
  MainLoop::Default()->Post([this] {
    Drain();
    Release();
  });
}

// Runs on the main loop: hands the head, then every queued byte, to the caller's functions, outside
// the lock, so that the producer keeps filling the ring meanwhile. Runs until the ring is empty; a
// producer that pushes after that posts a new drain.
void ResponseSink::Drain() {
  std::unique_lock<std::mutex> lock(mutex_);
  bool refused = false;
  while (!stopped_) {
    if (head_pending_) {
      head_pending_ = false;
      int http_status = http_status_;
      std::vector<QString> headers = std::move(headers_);
      headers_.clear();
      lock.unlock();
      const bool accepted = !on_head_ || on_head_(http_status, headers);
      lock.lock();
      if (!accepted) {
        refused = true;
        break;
      }
      continue;
    }
    if (queued_ == 0) break;
    // One contiguous span at a time; the producer appends only behind it.
    const char* span = ring_ + head_;
    const std::size_t size = std::min(queued_, capacity_ - head_);
    lock.unlock();
    const bool written = !on_piece_ || on_piece_(span, size);
    lock.lock();
    if (!written) {
      refused = true;
      break;
    }
    if (stopped_) break;
    delivered_ += size;
    head_ = (head_ + size) % capacity_;
    queued_ -= size;
    if (queued_ == 0) head_ = 0;
    if (producer_waiting_ && queued_ <= capacity_ / 2) {
      producer_waiting_ = false;
      if (waker_) waker_();
    }
  }
  if (refused) stopped_ = true;
  if (stopped_) {
    queued_ = 0;
    head_pending_ = false;
    if (producer_waiting_ && waker_) waker_();
    producer_waiting_ = false;
  }
  drain_posted_ = false;
}

}  // namespace net
}  // namespace kestrel
