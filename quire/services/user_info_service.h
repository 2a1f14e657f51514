/// @file
/// Asks the user-information endpoint for the signed-in user's e-mail address.
#pragma once

#include <QByteArray>
#include <QString>
#include <functional>

#include "quire/connection/i_connection.h"
#include "quire/connection/network_response_info.h"
#include "quire/quire_export.h"
#include "quire/services/service.h"

namespace kestrel {
namespace quire {

/// Receives the e-mail address; called exactly once per request, on the thread that runs the
/// network layer's completions (the host's main thread), never inside GetUserEmail.
using UserEmailCallback = std::function<void(NetworkResponseInfo, QString)>;

/// Asks the user-information endpoint for the signed-in user's e-mail address.
///
/// Ownership, lifetime and threading are those of Service.
class QUIRE_EXPORT UserInfoService : public Service {
 public:
  /// Creates a Connection of its own.
  UserInfoService();
  /// Takes ownership of `connection` (a new Connection of its own when it is null).
  explicit UserInfoService(IConnection* connection);
  /// Deletes the connection (see Service::~Service()).
  ~UserInfoService() override;

  /// GETs UserInfoUrl and returns the connection's request id (usable with Cancel). The request
  /// carries only the connection's fixed lines (the version line): no authorisation line is
  /// attached.
  ///
  /// `callback` receives the response record and the address, taken from the text of the body
  /// (bytes up to the first zero byte, one character per byte) behind the first "email=" and up to
  /// the next "&", or to the end of the text. The value is handed over as it stands (no decoding,
  /// no trimming). When "&" follows "email=" directly, the address runs from that "&" to the end of
  /// the text. Statuses:
  /// - 0: an address was found (never empty);
  /// - 1: the answer was a success but holds no "email=" or an empty value: an empty string;
  /// - 2, 300, 302, 308, 400 to 416, 500 to 505: the transport's failure status, unchanged: an
  ///   empty string, the body not read.
  ///
  /// The callback runs exactly once, later, on the main thread, never inside this call. An empty
  /// callback aborts the process when it would be called.
  virtual unsigned int GetUserEmail(UserEmailCallback callback);

  /// Completion handler of GetUserEmail; public, but meant only to be bound by it.
  void GetUserEmailDone(UserEmailCallback callback, NetworkResponseInfo response, QByteArray body);
};

}  // namespace quire
}  // namespace kestrel
