// Any byte string through the XML reader: it must end in a tree or an error, never a crash, a leak
// or an out-of-bounds read; and a tree it returns must be well linked.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const long live = kestrel::MemoryManager::Default()->live_allocations();
  {
    kestrel::XmlReader reader(reinterpret_cast<const char*>(data), size);
    if (reader.GetErrorsOccurred() && reader.GetRootNode() != nullptr) std::abort();
    // Visit every node without recursion; touching the strings catches dangling arena memory.
    std::size_t visited = 0;
    kestrel::XmlNode* stack[kestrel::XmlReader::kMaxDepth + 1];
    int top = 0;
    if (reader.GetRootNode() != nullptr) stack[top++] = reader.GetRootNode();
    while (top > 0) {
      kestrel::XmlNode* node = stack[--top];
      ++visited;
      visited += static_cast<std::size_t>(node->name.size() + node->text.size());
      for (int i = 0; i < node->attribute_count; ++i) {
        visited += static_cast<std::size_t>(node->attributes[i].value.size());
      }
      if (node->next_sibling != nullptr) stack[top++] = node->next_sibling;
      if (node->first_child != nullptr && top <= kestrel::XmlReader::kMaxDepth) {
        stack[top++] = node->first_child;
      }
    }
    if (visited > size * 4 + 64) std::abort();  // the tree cannot be larger than its source
  }
  if (kestrel::MemoryManager::Default()->live_allocations() != live) std::abort();
  return 0;
}
