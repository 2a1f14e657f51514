// What the protocol logic needs to know of the configuration.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quire_server {

struct ServiceOptions {
  // The one account's e-mail address.
  std::string account;
  // Bearer tokens that authorise requests.
  std::vector<std::string> tokens;
  // Largest content (single request or announced upload length) accepted.
  std::uint64_t max_upload_bytes = 0;
};

}  // namespace quire_server
