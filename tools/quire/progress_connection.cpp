#include "tools/quire/progress_connection.h"

#include <utility>

#include "kestrel/base/memory_manager.h"
#include "tools/quire/progress_bar.h"

namespace quire_cli {

using kestrel::quire::ConnectionParams;
using kestrel::quire::NetworkResponseInfo;
using kestrel::quire::ResponseCallback;

ProgressConnection::ProgressConnection(kestrel::quire::IConnection* inner, ProgressBar* bar)
    : inner_(inner), bar_(bar), start_(std::chrono::steady_clock::now()) {}

ProgressConnection::~ProgressConnection() { kestrel::doDelete(inner_); }

void ProgressConnection::set_bar(ProgressBar* bar) {
  bar_ = bar;
  start_ = std::chrono::steady_clock::now();
}

void ProgressConnection::Init(const std::vector<QString>& headers) { inner_->Init(headers); }

void ProgressConnection::Cancel(unsigned int request_id) { inner_->Cancel(request_id); }

unsigned int ProgressConnection::Request(const ConnectionParams& params,
                                         ResponseCallback callback) {
  const std::uint32_t method = params.method;
  return inner_->Request(params, [this, method, callback = std::move(callback)](
                                     NetworkResponseInfo info, QByteArray body) {
    if (method == kestrel::quire::kMethodPost) OnPostDone(info);
    if (method == kestrel::quire::kMethodPut) OnPutDone(info);
    callback(info, body);
  });
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
