#include "tools/quire-server/random_id.h"

#include <openssl/rand.h>

#include <stdexcept>
#include <vector>

namespace quire_server {

std::string RandomId::Hex(std::size_t bytes) {
  std::vector<unsigned char> raw(bytes);
  if (RAND_bytes(raw.data(), static_cast<int>(raw.size())) != 1) {
    throw std::runtime_error("random generator failed");
  }
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes * 2);
  for (unsigned char c : raw) {
    text.push_back(kDigits[c >> 4]);
    text.push_back(kDigits[c & 15]);
  }
  return text;
}

}  // namespace quire_server
