// An answer of the protocol logic, independent of the HTTP library: status, header fields and a
// body that is either text in memory or an open file.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/quire-server/unique_fd.h"

namespace quire_server {

struct HttpResponse {
  int status = 200;
  std::vector<std::pair<std::string, std::string>> fields;
  std::string body;
  // When valid, the body is `file_size` bytes read from this file, from `file_offset` on, instead
  // of `body`.
  UniqueFd file;
  std::uint64_t file_offset = 0;
  std::uint64_t file_size = 0;
  // Close the connection after this answer.
  bool close = false;

  HttpResponse& Set(std::string name, std::string value);
  const std::string* Find(std::string_view name) const;

  // An answer with an error document (application/xml) naming the problem.
  static HttpResponse Error(int status, std::string_view code, std::string_view message);
};

}  // namespace quire_server
