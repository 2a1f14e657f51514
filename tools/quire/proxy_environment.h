// The proxy the command uses: --proxy when given, else the variables that curl reads
// (https_proxy or HTTPS_PROXY for https, http_proxy for http, no_proxy or NO_PROXY for the hosts
// reached directly). The library itself never reads them; the command hands them to its transport.
#pragma once

#include <QString>
#include <functional>
#include <string>

namespace quire_cli {

struct ProxyEnvironment {
  // "http://[user:password@]host:port" (or https, socks5...), empty for none.
  QString https_proxy;
  QString http_proxy;
  // Comma-separated hosts, domains, addresses or networks; "*" for all.
  QString no_proxy;
  // Where each came from ("--proxy", "https_proxy", "NO_PROXY"...), for messages.
  std::string https_origin;
  std::string http_origin;
  std::string no_proxy_origin;

  // Reads the variables through `variable` (null for unset), as curl does: the lower-case name
  // first, and for http only the lower-case one (HTTP_PROXY can be set by a web server's request
  // in CGI programs).
  static ProxyEnvironment Read(const std::function<const char*(const char*)>& variable);
  // Read() of the process's environment.
  static ProxyEnvironment FromProcess();

  // What --proxy URL does: that proxy for every scheme, whatever the variables say (an empty URL
  // turns the proxy off); no_proxy still applies, as with curl.
  void Override(const QString& url);

  // Throws a usage failure when a proxy address is not a proxy URL the command can use, or an
  // entry of no_proxy is not a host, domain, address or network.
  void Check() const;
};

}  // namespace quire_cli
