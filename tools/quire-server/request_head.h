// What the protocol logic sees of a request before its body: the request line and the header
// fields, independent of the HTTP library.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quire_server {

struct RequestHead {
  std::string method;
  std::string target;
  std::vector<std::pair<std::string, std::string>> fields;
  // The declared body length; empty for a chunked body.
  std::optional<std::uint64_t> content_length;
  bool chunked = false;

  // The value of the first field of that name (compared without regard to case), or null.
  const std::string* Find(std::string_view name) const;
  // How many fields of that name there are.
  std::size_t Count(std::string_view name) const;
  // Whether the request carries a body at all.
  bool has_body() const { return chunked || (content_length && *content_length > 0); }
};

}  // namespace quire_server
