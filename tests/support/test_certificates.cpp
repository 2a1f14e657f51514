#include "tests/support/test_certificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <utility>
#include <vector>

namespace quire_test {
namespace {

bool AddExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  if (extension == nullptr) return false;
  const bool added = X509_add_ext(certificate, extension, -1) == 1;
  X509_EXTENSION_free(extension);
  return added;
}

// A certificate for `key`, signed with `issuer_key` (itself when `issuer` is null).
X509* MakeCertificate(EVP_PKEY* key, const std::string& common_name, X509* issuer,
                      EVP_PKEY* issuer_key, long serial, long not_before, long not_after,
                      const std::vector<std::pair<int, std::string>>& extensions) {
  X509* certificate = X509_new();
  bool ok = X509_set_version(certificate, 2) == 1 &&
            ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial) == 1 &&
            X509_gmtime_adj(X509_getm_notBefore(certificate), not_before) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(certificate), not_after) != nullptr &&
            X509_set_pubkey(certificate, key) == 1;
  X509_NAME* name = X509_get_subject_name(certificate);
  ok = ok && X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                        reinterpret_cast<const unsigned char*>(common_name.c_str()),
                                        -1, -1, 0) == 1;
  X509* signer = issuer != nullptr ? issuer : certificate;
  ok = ok && X509_set_issuer_name(certificate, X509_get_subject_name(signer)) == 1;
  for (const auto& extension : extensions) {
    ok = ok && AddExtension(certificate, signer, extension.first, extension.second.c_str());
  }
  ok = ok && X509_sign(certificate, issuer_key, EVP_sha256()) > 0;
  if (!ok) {
    X509_free(certificate);
    return nullptr;
  }
  return certificate;
}

bool WriteCertificate(const std::string& path, X509* certificate) {
  FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) return false;
  const bool ok = PEM_write_X509(file, certificate) == 1;
  return std::fclose(file) == 0 && ok;
}

bool WriteKey(const std::string& path, EVP_PKEY* key) {
  FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) return false;
  const bool ok = PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
  return std::fclose(file) == 0 && ok;
}

}  // namespace

TestCertificates::TestCertificates() {
  std::string pattern = (std::filesystem::temp_directory_path() / "quire-tls-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) return;
  folder_ = pattern;
  authority_file_ = folder_ + "/authority.pem";
  EVP_PKEY* key = EVP_EC_gen("P-256");
  if (key == nullptr) return;
  X509* authority =
      MakeCertificate(key, "quire test authority", nullptr, key, 1, -3600, 30L * 24 * 3600,
                      {{NID_basic_constraints, "critical,CA:TRUE"},
                       {NID_key_usage, "critical,keyCertSign,cRLSign"},
                       {NID_subject_key_identifier, "hash"}});
  authority_key_ = key;
  authority_ = authority;
  ok_ = authority != nullptr && WriteCertificate(authority_file_, authority);
}

TestCertificates::~TestCertificates() {
  X509_free(static_cast<X509*>(authority_));
  EVP_PKEY_free(static_cast<EVP_PKEY*>(authority_key_));
  std::error_code ignored;
  if (!folder_.empty()) std::filesystem::remove_all(folder_, ignored);
}

TestCertificates::Server TestCertificates::Make(const std::string& name,
                                                const std::string& alt_names, long not_before,
                                                long not_after, bool self_signed) {
  Server server;
  if (!ok_) return server;
  static long serial = 100;
  EVP_PKEY* key = EVP_EC_gen("P-256");
  if (key == nullptr) return server;
  X509* issuer = self_signed ? nullptr : static_cast<X509*>(authority_);
  EVP_PKEY* issuer_key = self_signed ? key : static_cast<EVP_PKEY*>(authority_key_);
  std::vector<std::pair<int, std::string>> extensions = {
      {NID_basic_constraints, "critical,CA:FALSE"},
      {NID_key_usage, "critical,digitalSignature"},
      {NID_ext_key_usage, "serverAuth"},
      {NID_subject_key_identifier, "hash"},
      {NID_subject_alt_name, alt_names}};
  if (!self_signed) extensions.push_back({NID_authority_key_identifier, "keyid"});
  X509* certificate =
      MakeCertificate(key, name, issuer, issuer_key, ++serial, not_before, not_after, extensions);
  const std::string certificate_file = folder_ + "/" + name + ".pem";
  const std::string key_file = folder_ + "/" + name + "-key.pem";
  if (certificate != nullptr && WriteCertificate(certificate_file, certificate) &&
      WriteKey(key_file, key)) {
    server.certificate_file = certificate_file;
    server.key_file = key_file;
  }
  X509_free(certificate);
  EVP_PKEY_free(key);
  return server;
}

TestCertificates::Server TestCertificates::MakeLocal() {
  return Make("server", "DNS:localhost,DNS:docs.quire.example,DNS:api.quire.example,IP:127.0.0.1",
              -3600, 30L * 24 * 3600, false);
}

}  // namespace quire_test
