#include "tools/quire-server/byte_range.h"

#include <algorithm>

namespace quire_server {
namespace {

// A run of decimal digits. A value beyond 64 bits is still a position, beyond any content: it
// saturates.
bool ParseNumber(std::string_view text, std::uint64_t* value) {
  if (text.empty()) return false;
  constexpr std::uint64_t kMax = ~std::uint64_t{0};
  std::uint64_t result = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    const auto digit = static_cast<std::uint64_t>(c - '0');
    result = result > (kMax - digit) / 10 ? kMax : result * 10 + digit;
  }
  *value = result;
  return true;
}

std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

}  // namespace

std::optional<ByteRange> ByteRange::Parse(std::string_view value) {
  value = TrimBlanks(value);
  constexpr std::string_view kUnit = "bytes=";
  if (value.size() < kUnit.size()) return std::nullopt;
  for (std::size_t i = 0; i < kUnit.size(); ++i) {
    char c = value[i];
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    if (c != kUnit[i]) return std::nullopt;
  }
  std::string_view spec = TrimBlanks(value.substr(kUnit.size()));
  // A list of ranges is not served as ranges.
  if (spec.find(',') != std::string_view::npos) return std::nullopt;
  std::size_t dash = spec.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  std::string_view first = spec.substr(0, dash);
  std::string_view last = spec.substr(dash + 1);
  ByteRange range;
  if (first.empty()) {
    range.suffix_ = true;
    if (!ParseNumber(last, &range.suffix_length_)) return std::nullopt;
    return range;
  }
  if (!ParseNumber(first, &range.first_)) return std::nullopt;
  if (!last.empty()) {
    std::uint64_t end = 0;
    if (!ParseNumber(last, &end) || end < range.first_) return std::nullopt;
    range.last_ = end;
  }
  return range;
}

ByteRange::Selection ByteRange::Select(std::uint64_t size) const {
  Selection selection;
  if (suffix_) {
    if (suffix_length_ == 0 || size == 0) return selection;
    selection.length = std::min(suffix_length_, size);
    selection.first = size - selection.length;
    selection.satisfiable = true;
    return selection;
  }
  if (first_ >= size) return selection;
  std::uint64_t end = last_ ? std::min(*last_, size - 1) : size - 1;
  selection.first = first_;
  selection.length = end - first_ + 1;
  selection.satisfiable = true;
  return selection;
}

}  // namespace quire_server
