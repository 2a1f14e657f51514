#include "progress_connection.h"

#include <utility>

#include <kestrel/base/memory_manager.h>

namespace upload_example {
namespace {

// The value of header `name` in `lines` ("Name: value"), or an empty string.
QString HeaderValue(const std::vector<QString>* lines, const QString& name) {
  if (lines == nullptr) return QString();
  const QString key = name + QStringLiteral(": ");
  for (const QString& line : *lines) {
    if (line.startsWith(key)) return line.mid(key.size());
  }
  return QString();
}

}  // namespace

ProgressConnection::ProgressConnection(kestrel::quire::IConnection* inner,
                                       ProgressCallback on_progress)
    : inner_(inner), on_progress_(std::move(on_progress)) {}

ProgressConnection::~ProgressConnection() { kestrel::doDelete(inner_); }

void ProgressConnection::Init(const std::vector<QString>& headers) { inner_->Init(headers); }

unsigned int ProgressConnection::Request(const kestrel::quire::ConnectionParams& params,
                                         kestrel::quire::ResponseCallback callback) {
  if (params.method != kestrel::quire::kMethodPut) {
    return inner_->Request(params, std::move(callback));
  }
  // A chunk: its "Content-Range: bytes FIRST-LAST/TOTAL" line gives the upload's size. Read it
  // now, because `params` lives only during this call.
  const QString range = HeaderValue(params.headers, QStringLiteral("Content-Range"));
  const std::uint64_t total = range.mid(range.lastIndexOf(QLatin1Char('/')) + 1).toULongLong();
  auto watch = [this, total, callback = std::move(callback)](
                   kestrel::quire::NetworkResponseInfo info, QByteArray body) {
    ++chunks_;
    if (info.status == 0) {
      on_progress_(total, total);  // the last chunk is in: the document exists
    } else if (info.status == 308) {
      // "Range: bytes=0-LAST": the service holds LAST + 1 bytes.
      const QString held = HeaderValue(info.headers, QStringLiteral("Range"));
      const int dash = held.indexOf(QLatin1Char('-'));
      bool ok = false;
      const std::uint64_t last = held.mid(dash + 1).toULongLong(&ok);
      if (dash >= 0 && ok) on_progress_(last + 1, total);
    }
    // Whatever the outcome, the upload itself goes on (or ends) in the wrapped callback.
    callback(info, body);
  };
  return inner_->Request(params, std::move(watch));
}

void ProgressConnection::Cancel(unsigned int request_id) { inner_->Cancel(request_id); }

}  // namespace upload_example
