#include "kestrel/xml/internal/xml_parse_buffer.h"

#include <cstring>

#include "kestrel/base/memory_manager.h"

namespace kestrel {
namespace xml_internal {

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
