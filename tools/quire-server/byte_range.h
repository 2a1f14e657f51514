// The Range field of a content download: one range of the "bytes" unit, "bytes=A-B", "bytes=A-"
// or "bytes=-N". Several ranges, other units and anything malformed are not served as a range (the
// whole content is answered), as HTTP allows a server to do.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace quire_server {

class ByteRange {
 public:
  // What a parsed range selects from content of a given length.
  struct Selection {
    // False when no byte of the content is selected (the answer is 416).
    bool satisfiable = false;
    std::uint64_t first = 0;
    std::uint64_t length = 0;
  };

  // Parses a field value. Empty for anything that is not exactly one well-formed byte range:
  // other units, lists, signs, blanks inside numbers, or A > B. Numbers beyond 64 bits
  // saturate (a position beyond any content).
  static std::optional<ByteRange> Parse(std::string_view value);

  // The bytes selected from content of `size` bytes: a range that starts at or beyond the end
  // (or a suffix of zero bytes, or any suffix of empty content) selects nothing; an end beyond
  // the content is cut to its last byte; a suffix longer than the content selects all of it.
  Selection Select(std::uint64_t size) const;

 private:
  bool suffix_ = false;
  std::uint64_t first_ = 0;
  std::optional<std::uint64_t> last_;
  std::uint64_t suffix_length_ = 0;
};

}  // namespace quire_server
