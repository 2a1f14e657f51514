// Character-level rules of XML 1.0 that the reader checks itself: which characters a document may
// hold, which may appear in names, and the decoding of UTF-16 input.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kestrel {
namespace xml_internal {

// Tab, line feed, carriage return, U+0020 to U+D7FF, U+E000 to U+FFFD and U+10000 to U+10FFFF.
inline bool IsXmlChar(std::uint32_t code) {
  return code >= 0x20 ? (code <= 0xD7FF || (code >= 0xE000 && code <= 0xFFFD) ||
                         (code >= 0x10000 && code <= 0x10FFFF))
                      : (code == 0x9 || code == 0xA || code == 0xD);
}

bool IsNameStartChar(std::uint32_t code);
bool IsNameChar(std::uint32_t code);

// True when the `size` bytes at `name` (valid UTF-8) form an XML name: a name-start character, then
// name characters.
bool IsXmlName(const char* name, std::size_t size);

// Copies `size` bytes from `source` to `target` (which may be the same memory) while checking that
// they are well-formed UTF-8 (no overlong forms, no surrogates, nothing above U+10FFFF) made only
// of characters XML allows. Returns the offset of the first offending byte, or -1 when all is well;
// sets *non_ascii when a byte above 0x7F was seen.
long long CopyCheckedUtf8(const char* source, std::size_t size, char* target, bool* non_ascii);

// Converts UTF-16 (without its byte-order mark) to UTF-8 at `target`, which must have room for
// `size` * 3 / 2 bytes. Returns the number of bytes written, or -1 when the input has an odd length
// or an unpaired surrogate; then *bad_offset is the offset of the offending unit.
long long Utf16ToUtf8(const unsigned char* source, std::size_t size, bool big_endian, char* target,
                      long long* bad_offset);

// True when the zero-terminated `text` equals `lower` (lower-case ASCII) but for the case of its
// ASCII letters.
inline bool EqualsIgnoringCase(const char* text, const char* lower) {
  for (; *lower != '\0'; ++text, ++lower) {
    char c = *text;
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != *lower) return false;
  }
  return *text == '\0';
}

// Appends the UTF-8 form of `code` (a valid code point) at `target`; returns the bytes written.
inline int AppendUtf8(std::uint32_t code, char* target) {
  if (code < 0x80) {
    target[0] = static_cast<char>(code);
    return 1;
  }
  if (code < 0x800) {
    target[0] = static_cast<char>(0xC0 | (code >> 6));
    target[1] = static_cast<char>(0x80 | (code & 0x3F));
    return 2;
  }
  if (code < 0x10000) {
    target[0] = static_cast<char>(0xE0 | (code >> 12));
    target[1] = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
    target[2] = static_cast<char>(0x80 | (code & 0x3F));
    return 3;
  }
  target[0] = static_cast<char>(0xF0 | (code >> 18));
  target[1] = static_cast<char>(0x80 | ((code >> 12) & 0x3F));
  target[2] = static_cast<char>(0x80 | ((code >> 6) & 0x3F));
  target[3] = static_cast<char>(0x80 | (code & 0x3F));
  return 4;
}

}  // namespace xml_internal
}  // namespace kestrel
