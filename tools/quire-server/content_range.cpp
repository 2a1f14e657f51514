#include "tools/quire-server/content_range.h"

namespace quire_server {
namespace {

// A run of 1 to 19 decimal digits (so that it always fits in 64 bits).
bool ParseNumber(std::string_view text, std::uint64_t* value) {
  if (text.empty() || text.size() > 19) return false;
  std::uint64_t result = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    result = result * 10 + static_cast<std::uint64_t>(c - '0');
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

std::optional<ContentRange> ContentRange::Parse(std::string_view value) {
  value = TrimBlanks(value);
  constexpr std::string_view kUnit = "bytes ";
  if (value.substr(0, kUnit.size()) != kUnit) return std::nullopt;
  value.remove_prefix(kUnit.size());
  std::size_t slash = value.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  std::string_view range = value.substr(0, slash);
  ContentRange result;
  if (!ParseNumber(value.substr(slash + 1), &result.total_)) return std::nullopt;
  if (range == "*") {
    result.status_query_ = true;
    return result;
  }
  std::size_t dash = range.find('-');
  if (dash == std::string_view::npos) return std::nullopt;
  if (!ParseNumber(range.substr(0, dash), &result.first_) ||
      !ParseNumber(range.substr(dash + 1), &result.last_)) {
    return std::nullopt;
  }
  if (result.first_ > result.last_ || result.last_ >= result.total_) return std::nullopt;
  return result;
}

}  // namespace quire_server
