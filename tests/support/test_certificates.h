// Certificates for one test run, written as PEM files into a temporary folder that is removed on
// destruction: an authority, and server certificates signed by it (or by themselves) for chosen
// names and validity periods.
#pragma once

#include <string>

namespace quire_test {

class TestCertificates {
 public:
  struct Server {
    std::string certificate_file;  // empty when it could not be made
    std::string key_file;
  };

  TestCertificates();
  ~TestCertificates();
  TestCertificates(const TestCertificates&) = delete;
  TestCertificates& operator=(const TestCertificates&) = delete;

  bool ok() const { return ok_; }
  const std::string& authority_file() const { return authority_file_; }

  // A server certificate named `name` (files <name>.pem and <name>-key.pem) for `alt_names` (the
  // subjectAltName text, e.g. "DNS:docs.quire.example,IP:127.0.0.1"), valid from `not_before` to
  // `not_after` seconds from now, signed by the authority or, when `self_signed`, by itself.
  Server Make(const std::string& name, const std::string& alt_names, long not_before,
              long not_after, bool self_signed);
  // The usual server certificate of a local test server: named "server", for localhost,
  // docs.quire.example, api.quire.example and 127.0.0.1, valid from an hour ago for 30 days,
  // signed by the authority.
  Server MakeLocal();

 private:
  bool ok_ = false;
  std::string folder_;
  std::string authority_file_;
  void* authority_ = nullptr;      // X509*
  void* authority_key_ = nullptr;  // EVP_PKEY*
};

}  // namespace quire_test
