/// @file
/// What a host program tells the built-in HTTPS transport before it creates services. Nothing here
/// is read from files named by the environment or from environment variables: the host decides.
#pragma once

#include <QString>
#include <vector>

#include "kestrel/base/kestrel_export.h"

namespace kestrel {
namespace net {

/// What a host program tells the built-in HTTPS transport (CurlTransport::Configure()) before it
/// creates services. A plain value.
struct KESTREL_EXPORT CurlTransportConfig {
  /// Connections for `host` (any port) go to `address`:`port` instead of wherever the name
  /// resolves; the request itself, its Host line and the TLS name check still use `host`. This is
  /// how a host sends the library's fixed endpoints to a local emulator.
  struct HostMapping {
    /// The host name as the request's URL gives it.
    QString host;
    /// Where to connect instead: a name, an IPv4 address or an IPv6 address (without brackets).
    QString address;
    /// The port to connect to, 1 to 65535.
    int port = 0;
  };

  /// The proxy that requests go through. The transport never takes one from the environment
  /// (http_proxy and the like are ignored): a host that wants those variables reads them itself.
  struct Proxy {
    /// The proxy for http:// requests, as "http://host:port" (the scheme may be http, https,
    /// socks4, socks4a, socks5 or socks5h; without one, http is meant). Empty: none.
    QString http_proxy;
    /// The proxy for https:// requests, reached the same way; the request goes through a tunnel
    /// (CONNECT), so the server's certificate is still checked against the request's host name.
    /// Empty: none.
    QString https_proxy;
    /// The user name sent to the proxy when it asks for credentials (407). Empty: none, unless
    /// the proxy's URL carries "user:password@".
    QString user;
    /// The password that goes with `user`.
    QString password;
    /// Hosts reached directly, without the proxy: a name matches itself and its subdomains
    /// ("example.com" also covers "docs.example.com"; a leading dot is allowed), an address
    /// matches itself, an address with "/bits" matches a network, and "*" matches every host.
    std::vector<QString> no_proxy;
  };

  /// Sets `user_agent` to DefaultUserAgent() and leaves everything else empty or off.
  CurlTransportConfig();

  /// `quire/<version>`, the User-Agent sent unless the host sets another.
  static QString DefaultUserAgent();

  /// PEM files whose certificates are trusted in addition to the system's certificate authorities.
  /// They are read when CurlTransport::Configure() is called.
  std::vector<QString> extra_ca_certificate_files;
  /// Host names whose connections go elsewhere; see HostMapping.
  std::vector<HostMapping> host_mappings;
  /// Sent as the User-Agent line when a request asks for default header lines.
  QString user_agent;
  /// Turns off the verification of the server's certificate chain and host name. Only for local
  /// testing: with it set, anyone on the path can read and change the traffic.
  bool insecure_skip_tls_verification = false;
  /// The proxy; by default none, whatever the environment says.
  Proxy proxy;
};

}  // namespace net
}  // namespace kestrel
