// A plain HTTP client for tests (libcurl easy interface). It reaches the emulator the way a host
// program does: the library's host names (and other.quire.example, a name the emulator's
// certificate does not cover) are mapped to the emulator's address, and TLS is
// verified against the emulator's certificate. One client keeps its connection alive between
// requests; use one client per thread.
#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace quire_test {

struct HttpResult {
  // The transport's outcome; the fields below are meaningful when it is CURLE_OK.
  CURLcode error = CURLE_OK;
  long status = 0;
  // Header fields of the final answer in order, names as sent.
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  bool ok() const { return error == CURLE_OK; }
  // The value of the first header of that name (any case), or "" (see Has()).
  std::string Header(const std::string& name) const;
  bool Has(const std::string& name) const;
};

class HttpClient {
 public:
  // `ca_file` is the certificate to trust (empty for plain HTTP).
  HttpClient(int port, std::string ca_file);
  ~HttpClient();
  HttpClient(const HttpClient&) = delete;
  HttpClient& operator=(const HttpClient&) = delete;

  // Points the host mapping at another port (after a restart).
  void SetPort(int port) { port_ = port; }
  // Per-request time limit (default 30 s).
  void SetTimeoutMs(long ms) { timeout_ms_ = ms; }

  // Sends a request. `headers` are whole lines ("Name: value"); a body is sent when `body` is
  // non-null (also when empty). The URL is sent as it stands (no dot-segment removal).
  HttpResult Send(const std::string& method, const std::string& url,
                  const std::vector<std::string>& headers, const std::string* body = nullptr);

 private:
  CURL* curl_;
  int port_;
  std::string ca_file_;
  long timeout_ms_ = 30000;
};

// Lower-case hexadecimal SHA-256 of the bytes.
std::string Sha256Hex(const std::string& bytes);

}  // namespace quire_test
