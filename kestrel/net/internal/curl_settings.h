/// @file
/// A CurlTransportConfig in the form libcurl takes it, and how it applies to one transfer.
#pragma once

#include <curl/curl.h>

#include <QString>
#include <string>
#include <vector>

#include "kestrel/net/curl_transport_config.h"

namespace kestrel {
namespace net {
namespace internal {

/// The parts of a CurlTransportConfig in the form libcurl takes them. Immutable once built; every
/// transfer keeps the one it started with.
struct CurlSettings {
  CurlSettings() = default;
  CurlSettings(const CurlSettings&) = delete;
  CurlSettings& operator=(const CurlSettings&) = delete;
  ~CurlSettings() { curl_slist_free_all(connect_to); }

  /// Checks `config` and builds the settings from it into `*this` (freshly constructed). Returns
  /// false for a configuration that CurlTransport::Configure() refuses.
  bool Build(const CurlTransportConfig& config);

  /// Whether a request for `host` (as the URL gives it) over https (`secure`) or http goes through
  /// a proxy: one is set for the scheme and no entry of the no-proxy list names the host.
  bool Proxied(const char* host, bool secure) const;

  /// Sets the options of `easy` that come from the settings: the proxy (`proxied`: the request
  /// goes through it), TLS verification and authorities, host mappings and the User-Agent line
  /// (`send_user_agent`).
  void Apply(CURL* easy, bool secure, bool proxied, bool send_user_agent) const;
  /// Hands the extra authorities, if any, to `option` of `easy` (a CURLOPT_..._CAINFO_BLOB) with
  /// the blob `flags` (CURL_BLOB_COPY or CURL_BLOB_NOCOPY).
  void SetAuthorities(CURL* easy, CURLoption option, unsigned int flags) const;

  /// "host::address:port" lines.
  curl_slist* connect_to = nullptr;
  /// Empty: libcurl's default authorities only.
  std::string extra_ca_pem;
  /// The User-Agent line's value.
  std::string user_agent;
  /// No TLS verification of peers and proxies.
  bool insecure = false;
  /// The proxy for http requests; empty: none.
  std::string http_proxy;
  /// The proxy for https requests; empty: none.
  std::string https_proxy;
  /// The proxy's user; empty: none.
  std::string proxy_user;
  /// The proxy user's password.
  std::string proxy_password;
  /// Lower case, without a leading dot.
  std::vector<std::string> no_proxy;
};

/// Appends a copy of `line` to `*list`; false when memory ran out (`*list` unchanged).
bool AppendCurlLine(const char* line, curl_slist** list);

}  // namespace internal
}  // namespace net
}  // namespace kestrel
