// Makes the emulator's TLS certificate: self-signed, valid for the library's host names and the
// loopback names, with a P-256 key. Written as PEM files; the key is readable by the owner only.
#pragma once

#include <string>
#include <vector>

namespace quire_server {

class CertificateMaker {
 public:
  // Writes a new certificate and key to the two paths (atomically: each is written to a
  // temporary name, synced and renamed). Throws std::runtime_error on failure.
  static void Make(const std::string& cert_path, const std::string& key_path,
                   const std::vector<std::string>& dns_names,
                   const std::vector<std::string>& ip_addresses);
  // Makes them only when one of the two files is missing. Returns whether it made them.
  static bool Ensure(const std::string& cert_path, const std::string& key_path,
                     const std::vector<std::string>& dns_names,
                     const std::vector<std::string>& ip_addresses);
};

}  // namespace quire_server
