#include "quire/services/service.h"

#include "quire/connection/connection.h"

namespace kestrel {
namespace quire {

Service::Service(const QString& version, IConnection* connection)
    : connection_(connection != nullptr ? connection : kestrel::doNew<Connection>()),
      oauth2_auth_token_(),
      oauth2_refresh_token_(),
      authorization_headers_() {
  // The version line becomes one of the connection's fixed lines, sent ahead of every request's
  // own.
  std::vector<QString> version_lines;
  version_lines.push_back(QStringLiteral("Quire-Version: %1").arg(version));
  connection_->Init(version_lines);
}

// The members go in reverse order of declaration: the lines, the refresh token, the access token,
// and last the connection.
Service::~Service() = default;

void Service::Cancel(unsigned int request_id) { connection_->Cancel(request_id); }

void Service::SetOAuth2RefreshToken(const QString& token) {
  oauth2_refresh_token_ = token;
  // Clearing the refresh token signs the service out.
  if (oauth2_refresh_token_.length() == 0) SetOAuth2AuthToken(QString());
}

QString Service::OAuth2RefreshToken() const { return oauth2_refresh_token_; }

void Service::SetOAuth2AuthToken(const QString& token) {
  oauth2_auth_token_ = token;
  authorization_headers_.clear();
  if (oauth2_auth_token_.length() == 0) return;
  // The token goes out as given: no trimming, quoting or encoding.
  authorization_headers_.push_back(QStringLiteral("Authorization: Bearer ") + oauth2_auth_token_);
}

QString Service::OAuth2AuthToken() const { return oauth2_auth_token_; }

}  // namespace quire
}  // namespace kestrel
