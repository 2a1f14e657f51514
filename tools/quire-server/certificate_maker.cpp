#include "tools/quire-server/certificate_maker.h"

#include <fcntl.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "tools/quire-server/data_folder.h"
#include "tools/quire-server/unique_fd.h"

namespace quire_server {
namespace {

constexpr long kValiditySeconds = 10L * 365 * 24 * 3600;

struct KeyFree {
  void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
struct CertFree {
  void operator()(X509* p) const { X509_free(p); }
};
struct BioFree {
  void operator()(BIO* p) const { BIO_free(p); }
};
struct ExtFree {
  void operator()(X509_EXTENSION* p) const { X509_EXTENSION_free(p); }
};

void Check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string("certificate: ") + what + " failed");
}

void AddExtension(X509* cert, int nid, const std::string& value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, cert, cert, nullptr, nullptr, 0);
  std::unique_ptr<X509_EXTENSION, ExtFree> ext(
      X509V3_EXT_conf_nid(nullptr, &ctx, nid, value.c_str()));
  Check(ext != nullptr, "extension");
  Check(X509_add_ext(cert, ext.get(), -1) == 1, "add extension");
}

// Writes `text` to `path` through a temporary file, synced and renamed, with the given mode.
void WriteAtomically(const std::string& path, const std::string& text, mode_t mode) {
  std::string temporary = path + ".new";
  {
    UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    if (!fd.valid()) {
      throw std::runtime_error("cannot write " + temporary + ": " + std::strerror(errno));
    }
    const char* data = text.data();
    std::size_t left = text.size();
    while (left > 0) {
      ssize_t n = ::write(fd.get(), data, left);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) throw std::runtime_error("cannot write " + temporary);
      data += n;
      left -= static_cast<std::size_t>(n);
    }
    if (::fsync(fd.get()) != 0) throw std::runtime_error("cannot sync " + temporary);
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) {
    throw std::runtime_error("cannot rename " + temporary + ": " + std::strerror(errno));
  }
  std::string dir = path.substr(0, path.find_last_of('/'));
  DataFolder::SyncDirectory(dir.empty() ? "." : dir);
}

std::string BioText(BIO* bio) {
  char* data = nullptr;
  long size = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<std::size_t>(size));
}

}  // namespace

void CertificateMaker::Make(const std::string& cert_path, const std::string& key_path,
                            const std::vector<std::string>& dns_names,
                            const std::vector<std::string>& ip_addresses) {
  std::unique_ptr<EVP_PKEY, KeyFree> key(EVP_EC_gen("P-256"));
  Check(key != nullptr, "key generation");

  std::unique_ptr<X509, CertFree> cert(X509_new());
  Check(cert != nullptr, "allocation");
  Check(X509_set_version(cert.get(), 2) == 1, "version");
  unsigned char serial[16];
  Check(RAND_bytes(serial, sizeof(serial)) == 1, "serial");
  serial[0] &= 0x7f;
  BIGNUM* number = BN_bin2bn(serial, sizeof(serial), nullptr);
  Check(number != nullptr && BN_to_ASN1_INTEGER(number, X509_get_serialNumber(cert.get())),
        "serial");
  BN_free(number);
  Check(X509_gmtime_adj(X509_getm_notBefore(cert.get()), -3600) != nullptr, "validity");
  Check(X509_gmtime_adj(X509_getm_notAfter(cert.get()), kValiditySeconds) != nullptr, "validity");
  X509_NAME* name = X509_get_subject_name(cert.get());
  Check(X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("quire-server"), -1, -1,
                                   0) == 1,
        "subject");
  Check(X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(
                                       dns_names.empty() ? "localhost" : dns_names[0].c_str()),
                                   -1, -1, 0) == 1,
        "subject");
  Check(X509_set_issuer_name(cert.get(), name) == 1, "issuer");
  Check(X509_set_pubkey(cert.get(), key.get()) == 1, "public key");

  std::string names;
  for (const std::string& dns : dns_names) names += (names.empty() ? "DNS:" : ",DNS:") + dns;
  for (const std::string& ip : ip_addresses) names += (names.empty() ? "IP:" : ",IP:") + ip;
  AddExtension(cert.get(), NID_subject_alt_name, names);
  AddExtension(cert.get(), NID_basic_constraints, "critical,CA:FALSE");
  AddExtension(cert.get(), NID_key_usage, "critical,digitalSignature");
  AddExtension(cert.get(), NID_ext_key_usage, "serverAuth");
  AddExtension(cert.get(), NID_subject_key_identifier, "hash");
  Check(X509_sign(cert.get(), key.get(), EVP_sha256()) > 0, "signature");

  std::unique_ptr<BIO, BioFree> key_bio(BIO_new(BIO_s_mem()));
  Check(key_bio && PEM_write_bio_PrivateKey(key_bio.get(), key.get(), nullptr, nullptr, 0, nullptr,
                                            nullptr) == 1,
        "key encoding");
  std::unique_ptr<BIO, BioFree> cert_bio(BIO_new(BIO_s_mem()));
  Check(cert_bio && PEM_write_bio_X509(cert_bio.get(), cert.get()) == 1, "certificate encoding");
  WriteAtomically(key_path, BioText(key_bio.get()), 0600);
  WriteAtomically(cert_path, BioText(cert_bio.get()), 0644);
}

bool CertificateMaker::Ensure(const std::string& cert_path, const std::string& key_path,
                              const std::vector<std::string>& dns_names,
                              const std::vector<std::string>& ip_addresses) {
  struct stat info;
  if (::stat(cert_path.c_str(), &info) == 0 && ::stat(key_path.c_str(), &info) == 0) {
    return false;
  }
  Make(cert_path, key_path, dns_names, ip_addresses);
  return true;
}

}  // namespace quire_server
