#include "quire/services/user_info_service.h"

#include <cstdlib>
#include <cstring>
#include <functional>

#include "quire/connection/connection_params.h"
#include "quire/services/endpoints.h"

namespace kestrel {
namespace quire {

UserInfoService::UserInfoService() : Service(QLatin1String(kProtocolVersion), nullptr) {}

UserInfoService::UserInfoService(IConnection* connection)
    : Service(QLatin1String(kProtocolVersion), connection) {}

UserInfoService::~UserInfoService() {}

unsigned int UserInfoService::GetUserEmail(UserEmailCallback callback) {
  using std::placeholders::_1;
  using std::placeholders::_2;
  ResponseCallback done =
      std::bind(&UserInfoService::GetUserEmailDone, this, std::move(callback), _1, _2);

  ConnectionParams params;
  params.method = kMethodGet;
  params.url = QString::fromLatin1(UserInfoUrl);
  params.body = nullptr;
  // Deliberately no lines of its own, not even the authorisation line.
  params.headers = nullptr;
  params.collect_response_headers = false;
  params.request_id = 0;
  return connection()->Request(params, std::move(done));
}

void UserInfoService::GetUserEmailDone(UserEmailCallback callback, NetworkResponseInfo response,
                                       QByteArray body) {
  QString email;
  if (response.status == kStatusSuccess) {
    // The text ends at the first zero byte; each byte is one character.
    const char* data = body.constData();
    const void* zero = std::memchr(data, 0, static_cast<std::size_t>(body.size()));
    const int length = zero != nullptr ? static_cast<int>(static_cast<const char*>(zero) - data)
                                       : static_cast<int>(body.size());
    const QString text = QString::fromLatin1(data, length);

    const int key = text.indexOf(QLatin1String("email="), 0, Qt::CaseSensitive);
    if (key != -1) {
      const int start = key + 6;
      int end = text.length();
      // Strictly greater, deliberately: an "&" right behind "email=" does not end the value, which
      // then runs from that "&" to the end of the text.
      const int ampersand = text.indexOf(QLatin1Char('&'), start, Qt::CaseSensitive);
      if (ampersand > start) end = ampersand;
      email = text.mid(start, end - start);
    }
    response.status = email.isEmpty() ? kStatusParseFailure : kStatusSuccess;
  }
  if (!callback) std::abort();
  callback(response, email);
}

}  // namespace quire
}  // namespace kestrel
