// A certificate authority and a server certificate made for one test run, written as PEM files into
// a fresh temporary folder that is removed again on destruction.
#pragma once

#include <string>

namespace curl_test {

class CurlTestCertificates {
 public:
  // Makes the files; `ok()` tells whether that worked. The server certificate names localhost,
  // docs.quire.example, api.quire.example and 127.0.0.1, and is signed by the authority.
  CurlTestCertificates();
  ~CurlTestCertificates();
  CurlTestCertificates(const CurlTestCertificates&) = delete;
  CurlTestCertificates& operator=(const CurlTestCertificates&) = delete;

  bool ok() const { return ok_; }
  const std::string& ca_file() const { return ca_file_; }
  const std::string& certificate_file() const { return certificate_file_; }
  const std::string& key_file() const { return key_file_; }

 private:
  bool ok_ = false;
  std::string folder_;
  std::string ca_file_;
  std::string certificate_file_;
  std::string key_file_;
};

}  // namespace curl_test
