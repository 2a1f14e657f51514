#include "quire/upload/connection_utils.h"

#include <QLatin1String>
#include <cstdlib>
#include <limits>
#include <utility>

#include "quire/connection/connection_params.h"

namespace kestrel {
namespace quire {
namespace {

// Calls the caller's callback; an empty callback is a programming error and ends the process.
void Finish(const ResponseCallback& callback, NetworkResponseInfo info, const QByteArray& body) {
  if (!callback) std::abort();
  callback(info, body);
}

// A failure made up by the upload itself: the generic failure status, no header lines, no body.
void FinishWithFailure(const ResponseCallback& callback, std::uint32_t request_id) {
  Finish(callback, NetworkResponseInfo{request_id, kStatusFailure, nullptr}, QByteArray());
}

// An empty string that is not null: callers cannot tell a missing header from an empty one.
QString EmptyString() { return QString(QLatin1String("")); }

}  // namespace

ConnectionUtils::ConnectionUtils(std::uint32_t chunk_size, IConnection* connection)
    : chunk_size_(chunk_size), connection_(connection) {}

ConnectionUtils::~ConnectionUtils() = default;

unsigned int ConnectionUtils::ResumableUpload(const QString& url, const QString& metadata,
                                              const QString& content_type, const QByteArray& data,
                                              ResponseCallback callback) {
  const std::vector<QString> headers = GetResumablePostExtraHeaders(content_type, data);
  const QByteArray body = metadata.toUtf8();

  ConnectionParams params;
  params.method = kMethodPost;
  params.url = url;
  params.body = &body;
  params.headers = &headers;
  params.collect_response_headers = true;  // the answer's "Location" is the upload's address
  params.request_id = 0;

  // The POST's URL is not kept: from here on only the address from "Location" is used. The handler
  // is called once, so it hands its callback on rather than copying it.
  auto done = [this, content_type, data, callback = std::move(callback)](
                  NetworkResponseInfo info, QByteArray response_body) mutable {
    ResumableUploadPostDone(content_type, data, std::move(callback), info,
                            std::move(response_body));
  };
  return connection_->Request(params, std::move(done));
}

void ConnectionUtils::ResumableUploadPostDone(const QString& content_type, const QByteArray& data,
                                              ResponseCallback callback, NetworkResponseInfo info,
                                              QByteArray /*body*/) {
  // Any failure of the POST, a redirection included, ends the upload; the server's body is dropped.
  if (info.status != kStatusSuccess) {
    Finish(callback, info, QByteArray());
    return;
  }
  const QString upload_url = GetHeaderValue(info.headers, QStringLiteral("Location"));
  if (upload_url.isEmpty()) {
    FinishWithFailure(callback, info.request_id);
    return;
  }
  ResumableUploadPut(upload_url, content_type, data, 0, info.request_id, std::move(callback));
}

void ConnectionUtils::ResumableUploadPut(const QString& upload_url, const QString& content_type,
                                         const QByteArray& data, std::uint32_t first_position,
                                         std::uint32_t failure_request_id,
                                         ResponseCallback callback) {
  // Positions are 32-bit on the wire; larger data cannot be described and is refused before any of
  // it is sent.
  if (static_cast<unsigned long long>(data.size()) > std::numeric_limits<std::uint32_t>::max()) {
    FinishWithFailure(callback, failure_request_id);
    return;
  }
  const auto total = static_cast<std::uint32_t>(data.size());
  // Nothing left to send: the server holds everything (or the data is empty). A position beyond the
  // end can only come from a confused server; it ends the upload too, rather than letting the chunk
  // start outside the data.
  if (first_position >= total) {
    FinishWithFailure(callback, failure_request_id);
    return;
  }
  const std::uint32_t remaining = total - first_position;
  const std::uint32_t length = remaining < chunk_size_ ? remaining : chunk_size_;

  // A view of the chunk's bytes, not a copy; `data`, shared by the handler below, keeps them alive
  // until the PUT has completed.
  const QByteArray chunk = QByteArray::fromRawData(data.constData() + first_position,
                                                   static_cast<decltype(data.size())>(length));
  const std::vector<QString> headers =
      GetResumablePutExtraHeaders(content_type, first_position, length, total);

  ConnectionParams params;
  params.method = kMethodPut;
  params.url = upload_url;
  params.body = &chunk;
  params.headers = &headers;
  params.collect_response_headers = true;  // a 308 answer's "Range" says where to go on
  params.request_id = 0;                   // every PUT gets a fresh id

  auto done = [this, upload_url, content_type, data, callback = std::move(callback)](
                  NetworkResponseInfo info, QByteArray response_body) mutable {
    ResumableUploadPutDone(upload_url, content_type, data, std::move(callback), info,
                           std::move(response_body));
  };
  // The PUT's id is not reported: the caller only ever holds the POST's.
  connection_->Request(params, std::move(done));
}

void ConnectionUtils::ResumableUploadPutDone(const QString& upload_url, const QString& content_type,
                                             const QByteArray& data, ResponseCallback callback,
                                             NetworkResponseInfo info, QByteArray body) {
  if (info.status == kStatusSuccess) {
    Finish(callback, info, body);
    return;
  }
  if (info.status == 308) {
    std::uint32_t position = 0;
    if (!GetResumableStartPos(info.headers, &position)) {
      FinishWithFailure(callback, info.request_id);
      return;
    }
    ResumableUploadPut(upload_url, content_type, data, position, info.request_id,
                       std::move(callback));
    return;
  }
  // A failure reported by the server reaches the caller unchanged, but without its body.
  Finish(callback, info, QByteArray());
}

QString ConnectionUtils::GetHeaderValue(const std::vector<QString>* headers,
                                        const QString& name) const {
  const QString key = name + QStringLiteral(": ");
  if (headers == nullptr) return EmptyString();
  for (const QString& line : *headers) {
    // Deliberately exact: the name's case must match and exactly one blank follows the colon.
    if (line.startsWith(key, Qt::CaseSensitive)) {
      const QString value = line.mid(key.size());
      return value.isNull() ? EmptyString() : value;
    }
  }
  return EmptyString();
}

bool ConnectionUtils::GetResumableStartPos(const std::vector<QString>* headers,
                                           std::uint32_t* position) const {
  const QString value = GetHeaderValue(headers, QStringLiteral("Range"));
  if (value.isEmpty()) return false;
  const int dash = static_cast<int>(value.indexOf(QLatin1Char('-')));
  if (dash < 0) return false;
  // Only the last position is read ("bytes=0-524287" gives 524287); what comes before the "-" is
  // not checked.
  bool ok = false;
  *position = value.mid(dash + 1).toUInt(&ok, 10);
  return ok;
}

std::vector<QString> ConnectionUtils::GetResumablePostExtraHeaders(const QString& content_type,
                                                                   const QByteArray& data) const {
  std::vector<QString> lines;
  lines.reserve(3);
  lines.push_back(QStringLiteral("Content-Type: application/atom+xml"));
  lines.push_back(QStringLiteral("X-Upload-Content-Type: %1").arg(content_type));
  lines.push_back(
      QStringLiteral("X-Upload-Content-Length: %1").arg(static_cast<qint64>(data.size())));
  return lines;
}

std::vector<QString> ConnectionUtils::GetResumablePutExtraHeaders(const QString& content_type,
                                                                  std::uint32_t first_position,
                                                                  std::uint32_t length,
                                                                  std::uint32_t total) const {
  const std::uint32_t last_position = first_position + length - 1u;  // wraps for an empty chunk
  std::vector<QString> lines;
  lines.reserve(3);
  lines.push_back(QStringLiteral("Content-Length: %1").arg(length));
  lines.push_back(QStringLiteral("Content-Type: %1").arg(content_type));
  lines.push_back(QStringLiteral("Content-Range: bytes %1-%2/%3")
                      .arg(first_position)
                      .arg(last_position)
                      .arg(total));
  return lines;
}

}  // namespace quire
}  // namespace kestrel
