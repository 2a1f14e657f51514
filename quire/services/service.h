/// @file
/// The base of the library's public services: the connection, the protocol version and the tokens.
#pragma once

#include <QString>
#include <memory>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "quire/connection/i_connection.h"
#include "quire/quire_export.h"

namespace kestrel {
namespace quire {

/// The base of the library's public services (UserInfoService, DocsService).
///
/// Owns the IConnection through which every request of the service goes, announces the protocol
/// version to it once, and keeps the host's OAuth 2.0 tokens with the ready-made authorisation
/// line. It runs no authorisation flow and refreshes nothing: the host sets the tokens; the refresh
/// token is only stored and handed back.
///
/// Ownership: the service owns its connection and deletes it (through its virtual destructor) when
/// the service is destroyed, also when the host handed it in. Never pass a connection that you
/// delete yourself or that another service owns. Services are allocated through the host's memory
/// manager (plain new and delete do that for this class and every class derived from it).
///
/// Lifetime: each request of a derived service calls back into the service, so destroy a service
/// only after the last callback of every request it issued has run. Nothing guards against it.
///
/// Threading: no locks. Use a service from one thread (the host's main thread); a token setter must
/// not run while another thread builds a request of the same service or reads a token.
class QUIRE_EXPORT Service {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// Takes `connection` (or, when it is null, a new Connection of its own) and calls its Init once
  /// with the single line "Quire-Version: " followed by `version`. Nothing else is sent.
  Service(const QString& version, IConnection* connection);
  /// Releases the tokens and the authorisation line, then deletes the connection.
  virtual ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  /// Forwards to the connection's Cancel. The library's own Connection ignores it, so the request's
  /// callback still arrives.
  virtual void Cancel(unsigned int request_id);
  /// Stores the refresh token. An empty one signs the service out: it also calls SetOAuth2AuthToken
  /// with an empty string (through the virtual call, so an override sees it).
  virtual void SetOAuth2RefreshToken(const QString& token);
  /// A copy of the stored refresh token; empty on a new service.
  virtual QString OAuth2RefreshToken() const;
  /// Stores the access token and rebuilds the authorisation line: "Authorization: Bearer " followed
  /// by the token as given, or no line at all when the token is empty. Requests already issued keep
  /// the lines they were built with.
  virtual void SetOAuth2AuthToken(const QString& token);
  /// A copy of the stored access token; empty on a new service.
  virtual QString OAuth2AuthToken() const;

  /// The authorisation lines: none while the access token is empty, else exactly one. Never null;
  /// valid as long as the service lives, its contents change whenever the access token is set.
  const std::vector<QString>* authorization_headers() const { return &authorization_headers_; }

 protected:
  /// The connection, never null.
  IConnection* connection() const { return connection_.get(); }

 private:
  struct ConnectionDeleter {
    void operator()(IConnection* connection) const { kestrel::doDelete(connection); }
  };

  // Destroyed last, after the tokens and the lines (members go in reverse order).
  std::unique_ptr<IConnection, ConnectionDeleter> connection_;
  QString oauth2_auth_token_;
  QString oauth2_refresh_token_;
  std::vector<QString> authorization_headers_;
};

}  // namespace quire
}  // namespace kestrel
