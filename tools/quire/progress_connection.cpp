#include "tools/quire/progress_connection.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "kestrel/base/memory_manager.h"
#include "tools/quire/progress_bar.h"

namespace quire_cli {

using kestrel::quire::ConnectionParams;
using kestrel::quire::NetworkResponseInfo;
using kestrel::quire::ResponseCallback;

ProgressConnection::ProgressConnection(kestrel::quire::IConnection* inner, ProgressBar* bar)
    : inner_(inner),
      transfer_inner_(dynamic_cast<kestrel::quire::ITransferConnection*>(inner)),
      bar_(bar),
      start_(std::chrono::steady_clock::now()) {}

ProgressConnection::~ProgressConnection() { kestrel::doDelete(inner_); }

void ProgressConnection::set_bar(ProgressBar* bar) {
  bar_ = bar;
  start_ = std::chrono::steady_clock::now();
}

void ProgressConnection::Init(const std::vector<QString>& headers) { inner_->Init(headers); }

void ProgressConnection::Cancel(unsigned int request_id) { inner_->Cancel(request_id); }

void ProgressConnection::CancelAll() {
  const std::set<unsigned int> ids(in_flight_.begin(), in_flight_.end());
  for (unsigned int id : ids) {
    if (transfer_inner_ != nullptr) {
      transfer_inner_->Abort(id);
    } else {
      inner_->Cancel(id);
    }
  }
}

unsigned int ProgressConnection::Request(const ConnectionParams& params,
                                         ResponseCallback callback) {
  const std::uint32_t method = params.method;
  auto shared = std::make_shared<unsigned int>(0);
  auto done = [this, method, shared, callback = std::move(callback)](NetworkResponseInfo info,
                                                                     QByteArray body) {
    auto at = in_flight_.find(*shared);
    if (at != in_flight_.end()) in_flight_.erase(at);
    last_status_ = info.status;
    if (method == kestrel::quire::kMethodPost) OnPostDone(info);
    if (method == kestrel::quire::kMethodPut) OnPutDone(info);
    callback(info, body);
  };
  unsigned int id = 0;
  const std::int64_t first = method == kestrel::quire::kMethodPut ? ChunkStart(params.headers) : -1;
  if (transfer_inner_ != nullptr) {
    kestrel::quire::ProgressCallback progress;
    if (first >= 0) {
      progress = [this, first](std::uint32_t, const kestrel::net::TransferProgress& moved) {
        OnSent(first, moved.bytes_sent);
      };
    }
    id = transfer_inner_->StartTransfer(
        params,
        [done](NetworkResponseInfo info, QByteArray body, std::uint32_t) {
          done(std::move(info), std::move(body));
        },
        std::move(progress));
  } else {
    id = inner_->Request(params, std::move(done));
  }
  // Completions come later, on the main loop, never inside the call above.
  *shared = id;
  in_flight_.insert(id);
  return id;
}

void ProgressConnection::OnSent(std::int64_t first, std::int64_t sent) {
  // Bytes on their way are not yet held; the bar shows them, the state file does not.
  if (bar_ != nullptr) bar_->Update(std::max(held_, first + sent), Seconds());
}

void ProgressConnection::OnPostDone(const NetworkResponseInfo& info) {
  if (info.status != kestrel::quire::kStatusSuccess) return;
  const QString location = HeaderValue(info.headers, QStringLiteral("Location"));
  if (location.isEmpty()) return;
  session_url_ = location;
  if (session_listener_) session_listener_(session_url_);
}

void ProgressConnection::OnPutDone(const NetworkResponseInfo& info) {
  std::int64_t held = -1;
  if (info.status == kestrel::quire::kStatusSuccess) {
    held = total_;
  } else if (info.status == 308) {
    held = HeldFromRange(HeaderValue(info.headers, QStringLiteral("Range")));
  }
  if (held < 0) return;
  ++put_answers_;
  held_ = held;
  if (bar_ != nullptr) bar_->Update(held_, Seconds());
  if (progress_listener_) progress_listener_(held_, total_);
}

double ProgressConnection::Seconds() const {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

QString ProgressConnection::HeaderValue(const std::vector<QString>* headers, const QString& name) {
  if (headers == nullptr) return QString();
  const QString key = name + QStringLiteral(": ");
  for (const QString& line : *headers) {
    if (line.startsWith(key)) return line.mid(key.size());
  }
  return QString();
}

std::int64_t ProgressConnection::ChunkStart(const std::vector<QString>* headers) {
  const QString range = HeaderValue(headers, QStringLiteral("Content-Range"));
  if (!range.startsWith(QStringLiteral("bytes "))) return -1;
  const int dash = range.indexOf(QLatin1Char('-'));
  if (dash < 0) return -1;
  bool ok = false;
  const qlonglong first = range.mid(6, dash - 6).toLongLong(&ok);
  return ok && first >= 0 ? first : -1;
}

std::int64_t ProgressConnection::HeldFromRange(const QString& range) {
  if (range.isEmpty()) return 0;
  if (!range.startsWith(QStringLiteral("bytes="))) return -1;
  const int dash = range.indexOf(QLatin1Char('-'));
  if (dash < 0) return -1;
  bool ok = false;
  const qlonglong last = range.mid(dash + 1).trimmed().toLongLong(&ok);
  if (!ok || last < 0) return -1;
  return last + 1;
}

}  // namespace quire_cli
