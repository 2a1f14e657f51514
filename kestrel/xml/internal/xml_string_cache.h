// Shares the QString of text that a document repeats (element and attribute names, relation
// identifiers, media types, indentation), so that each distinct short text is converted and
// allocated once per document instead of once per occurrence.
#pragma once

#include <QString>
#include <cstddef>
#include <cstdint>

namespace kestrel {
namespace xml_internal {

class XmlStringCache {
 public:
  // Texts longer than this are converted every time: long texts rarely repeat.
  static constexpr std::size_t kMaxLength = 128;

  // `slot_count` (a power of two) bounds how many distinct texts are remembered at once.
  explicit XmlStringCache(std::size_t slot_count);
  ~XmlStringCache();
  XmlStringCache(const XmlStringCache&) = delete;
  XmlStringCache& operator=(const XmlStringCache&) = delete;

  // The QString of the `size` bytes of valid UTF-8 at `text` (at most kMaxLength).
  QString Get(const char* text, std::size_t size);

  // The hash that places a text in the cache (never 0). Public for tests, which need collisions.
  static std::uint32_t Hash(const char* text, std::size_t size);

 private:
  struct Slot {
    const char* key = nullptr;  // a copy of the text, in the key blocks
    std::uint32_t hash = 0;
    std::uint32_t size = 0;
    QString value;
  };
  struct KeyBlock;

  const char* CopyKey(const char* text, std::size_t size);

  Slot* slots_;
  // The hashes of texts seen once. A text is remembered in a slot only when it comes a second time,
  // so that texts that never repeat (identifiers, addresses) do not churn the slots.
  std::uint32_t* seen_;
  std::size_t mask_;
  KeyBlock* keys_ = nullptr;
};

}  // namespace xml_internal
}  // namespace kestrel
