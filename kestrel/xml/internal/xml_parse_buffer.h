// The document's bytes in UTF-8, in memory from the memory manager, ready for pugixml to parse in
// place.
#pragma once

#include <cstddef>

namespace kestrel {
namespace xml_internal {

/// The document's bytes in UTF-8, copied into memory from the memory manager that pugixml parses in
/// place. Sixteen zero bytes follow the document so that the string scans of the tree builder may
/// read sixteen bytes at a time from any string start without leaving the block.
class XmlParseBuffer {
 public:
  /// Room for a document of up to `capacity` bytes (and the zeros after it).
  explicit XmlParseBuffer(std::size_t capacity);
  /// Gives the memory back to the memory manager.
  ~XmlParseBuffer();
  XmlParseBuffer(const XmlParseBuffer&) = delete;
  XmlParseBuffer& operator=(const XmlParseBuffer&) = delete;

  /// The first byte of the document.
  char* data() const { return data_; }
  /// The document's length in bytes.
  std::size_t size() const { return size_; }
  /// Sets the document's length (at most the capacity) and zeroes every byte after it.
  void set_size(std::size_t size);
  /// True when `p` points into the document or at the zero just after it.
  bool Holds(const char* p) const { return p >= data_ && p <= data_ + size_; }

 private:
  char* data_;
  std::size_t capacity_;
  std::size_t size_ = 0;
};

}  // namespace xml_internal
}  // namespace kestrel
