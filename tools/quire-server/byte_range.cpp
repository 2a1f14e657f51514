#include "tools/quire-server/byte_range.h"

#include <algorithm>

#include "tools/quire-server/field_text.h"

namespace quire_server {

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
    if (!ParseDecimalSaturating(last, &range.suffix_length_)) return std::nullopt;
    return range;
  }
  if (!ParseDecimalSaturating(first, &range.first_)) return std::nullopt;
  if (!last.empty()) {
    std::uint64_t end = 0;
    if (!ParseDecimalSaturating(last, &end) || end < range.first_) return std::nullopt;
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
