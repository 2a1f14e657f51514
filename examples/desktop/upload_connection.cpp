#include "upload_connection.h"

#include <utility>

#include <kestrel/base/main_loop.h>
#include <kestrel/base/memory_manager.h>

namespace desktop_example {
namespace {

// The value of header `name` in `lines` ("Name: value"), or an empty string.
QString HeaderValue(const std::vector<QString>* lines, const QString& name) {
  if (lines == nullptr) return QString();
  const QString key = name + QStringLiteral(": ");
  for (const QString& line : *lines) {
    if (line.startsWith(key, Qt::CaseInsensitive)) return line.mid(key.size());
  }
  return QString();
}

}  // namespace

UploadConnection::UploadConnection(kestrel::quire::IConnection* inner, ProgressCallback on_progress)
    : inner_(inner), on_progress_(std::move(on_progress)) {}

UploadConnection::~UploadConnection() { kestrel::doDelete(inner_); }

void UploadConnection::Init(const std::vector<QString>& headers) { inner_->Init(headers); }

unsigned int UploadConnection::Request(const kestrel::quire::ConnectionParams& params,
                                       kestrel::quire::ResponseCallback callback) {
  if (params.method == kestrel::quire::kMethodPost) stopping_ = false;  // a new upload
  if (params.method != kestrel::quire::kMethodPut) {
    return inner_->Request(params, std::move(callback));
  }
  if (stopping_) {
    // Not sent: the upload ends here with a failure, later, on the main thread, as every
    // completion does.
    const unsigned int id = params.request_id != 0 ? params.request_id : ++next_local_id_;
    kestrel::MainLoop::Default()->Post([id, callback = std::move(callback)] {
      callback(kestrel::quire::NetworkResponseInfo{id, kestrel::quire::kStatusFailure, nullptr},
               QByteArray());
    });
    return id;
  }
  // A chunk: "Content-Range: bytes FIRST-LAST/TOTAL" gives the upload's size. Read it now,
  // because `params` lives only during this call.
  const QString range = HeaderValue(params.headers, QStringLiteral("Content-Range"));
  const std::uint64_t total = range.mid(range.lastIndexOf(QLatin1Char('/')) + 1).toULongLong();
  auto watch = [this, total, callback = std::move(callback)](
                   kestrel::quire::NetworkResponseInfo info, QByteArray body) {
    if (info.status == 0) {
      on_progress_(total, total);
    } else if (info.status == 308) {
      const QString held = HeaderValue(info.headers, QStringLiteral("Range"));
      const int dash = held.indexOf(QLatin1Char('-'));
      bool ok = false;
      const std::uint64_t last = held.mid(dash + 1).toULongLong(&ok);
      if (dash >= 0 && ok) on_progress_(last + 1, total);
    }
    callback(info, body);
  };
  return inner_->Request(params, std::move(watch));
}

void UploadConnection::Cancel(unsigned int request_id) { inner_->Cancel(request_id); }

}  // namespace desktop_example
