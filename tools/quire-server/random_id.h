// Unpredictable identifiers from the operating system's cryptographic generator (through OpenSSL).
#pragma once

#include <cstddef>
#include <string>

namespace quire_server {

class RandomId {
 public:
  // Lower-case hexadecimal text of `bytes` random bytes (so 4 * 2 * bytes bits of text, 8 * bytes
  // bits of randomness). Throws std::runtime_error when the generator fails.
  static std::string Hex(std::size_t bytes);
};

}  // namespace quire_server
