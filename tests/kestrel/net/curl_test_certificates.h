// A certificate authority and a server certificate made for one test run, written as PEM files into
// a fresh temporary folder that is removed again on destruction.
#pragma once

#include <string>

#include "tests/support/test_certificates.h"

namespace curl_test {

class CurlTestCertificates {
 public:
  // Makes the files; `ok()` tells whether that worked. The server certificate names localhost,
  // docs.quire.example, api.quire.example and 127.0.0.1, and is signed by the authority.
  CurlTestCertificates();
  CurlTestCertificates(const CurlTestCertificates&) = delete;
  CurlTestCertificates& operator=(const CurlTestCertificates&) = delete;

  bool ok() const { return certificates_.ok() && !server_.certificate_file.empty(); }
  const std::string& ca_file() const { return certificates_.authority_file(); }
  const std::string& certificate_file() const { return server_.certificate_file; }
  const std::string& key_file() const { return server_.key_file; }

 private:
  quire_test::TestCertificates certificates_;
  quire_test::TestCertificates::Server server_;
};

}  // namespace curl_test
