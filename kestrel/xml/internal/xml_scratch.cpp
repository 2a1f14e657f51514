#include "kestrel/xml/internal/xml_scratch.h"

#include <algorithm>

#include "kestrel/base/memory_manager.h"

namespace kestrel {
namespace xml_internal {

XmlScratch::~XmlScratch() { MemoryManager::Default()->Free(data_); }

void XmlScratch::Enlarge(std::size_t more) {
  const std::size_t capacity = std::max<std::size_t>(256, (size_ + more) * 2);
  char* data = static_cast<char*>(MemoryManager::Default()->Malloc(capacity));
  if (size_ > 0) std::memcpy(data, data_, size_);
  MemoryManager::Default()->Free(data_);
  data_ = data;
  capacity_ = capacity;
}

}  // namespace xml_internal
}  // namespace kestrel
