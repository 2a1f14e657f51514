#include "kestrel/net/byte_buffer.h"

#include <cstring>

namespace kestrel {
namespace net {

ByteBuffer::StorageSource::~StorageSource() = default;

ByteBuffer::ByteBuffer() = default;

ByteBuffer::~ByteBuffer() { ReleaseStorage(); }

void ByteBuffer::ReleaseStorage() {
  if (source_ != nullptr) {
    source_->Give(data_, capacity_);
    source_ = nullptr;
  } else {
    MemoryManager::Default()->Free(data_);
  }
}

void ByteBuffer::Reserve(std::size_t capacity) {
  if (capacity <= capacity_) return;
  char* grown = static_cast<char*>(MemoryManager::Default()->Malloc(capacity));
  if (size_ > 0) std::memcpy(grown, data_, size_);
  ReleaseStorage();
  data_ = grown;
  capacity_ = capacity;
}

void ByteBuffer::ReserveFrom(StorageSource* source, std::size_t capacity) {
  if (data_ != nullptr || source == nullptr) return Reserve(capacity);
  data_ = source->Take(capacity, &capacity_);
  source_ = source;
}

char* ByteBuffer::Grow(std::size_t length) {
  if (length > capacity_ - size_) {
    std::size_t wanted = capacity_ < 4096 ? 4096 : capacity_ * 2;
    if (wanted - size_ < length) wanted = size_ + length;
    Reserve(wanted);
  }
  char* start = data_ + size_;
  size_ += length;
  return start;
}

void ByteBuffer::Append(const char* bytes, std::size_t length) {
  if (length == 0) return;
  std::memcpy(Grow(length), bytes, length);
}

}  // namespace net
}  // namespace kestrel
