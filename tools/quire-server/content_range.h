// The Content-Range of a chunk sent to an upload session: "bytes A-B/T" (bytes A to B inclusive of
// T) or "bytes */T" (no bytes; asks where the session stands).
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace quire_server {

class ContentRange {
 public:
  // Parses a field value. Empty for anything malformed: other units, missing parts, signs,
  // blanks inside numbers, numbers beyond 64 bits, A > B, or B >= T.
  static std::optional<ContentRange> Parse(std::string_view value);

  bool status_query() const { return status_query_; }
  std::uint64_t first() const { return first_; }
  std::uint64_t last() const { return last_; }
  std::uint64_t total() const { return total_; }
  std::uint64_t length() const { return status_query_ ? 0 : last_ - first_ + 1; }

 private:
  bool status_query_ = false;
  std::uint64_t first_ = 0;
  std::uint64_t last_ = 0;
  std::uint64_t total_ = 0;
};

}  // namespace quire_server
