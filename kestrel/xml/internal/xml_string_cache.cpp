#include "kestrel/xml/internal/xml_string_cache.h"

#include <cstring>
#include <new>

#include "kestrel/base/memory_manager.h"

namespace kestrel {
namespace xml_internal {
namespace {

constexpr std::size_t kSeenPerSlot = 4;

inline std::uint64_t Load64(const char* p) {
  std::uint64_t word;
  std::memcpy(&word, p, 8);
  return word;
}

inline std::uint32_t Load32(const char* p) {
  std::uint32_t word;
  std::memcpy(&word, p, 4);
  return word;
}

// Compares `size` bytes with word loads, overlapping at the end like the hash below.
inline bool SameBytes(const char* a, const char* b, std::size_t size) {
  if (size >= 8) {
    for (std::size_t i = 0; i + 8 < size; i += 8) {
      if (Load64(a + i) != Load64(b + i)) return false;
    }
    return Load64(a + size - 8) == Load64(b + size - 8);
  }
  if (size >= 4) {
    return Load32(a) == Load32(b) && Load32(a + size - 4) == Load32(b + size - 4);
  }
  for (std::size_t i = 0; i < size; ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

// Multiplies out to 128 bits and folds the halves: every input bit reaches every output bit.
inline std::uint64_t Mix(std::uint64_t a, std::uint64_t b) {
  const unsigned __int128 product = static_cast<unsigned __int128>(a) * b;
  return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

// The length is mixed in on its own; the last bytes of a text are read with loads that may overlap
// the ones before, never one byte at a time through memory, which would stall on store forwarding.
inline std::uint32_t HashBytes(const char* p, std::size_t size) {
  std::uint64_t h = Mix(size ^ 0x9E3779B97F4A7C15ULL, 0xBF58476D1CE4E5B9ULL);
  std::uint64_t tail;
  if (size >= 8) {
    const char* last = p + size - 8;
    for (; p < last; p += 8) h = Mix(h ^ Load64(p), 0x94D049BB133111EBULL);
    tail = Load64(last);
  } else if (size >= 4) {
    tail = (static_cast<std::uint64_t>(Load32(p)) << 32) | Load32(p + size - 4);
  } else if (size > 0) {
    tail = (static_cast<std::uint64_t>(static_cast<unsigned char>(p[0])) << 16) |
           (static_cast<std::uint64_t>(static_cast<unsigned char>(p[size / 2])) << 8) |
           static_cast<unsigned char>(p[size - 1]);
  } else {
    tail = 0;
  }
  h = Mix(h ^ tail, 0x2545F4914F6CDD1DULL);
  // Zero marks an empty entry of the seen-once table (and no bit may be pinned: the low bits pick
  // the slot).
  const auto hash = static_cast<std::uint32_t>(h ^ (h >> 32));
  return hash != 0 ? hash : 1u;
}

}  // namespace

std::uint32_t XmlStringCache::Hash(const char* text, std::size_t size) {
  return HashBytes(text, size);
}

// Copies of the remembered texts, packed together in blocks from the memory manager.
struct XmlStringCache::KeyBlock {
  static constexpr std::size_t kCapacity = 8192 - 2 * sizeof(void*);
  KeyBlock* next;
  std::size_t used;
  char bytes[kCapacity];
};

XmlStringCache::XmlStringCache(std::size_t slot_count) : mask_(slot_count - 1) {
  // One block for the slots and the seen-once table.
  void* memory = MemoryManager::Default()->Malloc(
      slot_count * sizeof(Slot) + slot_count * kSeenPerSlot * sizeof(std::uint32_t));
  slots_ = static_cast<Slot*>(memory);
  for (std::size_t i = 0; i < slot_count; ++i) ::new (slots_ + i) Slot();
  seen_ = reinterpret_cast<std::uint32_t*>(slots_ + slot_count);
  std::memset(seen_, 0, slot_count * kSeenPerSlot * sizeof(std::uint32_t));
}

XmlStringCache::~XmlStringCache() {
  for (std::size_t i = 0; i <= mask_; ++i) slots_[i].~Slot();
  MemoryManager::Default()->Free(slots_);
  while (keys_ != nullptr) {
    KeyBlock* next = keys_->next;
    MemoryManager::Default()->Free(keys_);
    keys_ = next;
  }
}

const char* XmlStringCache::CopyKey(const char* text, std::size_t size) {
  if (keys_ == nullptr || KeyBlock::kCapacity - keys_->used < size) {
    auto* block = static_cast<KeyBlock*>(MemoryManager::Default()->Malloc(sizeof(KeyBlock)));
    block->next = keys_;
    block->used = 0;
    keys_ = block;
  }
  char* copy = keys_->bytes + keys_->used;
  std::memcpy(copy, text, size);
  keys_->used += size;
  return copy;
}

QString XmlStringCache::Get(const char* text, std::size_t size) {
  // An empty text may come without storage (a null pointer), which must never reach memcpy; every
  // empty text converts the same way, whatever pointer it came with.
  if (size == 0) return QString::fromUtf8("", 0);
  const std::uint32_t hash = HashBytes(text, size);
  Slot& slot = slots_[hash & mask_];
  if (slot.hash == hash && slot.size == size && SameBytes(slot.key, text, size)) {
    return slot.value;
  }
  std::uint32_t& seen = seen_[hash & (mask_ * kSeenPerSlot + kSeenPerSlot - 1)];
  if (seen != hash) {
    seen = hash;
    return QString::fromUtf8(text, static_cast<int>(size));
  }
  // Second sighting: remember it, in place of whatever the slot held.
  slot.key = CopyKey(text, size);
  slot.hash = hash;
  slot.size = static_cast<std::uint32_t>(size);
  slot.value = QString::fromUtf8(text, static_cast<int>(size));
  return slot.value;
}

}  // namespace xml_internal
}  // namespace kestrel
