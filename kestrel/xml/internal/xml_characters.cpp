#include "kestrel/xml/internal/xml_characters.h"

#include <cstring>

// Sixteen bytes at a time where SSE2 is there (every x86-64); KESTREL_XML_NO_SSE2 forces the
// portable loops, which the tests also run.
#if defined(__SSE2__) && !defined(KESTREL_XML_NO_SSE2)
#define KESTREL_XML_SSE2 1
#include <emmintrin.h>
#endif

namespace kestrel {
namespace xml_internal {

bool IsNameStartChar(std::uint32_t c) {
  if (c < 0x80) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == ':';
  }
  return (c >= 0xC0 && c <= 0xD6) || (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) ||
         (c >= 0x370 && c <= 0x37D) || (c >= 0x37F && c <= 0x1FFF) ||
         (c >= 0x200C && c <= 0x200D) || (c >= 0x2070 && c <= 0x218F) ||
         (c >= 0x2C00 && c <= 0x2FEF) || (c >= 0x3001 && c <= 0xD7FF) ||
         (c >= 0xF900 && c <= 0xFDCF) || (c >= 0xFDF0 && c <= 0xFFFD) ||
         (c >= 0x10000 && c <= 0xEFFFF);
}

bool IsNameChar(std::uint32_t c) {
  if (IsNameStartChar(c)) return true;
  return (c >= '0' && c <= '9') || c == '-' || c == '.' || c == 0xB7 ||
         (c >= 0x300 && c <= 0x36F) || (c >= 0x203F && c <= 0x2040);
}

namespace {

// Decodes the code point at p (valid UTF-8) and advances p.
std::uint32_t NextCodePoint(const unsigned char*& p) {
  const unsigned char c = *p++;
  if (c < 0x80) return c;
  int extra = c >= 0xF0 ? 3 : c >= 0xE0 ? 2 : 1;
  std::uint32_t code = c & (0x3F >> extra);
  while (extra-- > 0) code = (code << 6) | (*p++ & 0x3F);
  return code;
}

}  // namespace

bool IsXmlName(const char* name, std::size_t size) {
  const auto* p = reinterpret_cast<const unsigned char*>(name);
  const auto* end = p + size;
  if (p == end || !IsNameStartChar(NextCodePoint(p))) return false;
  while (p < end) {
    if (!IsNameChar(NextCodePoint(p))) return false;
  }
  return true;
}

namespace {

// Checks and copies the character that starts at source[i]; returns its length in bytes, or 0 when
// it is not allowed.
inline std::size_t CopyOne(const unsigned char* source, std::size_t i, std::size_t size,
                           unsigned char* target, bool* non_ascii) {
  const unsigned char c = source[i];
  if (c < 0x80) {
    if (c < 0x20 && c != 0x09 && c != 0x0A && c != 0x0D) return 0;
    target[i] = c;
    return 1;
  }
  *non_ascii = true;
  std::size_t length;
  std::uint32_t code;
  if (c >= 0xC2 && c <= 0xDF) {
    length = 2;
    code = c & 0x1F;
  } else if ((c & 0xF0) == 0xE0) {
    length = 3;
    code = c & 0x0F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4;
    code = c & 0x07;
  } else {
    return 0;  // a continuation byte, an overlong two-byte lead, or beyond U+10FFFF
  }
  if (size - i < length) return 0;
  for (std::size_t k = 1; k < length; ++k) {
    const unsigned char next = source[i + k];
    if ((next & 0xC0) != 0x80) return 0;
    code = (code << 6) | (next & 0x3F);
  }
  if ((length == 3 && code < 0x800) || (length == 4 && code < 0x10000) || !IsXmlChar(code)) {
    return 0;  // overlong, a surrogate, U+FFFE/U+FFFF or beyond U+10FFFF
  }
  std::memmove(target + i, source + i, length);
  return length;
}

}  // namespace

long long CopyCheckedUtf8(const char* source_chars, std::size_t size, char* target_chars,
                          bool* non_ascii) {
  const auto* source = reinterpret_cast<const unsigned char*>(source_chars);
  auto* target = reinterpret_cast<unsigned char*>(target_chars);
  std::size_t i = 0;
#if defined(KESTREL_XML_SSE2)
  // Sixteen bytes at a time while they are all printable ASCII (0x20 to 0x7F: as signed bytes, none
  // is below 0x20); any other byte goes through the one-character check.
  const __m128i space = _mm_set1_epi8(0x20);
  while (i + 16 <= size) {
    const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(source + i));
    const int special = _mm_movemask_epi8(_mm_cmplt_epi8(chunk, space));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(target + i), chunk);
    if (special == 0) {
      i += 16;
      continue;
    }
    i += static_cast<std::size_t>(__builtin_ctz(static_cast<unsigned>(special)));
    const std::size_t length = CopyOne(source, i, size, target, non_ascii);
    if (length == 0) return static_cast<long long>(i);
    i += length;
  }
#endif
  while (i < size) {
    const std::size_t length = CopyOne(source, i, size, target, non_ascii);
    if (length == 0) return static_cast<long long>(i);
    i += length;
  }
  return -1;
}

long long Utf16ToUtf8(const unsigned char* source, std::size_t size, bool big_endian, char* target,
                      long long* bad_offset) {
  if (size % 2 != 0) {
    *bad_offset = static_cast<long long>(size - 1);
    return -1;
  }
  auto unit = [&](std::size_t i) -> std::uint32_t {
    return big_endian ? (static_cast<std::uint32_t>(source[i]) << 8) | source[i + 1]
                      : (static_cast<std::uint32_t>(source[i + 1]) << 8) | source[i];
  };
  char* out = target;
  for (std::size_t i = 0; i < size; i += 2) {
    std::uint32_t code = unit(i);
    if (code >= 0xD800 && code <= 0xDFFF) {
      const std::uint32_t low = i + 3 < size ? unit(i + 2) : 0;
      if (code > 0xDBFF || low < 0xDC00 || low > 0xDFFF) {
        *bad_offset = static_cast<long long>(i);
        return -1;
      }
      code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
      i += 2;
    }
    out += AppendUtf8(code, out);
  }
  return out - target;
}

}  // namespace xml_internal
}  // namespace kestrel
