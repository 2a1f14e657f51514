#include "tests/kestrel/net/curl_test_certificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace curl_test {
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

X509* MakeCertificate(EVP_PKEY* key, const char* common_name, X509* issuer, EVP_PKEY* issuer_key,
                      long serial, const std::vector<std::pair<int, const char*>>& extensions) {
  X509* certificate = X509_new();
  bool ok = X509_set_version(certificate, 2) == 1 &&
            ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial) == 1 &&
            X509_gmtime_adj(X509_getm_notBefore(certificate), -3600) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(certificate), 7 * 24 * 3600) != nullptr &&
            X509_set_pubkey(certificate, key) == 1;
  X509_NAME* name = X509_get_subject_name(certificate);
  ok = ok && X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                        reinterpret_cast<const unsigned char*>(common_name), -1, -1,
                                        0) == 1;
  X509* signer = issuer != nullptr ? issuer : certificate;
  ok = ok && X509_set_issuer_name(certificate, X509_get_subject_name(signer)) == 1;
  for (const auto& extension : extensions) {
    ok = ok && AddExtension(certificate, signer, extension.first, extension.second);
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

CurlTestCertificates::CurlTestCertificates() {
  char folder[] = "/tmp/quire-curl-test-XXXXXX";
  if (mkdtemp(folder) == nullptr) return;
  folder_ = folder;
  ca_file_ = folder_ + "/ca.pem";
  certificate_file_ = folder_ + "/server.pem";
  key_file_ = folder_ + "/server-key.pem";

  EVP_PKEY* ca_key = EVP_EC_gen("P-256");
  EVP_PKEY* server_key = EVP_EC_gen("P-256");
  X509* ca = nullptr;
  X509* server = nullptr;
  if (ca_key != nullptr && server_key != nullptr) {
    ca = MakeCertificate(ca_key, "quire test authority", nullptr, ca_key, 1,
                         {{NID_basic_constraints, "critical,CA:TRUE"},
                          {NID_key_usage, "critical,keyCertSign,cRLSign"},
                          {NID_subject_key_identifier, "hash"}});
  }
  if (ca != nullptr) {
    server = MakeCertificate(
        server_key, "localhost", ca, ca_key, 2,
        {{NID_basic_constraints, "critical,CA:FALSE"},
         {NID_key_usage, "critical,digitalSignature"},
         {NID_ext_key_usage, "serverAuth"},
         {NID_subject_key_identifier, "hash"},
         {NID_authority_key_identifier, "keyid"},
         {NID_subject_alt_name,
          "DNS:localhost,DNS:docs.quire.example,DNS:api.quire.example,IP:127.0.0.1"}});
  }
  ok_ = server != nullptr && WriteCertificate(ca_file_, ca) &&
        WriteCertificate(certificate_file_, server) && WriteKey(key_file_, server_key);
  X509_free(server);
  X509_free(ca);
  EVP_PKEY_free(server_key);
  EVP_PKEY_free(ca_key);
}

CurlTestCertificates::~CurlTestCertificates() {
  if (folder_.empty()) return;
  for (const std::string* file : {&ca_file_, &certificate_file_, &key_file_}) {
    std::remove(file->c_str());
  }
  rmdir(folder_.c_str());
}

}  // namespace curl_test
