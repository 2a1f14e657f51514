#include "kestrel/net/server_info.h"

#include <QUrl>

namespace kestrel {
namespace net {

ServerInfo::ServerInfo(const QString& url) {
  const QUrl parsed(url, QUrl::StrictMode);
  if (!parsed.isValid()) return;
  scheme_ = parsed.scheme().toLower();
  host_ = parsed.host().toLower();
  if (scheme_ != QLatin1String("http") && scheme_ != QLatin1String("https")) return;
  if (host_.isEmpty()) return;
  port_ = parsed.port(scheme_ == QLatin1String("https") ? 443 : 80);
  valid_ = port_ > 0 && port_ < 65536;
}

ServerInfo::~ServerInfo() = default;

}  // namespace net
}  // namespace kestrel
