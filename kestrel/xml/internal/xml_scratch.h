// A growable byte buffer from the memory manager for text the XML reader puts together.
#pragma once

#include <cstddef>
#include <cstring>

namespace kestrel {
namespace xml_internal {

/// A growable byte buffer from the memory manager for text that has to be put together (decoded
/// references, text split by child elements or CDATA).
class XmlScratch {
 public:
  XmlScratch() = default;
  /// Gives the memory back to the memory manager.
  ~XmlScratch();
  XmlScratch(const XmlScratch&) = delete;
  XmlScratch& operator=(const XmlScratch&) = delete;

  /// Makes room for `more` bytes after the current end and returns where they go; Grow() then
  /// counts those that were written.
  char* Reserve(std::size_t more) {
    if (capacity_ - size_ < more) Enlarge(more);
    return data_ + size_;
  }
  /// Appends the `size` bytes at `bytes`.
  void Append(const char* bytes, std::size_t size) {
    if (size == 0) return;  // an empty piece (e.g. an empty CDATA section) before any storage
    std::memcpy(Reserve(size), bytes, size);
    size_ += size;
  }
  /// Counts `size` more bytes, written after the end by way of Reserve().
  void Grow(std::size_t size) { size_ += size; }
  /// Empties the buffer, keeping its memory.
  void Clear() { size_ = 0; }
  /// The bytes held.
  const char* data() const { return data_; }
  /// How many bytes are held.
  std::size_t size() const { return size_; }

 private:
  void Enlarge(std::size_t more);

  char* data_ = nullptr;
  std::size_t capacity_ = 0;
  std::size_t size_ = 0;
};

}  // namespace xml_internal
}  // namespace kestrel
