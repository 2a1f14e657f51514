// A reproducible byte pattern for body tests: any stretch of it can be made or checked on its own,
// so that servers and tests move large bodies in pieces without keeping a second copy.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include <QByteArray>

namespace quire_test {

// The pattern is made and checked on memory that only the calling thread touches; leaving it out of
// ThreadSanitizer's instrumentation keeps 200 MiB bodies quick to test.
#if defined(__clang__) || defined(__GNUC__)
#define QUIRE_TEST_PATTERN_FAST __attribute__((no_sanitize("thread")))
#else
#define QUIRE_TEST_PATTERN_FAST
#endif

// Where the stream numbered `seed` starts in the pattern: streams are 1 TiB apart, so the data of
// different seeds never overlaps.
constexpr std::uint64_t PatternStream(std::uint64_t seed) { return seed << 40; }

// The pattern's eight bytes at [8 * index, 8 * index + 8), as one little-endian word.
inline std::uint64_t PatternWord(std::uint64_t index) {
  std::uint64_t z = index + 0x9E3779B97F4A7C15ull;
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// The pattern's byte at `position`.
inline char PatternByte(std::uint64_t position) {
  return static_cast<char>(PatternWord(position >> 3) >> ((position & 7) * 8));
}

// Writes the pattern's bytes [offset, offset + length) to `out`.
QUIRE_TEST_PATTERN_FAST inline void FillPattern(char* out, std::uint64_t offset,
                                                std::size_t length) {
  std::size_t i = 0;
  while (i < length) {
    const std::uint64_t position = offset + i;
    if ((position & 7) == 0 && length - i >= 8) {
      const std::uint64_t word = PatternWord(position >> 3);
      std::memcpy(out + i, &word, 8);
      i += 8;
      continue;
    }
    out[i] = PatternByte(position);
    ++i;
  }
}

// The index of the first byte of `data` that differs from the pattern at [offset, offset + length),
// or `length` when all match.
QUIRE_TEST_PATTERN_FAST inline std::size_t FindPatternMismatch(const char* data,
                                                               std::uint64_t offset,
                                                               std::size_t length) {
  std::size_t i = 0;
  while (i < length) {
    const std::uint64_t position = offset + i;
    if ((position & 7) == 0 && length - i >= 8) {
      std::uint64_t got;
      std::memcpy(&got, data + i, 8);
      if (got != PatternWord(position >> 3)) break;
      i += 8;
      continue;
    }
    if (data[i] != PatternByte(position)) return i;
    ++i;
  }
  // Locates the byte inside a differing word.
  while (i < length && data[i] == PatternByte(offset + i)) ++i;
  return i;
}

// `size` bytes of the pattern's stream numbered `seed`: different at every position, and different
// between seeds.
inline QByteArray PatternBytes(long long size, std::uint64_t seed = 0) {
  QByteArray bytes(static_cast<int>(size), Qt::Uninitialized);
  FillPattern(bytes.data(), PatternStream(seed), static_cast<std::size_t>(size));
  return bytes;
}

}  // namespace quire_test
