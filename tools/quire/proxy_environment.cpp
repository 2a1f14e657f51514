#include "tools/quire/proxy_environment.h"

#include <QStringList>
#include <QUrl>
#include <cstdlib>

#include "tools/quire/cli_failure.h"

namespace quire_cli {
namespace {

QString Value(const std::function<const char*(const char*)>& variable, const char* lower,
              const char* upper, std::string* origin) {
  const char* value = variable(lower);
  *origin = lower;
  if ((value == nullptr || *value == '\0') && upper != nullptr) {
    value = variable(upper);
    *origin = upper;
  }
  return value != nullptr ? QString::fromLocal8Bit(value).trimmed() : QString();
}

void CheckOne(const QString& address, const std::string& origin) {
  if (address.isEmpty()) return;
  // Like curl, an address without a scheme means an http proxy.
  const QUrl url =
      QUrl(address.contains(QLatin1String("://")) ? address : QStringLiteral("http://") + address,
           QUrl::StrictMode);
  static const QStringList kSchemes = {QStringLiteral("http"),   QStringLiteral("https"),
                                       QStringLiteral("socks4"), QStringLiteral("socks4a"),
                                       QStringLiteral("socks5"), QStringLiteral("socks5h")};
  if (!url.isValid() || url.host().isEmpty() || !kSchemes.contains(url.scheme()) ||
      (!url.path().isEmpty() && url.path() != QLatin1String("/"))) {
    throw CliFailure(ExitCode::kUsage,
                     std::string("the proxy address ") + url.toDisplayString().toStdString() +
                         " given with " + origin +
                         " is not a proxy URL; give one like http://proxy.example:3128");
  }
}

}  // namespace

ProxyEnvironment ProxyEnvironment::Read(const std::function<const char*(const char*)>& variable) {
  ProxyEnvironment proxy;
  proxy.https_proxy = Value(variable, "https_proxy", "HTTPS_PROXY", &proxy.https_origin);
  proxy.http_proxy = Value(variable, "http_proxy", nullptr, &proxy.http_origin);
  proxy.no_proxy = Value(variable, "no_proxy", "NO_PROXY", &proxy.no_proxy_origin);
  return proxy;
}

ProxyEnvironment ProxyEnvironment::FromProcess() {
  return Read([](const char* name) { return static_cast<const char*>(std::getenv(name)); });
}

void ProxyEnvironment::Override(const QString& url) {
  https_proxy = url.trimmed();
  http_proxy = https_proxy;
  https_origin = http_origin = "--proxy";
}

void ProxyEnvironment::Check() const {
  CheckOne(https_proxy, https_origin);
  CheckOne(http_proxy, http_origin);
  for (const QString& entry : no_proxy.split(QLatin1Char(','), Qt::SkipEmptyParts)) {
    const QString host = entry.trimmed();
    for (const QChar c : host) {
      if (!c.isLetterOrNumber() && QStringLiteral(".-_:/*[]").indexOf(c) < 0) {
        throw CliFailure(ExitCode::kUsage, "the entry \"" + host.toStdString() + "\" of " +
                                               no_proxy_origin +
                                               " is not a host name, address or "
                                               "network; separate entries with commas");
      }
    }
  }
}

}  // namespace quire_cli
