#include "tools/quire-server/request_head.h"

#include <strings.h>

namespace quire_server {
namespace {

bool SameName(const std::string& a, std::string_view b) {
  return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace

const std::string* RequestHead::Find(std::string_view name) const {
  for (const auto& field : fields) {
    if (SameName(field.first, name)) return &field.second;
  }
  return nullptr;
}

std::size_t RequestHead::Count(std::string_view name) const {
  std::size_t count = 0;
  for (const auto& field : fields) {
    if (SameName(field.first, name)) ++count;
  }
  return count;
}

}  // namespace quire_server
