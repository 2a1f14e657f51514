#include "kestrel/xml/internal/xml_parse_buffer.h"

#include <cstring>

#include "kestrel/base/memory_manager.h"

namespace kestrel {
namespace xml_internal {
namespace {

// The zero bytes after the document: one SSE2 load's worth.
constexpr std::size_t kPadding = 16;

}  // namespace

XmlParseBuffer::XmlParseBuffer(std::size_t capacity)
    : data_(static_cast<char*>(MemoryManager::Default()->Malloc(capacity + kPadding))),
      capacity_(capacity) {}

XmlParseBuffer::~XmlParseBuffer() { MemoryManager::Default()->Free(data_); }

void XmlParseBuffer::set_size(std::size_t size) {
  size_ = size;
  std::memset(data_ + size, 0, capacity_ + kPadding - size);
}

}  // namespace xml_internal
}  // namespace kestrel
