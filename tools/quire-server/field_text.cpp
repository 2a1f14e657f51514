#include "tools/quire-server/field_text.h"

namespace quire_server {

std::string_view TrimBlanks(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

bool ParseDecimal(std::string_view text, std::uint64_t* value) {
  // 19 digits are always below 2^64, so the sum below cannot wrap.
  return text.size() <= 19 && ParseDecimalSaturating(text, value);
}

bool ParseDecimalSaturating(std::string_view text, std::uint64_t* value) {
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

}  // namespace quire_server
