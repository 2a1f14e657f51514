#include "kestrel/net/internal/curl_settings.h"

#include <arpa/inet.h>

#include <QByteArray>
#include <QFile>
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

namespace kestrel {
namespace net {
namespace internal {
namespace {

bool ReadWholeFile(const QString& path, std::string* out) {
  QFile file(path);
  if (!file.open(QIODevice::ReadOnly)) return false;
  const QByteArray bytes = file.readAll();
  out->assign(bytes.constData(), static_cast<std::size_t>(bytes.size()));
  return true;
}

// Checks a proxy address and writes it as libcurl should take it (with its scheme). An empty
// address is valid and stays empty.
bool NormaliseProxy(const QString& address, std::string* out) {
  out->clear();
  const QString trimmed = address.trimmed();
  if (trimmed.isEmpty()) return true;
  CURLU* url = curl_url();
  if (url == nullptr) return false;
  bool valid = curl_url_set(url, CURLUPART_URL, trimmed.toUtf8().constData(),
                            CURLU_DEFAULT_SCHEME | CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
  char* scheme = nullptr;
  char* host = nullptr;
  char* path = nullptr;
  char* full = nullptr;
  valid = valid && curl_url_get(url, CURLUPART_SCHEME, &scheme, 0) == CURLUE_OK &&
          curl_url_get(url, CURLUPART_HOST, &host, 0) == CURLUE_OK && host[0] != '\0' &&
          curl_url_get(url, CURLUPART_PATH, &path, 0) == CURLUE_OK &&
          (path[0] == '\0' || std::strcmp(path, "/") == 0);
  if (valid) {
    static const char* const kSchemes[] = {"http",    "https",  "socks4",
                                           "socks4a", "socks5", "socks5h"};
    valid = false;
    for (const char* known : kSchemes) valid = valid || std::strcmp(scheme, known) == 0;
  }
  if (valid) valid = curl_url_get(url, CURLUPART_URL, &full, 0) == CURLUE_OK;
  if (valid) out->assign(full);
  curl_free(scheme);
  curl_free(host);
  curl_free(path);
  curl_free(full);
  curl_url_cleanup(url);
  return valid;
}

// Parses an IPv4 or IPv6 address (brackets allowed) into 16 bytes; `bits` is 32 or 128.
bool ParseAddress(std::string text, unsigned char (&bytes)[16], int* bits) {
  if (text.size() >= 2 && text.front() == '[' && text.back() == ']') {
    text = text.substr(1, text.size() - 2);
  }
  std::memset(bytes, 0, sizeof(bytes));
  if (::inet_pton(AF_INET, text.c_str(), bytes) == 1) {
    *bits = 32;
    return true;
  }
  if (::inet_pton(AF_INET6, text.c_str(), bytes) == 1) {
    *bits = 128;
    return true;
  }
  return false;
}

// Whether `host` (lower case, as the URL gives it) is one that `entry` of the no-proxy list names:
// "*" names every host, an address (with "/bits", a network) names the addresses in it, and a
// name names itself and every name below it.
bool NoProxyMatches(const std::string& host, const std::string& entry) {
  if (entry == "*") return true;
  unsigned char host_bytes[16];
  int host_bits = 0;
  const bool host_is_address = ParseAddress(host, host_bytes, &host_bits);
  const std::size_t slash = entry.find('/');
  unsigned char entry_bytes[16];
  int entry_bits = 0;
  if (ParseAddress(entry.substr(0, slash), entry_bytes, &entry_bits)) {
    if (!host_is_address || host_bits != entry_bits) return false;
    int prefix = entry_bits;
    if (slash != std::string::npos) {
      prefix = std::atoi(entry.c_str() + slash + 1);
      if (prefix < 0 || prefix > entry_bits) return false;
    }
    for (int bit = 0; bit < prefix; ++bit) {
      const unsigned char mask = static_cast<unsigned char>(0x80 >> (bit % 8));
      if ((host_bytes[bit / 8] & mask) != (entry_bytes[bit / 8] & mask)) return false;
    }
    return true;
  }
  if (host_is_address || slash != std::string::npos) return false;
  if (host == entry) return true;
  return host.size() > entry.size() &&
         host.compare(host.size() - entry.size(), entry.size(), entry) == 0 &&
         host[host.size() - entry.size() - 1] == '.';
}

// Whether a no-proxy entry is one libcurl understands: a name, an address (IPv6 without brackets
// or with), optionally with "/bits", or "*".
bool ValidNoProxyEntry(const QString& entry) {
  if (entry.isEmpty()) return false;
  for (const QChar c : entry) {
    const ushort u = c.unicode();
    const bool ok = (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || (u >= '0' && u <= '9') ||
                    u == '.' || u == '-' || u == '_' || u == ':' || u == '/' || u == '*' ||
                    u == '[' || u == ']';
    if (!ok) return false;
  }
  return true;
}

}  // namespace

bool AppendCurlLine(const char* line, curl_slist** list) {
  curl_slist* grown = curl_slist_append(*list, line);
  if (grown == nullptr) return false;
  *list = grown;
  return true;
}

bool CurlSettings::Build(const CurlTransportConfig& config) {
  for (const CurlTransportConfig::HostMapping& mapping : config.host_mappings) {
    if (mapping.host.isEmpty() || mapping.address.isEmpty() || mapping.port < 1 ||
        mapping.port > 65535) {
      return false;
    }
    const bool ipv6 = mapping.address.contains(QLatin1Char(':'));
    const QString entry =
        mapping.host + QLatin1String("::") +
        (ipv6 ? QLatin1Char('[') + mapping.address + QLatin1Char(']') : mapping.address) +
        QLatin1Char(':') + QString::number(mapping.port);
    if (!AppendCurlLine(entry.toUtf8().constData(), &connect_to)) return false;
  }
  if (!config.extra_ca_certificate_files.empty()) {
    // libcurl then takes the authorities from memory instead of its default bundle file, but keeps
    // looking into its default folder of hashed certificates. Without such a folder the bundle is
    // read here, so that the system's authorities stay trusted.
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    if (info->capath == nullptr && info->cainfo != nullptr) {
      ReadWholeFile(QString::fromLocal8Bit(info->cainfo), &extra_ca_pem);
      extra_ca_pem += '\n';
    }
  }
  for (const QString& path : config.extra_ca_certificate_files) {
    std::string pem;
    if (!ReadWholeFile(path, &pem) ||
        pem.find("-----BEGIN CERTIFICATE-----") == std::string::npos) {
      return false;
    }
    extra_ca_pem += pem;
    extra_ca_pem += '\n';
  }
  user_agent = config.user_agent.toStdString();
  insecure = config.insecure_skip_tls_verification;
  const CurlTransportConfig::Proxy& proxy = config.proxy;
  if (!NormaliseProxy(proxy.http_proxy, &http_proxy) ||
      !NormaliseProxy(proxy.https_proxy, &https_proxy)) {
    return false;
  }
  if (!proxy.password.isEmpty() && proxy.user.isEmpty()) return false;
  proxy_user = proxy.user.toStdString();
  proxy_password = proxy.password.toStdString();
  for (const QString& entry : proxy.no_proxy) {
    QString trimmed = entry.trimmed().toLower();
    if (!ValidNoProxyEntry(trimmed)) return false;
    if (trimmed.startsWith(QLatin1Char('.'))) trimmed.remove(0, 1);
    if (trimmed.isEmpty()) return false;
    no_proxy.push_back(trimmed.toStdString());
  }
  return true;
}

bool CurlSettings::Proxied(const char* host, bool secure) const {
  if ((secure ? https_proxy : http_proxy).empty()) return false;
  std::string name(host);
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  for (const std::string& entry : no_proxy) {
    if (NoProxyMatches(name, entry)) return false;
  }
  return true;
}

void CurlSettings::SetAuthorities(CURL* easy, CURLoption option, unsigned int flags) const {
  if (extra_ca_pem.empty()) return;
  curl_blob blob{};
  blob.data = const_cast<char*>(extra_ca_pem.data());
  blob.len = extra_ca_pem.size();
  blob.flags = flags;
  curl_easy_setopt(easy, option, &blob);
}

void CurlSettings::Apply(CURL* easy, bool secure, bool proxied, bool send_user_agent) const {
  // The proxy for the request's scheme; an empty one also turns off the proxy variables of the
  // environment, which the transport never reads.
  const std::string& proxy = secure ? https_proxy : http_proxy;
  curl_easy_setopt(easy, CURLOPT_PROXY, proxied ? proxy.c_str() : "");
  const long verify_peer = insecure ? 0L : 1L;
  const long verify_host = insecure ? 0L : 2L;
  if (proxied) {
    // The proxy's answer to CONNECT is not the server's: it stays out of the response headers.
    curl_easy_setopt(easy, CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    if (!proxy_user.empty()) {
      curl_easy_setopt(easy, CURLOPT_PROXYUSERNAME, proxy_user.c_str());
      curl_easy_setopt(easy, CURLOPT_PROXYPASSWORD, proxy_password.c_str());
      curl_easy_setopt(easy, CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_ANY));
    }
    // An https proxy's own certificate is checked like the server's.
    curl_easy_setopt(easy, CURLOPT_PROXY_SSL_VERIFYPEER, verify_peer);
    curl_easy_setopt(easy, CURLOPT_PROXY_SSL_VERIFYHOST, verify_host);
    SetAuthorities(easy, CURLOPT_PROXY_CAINFO_BLOB, CURL_BLOB_NOCOPY);
  }
  if (send_user_agent && !user_agent.empty()) {
    curl_easy_setopt(easy, CURLOPT_USERAGENT, user_agent.c_str());
  }

  // TLS.
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, verify_peer);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, verify_host);
  SetAuthorities(easy, CURLOPT_CAINFO_BLOB, CURL_BLOB_COPY);
  if (connect_to != nullptr) curl_easy_setopt(easy, CURLOPT_CONNECT_TO, connect_to);
}

}  // namespace internal
}  // namespace net
}  // namespace kestrel
