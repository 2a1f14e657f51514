#include "tools/quire-server/content_range.h"

#include "tools/quire-server/field_text.h"

namespace quire_server {

std::optional<ContentRange> ContentRange::Parse(std::string_view value) {
  value = TrimBlanks(value);
  constexpr std::string_view kUnit = "bytes ";
  if (value.substr(0, kUnit.size()) != kUnit) return std::nullopt;
  value.remove_prefix(kUnit.size());
  std::size_t slash = value.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  std::string_view range = value.substr(0, slash);
  ContentRange result;
  if (!ParseDecimal(value.substr(slash + 1), &result.total_)) return std::nullopt;
  if (range == "*") {
    result.status_query_ = true;
    return result;
  }
  std::size_t dash = range.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  if (!ParseDecimal(range.substr(0, dash), &result.first_) ||
      !ParseDecimal(range.substr(dash + 1), &result.last_)) {
    return std::nullopt;
  }
  if (result.first_ > result.last_ || result.last_ >= result.total_) return std::nullopt;
  return result;
}

}  // namespace quire_server
