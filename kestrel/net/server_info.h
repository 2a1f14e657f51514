// The server that a request goes to, derived from its URL.
#pragma once

#include <QString>

#include "kestrel/base/kestrel_export.h"

namespace kestrel {
namespace net {

class KESTREL_EXPORT ServerInfo {
 public:
  // Parses `url`. A URL that does not parse, lacks a host, or whose scheme is neither http nor
  // https gives an invalid ServerInfo; requests to it fail without being sent.
  explicit ServerInfo(const QString& url);
  ~ServerInfo();

  bool valid() const { return valid_; }
  const QString& scheme() const { return scheme_; }  // "http" or "https", lower case
  const QString& host() const { return host_; }      // lower case
  int port() const { return port_; }                 // explicit, or 80 / 443
  bool secure() const { return scheme_ == QLatin1String("https"); }

 private:
  QString scheme_;
  QString host_;
  int port_ = 0;
  bool valid_ = false;
};

}  // namespace net
}  // namespace kestrel
