/// @file
/// The server that a request goes to, derived from its URL.
#pragma once

#include <QString>

#include "kestrel/base/kestrel_export.h"

namespace kestrel {
namespace net {

/// The server that a request goes to, derived from its URL. A plain value; not thread-safe.
class KESTREL_EXPORT ServerInfo {
 public:
  /// Parses `url`. A URL that does not parse, lacks a host, or whose scheme is neither http nor
  /// https gives an invalid ServerInfo; requests to it fail without being sent.
  explicit ServerInfo(const QString& url);
  /// Releases the strings.
  ~ServerInfo();

  /// Whether the URL named an http or https server with a host and a port in 1..65535.
  bool valid() const { return valid_; }
  /// "http" or "https", lower case (whatever the URL said when it is not valid()).
  const QString& scheme() const { return scheme_; }
  /// The host name or address, lower case.
  const QString& host() const { return host_; }
  /// The port: explicit in the URL, or 80 for http and 443 for https; 0 when not valid().
  int port() const { return port_; }
  /// Whether the scheme is https.
  bool secure() const { return scheme_ == QLatin1String("https"); }

 private:
  QString scheme_;
  QString host_;
  int port_ = 0;
  bool valid_ = false;
};

}  // namespace net
}  // namespace kestrel
