#include "quire/services/content_download.h"

#include <QByteArray>
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <limits>
#include <utility>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/byte_buffer.h"
#include "kestrel/net/connection_manager.h"
#include "kestrel/net/network_request.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/response_sink.h"
#include "kestrel/net/server_info.h"
#include "quire/connection/connection_params.h"
#include "quire/services/endpoints.h"
#include "quire/services/service.h"

namespace kestrel {
namespace quire {
namespace {

using kestrel::net::NetworkRequest;
namespace status = kestrel::net::status;

constexpr std::uint64_t kMaxLength =
    static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

// A run of 1 to 19 decimal digits whose value fits in a signed 64-bit length; no sign, no blank.
bool ParseLength(const QString& text, std::uint64_t* value) {
  if (text.isEmpty() || text.size() > 19) return false;
  std::uint64_t result = 0;
  for (QChar c : text) {
    if (c < QLatin1Char('0') || c > QLatin1Char('9')) return false;
    result = result * 10 + static_cast<std::uint64_t>(c.unicode() - '0');
  }
  if (result > kMaxLength) return false;
  *value = result;
  return true;
}

// The trimmed value of the first header line named `name` (any case); null when there is none.
QString FindHeader(const std::vector<QString>& lines, const char* name, int* count = nullptr) {
  const QLatin1String wanted(name);
  QString found;
  int seen = 0;
  for (const QString& line : lines) {
    const int colon = line.indexOf(QLatin1Char(':'));
    if (colon <= 0) continue;
    if (line.left(colon).trimmed().compare(wanted, Qt::CaseInsensitive) != 0) continue;
    if (seen++ == 0) found = line.mid(colon + 1).trimmed();
  }
  if (count != nullptr) *count = seen;
  return found;
}

std::vector<QString> HeaderLines(const NetworkRequest* request) {
  std::vector<QString> lines;
  const auto* http = request->GetHttpRequest();
  for (int i = 0; i < http->GetResponseHeaderCount(); ++i)
    lines.push_back(*http->GetResponseHeader(i));
  return lines;
}

// "bytes A-B/T" or "bytes A-B/*" (total -1), or for `unsatisfied` "bytes */T".
struct ContentRangeValue {
  std::uint64_t first = 0;
  std::uint64_t last = 0;
  std::int64_t total = -1;
};

bool ParseContentRange(const QString& value, ContentRangeValue* out) {
  if (!value.startsWith(QLatin1String("bytes "))) return false;
  const QString rest = value.mid(6).trimmed();
  const int slash = rest.indexOf(QLatin1Char('/'));
  if (slash < 0) return false;
  const QString range = rest.left(slash);
  const QString total = rest.mid(slash + 1);
  if (total != QLatin1String("*")) {
    std::uint64_t t = 0;
    if (!ParseLength(total, &t)) return false;
    out->total = static_cast<std::int64_t>(t);
  }
  const int dash = range.indexOf(QLatin1Char('-'));
  if (dash < 0) return false;
  if (!ParseLength(range.left(dash), &out->first) ||
      !ParseLength(range.mid(dash + 1), &out->last)) {
    return false;
  }
  if (out->last < out->first) return false;
  if (out->total >= 0 && out->last >= static_cast<std::uint64_t>(out->total)) return false;
  return true;
}

bool ParseUnsatisfiedRange(const QString& value, std::uint64_t* total) {
  if (!value.startsWith(QLatin1String("bytes */"))) return false;
  return ParseLength(value.mid(8).trimmed(), total);
}

double SteadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

// Hands the network layer's completion to the download.
class ContentDownload::RequestCallback : public NetworkRequest::Callback {
 public:
  explicit RequestCallback(ContentDownload* download) : download_(download) {}
  void OnRequestComplete(NetworkRequest* request) override { download_->OnComplete(request); }

 private:
  ContentDownload* download_;
};

ContentDownload::ContentDownload(const Service* service)
    : service_(service),
      // As the library's Connection: 4 connections per host, 2 idle ones kept, keep-alive, a
      // 60-second stall time-out, idle connections reused for 60 seconds.
      manager_(doNew<kestrel::net::ConnectionManager>(4, 2, true, 60.0, 60)),
      life_(std::make_shared<int>(0)) {
  callback_adaptor_ = doNew<RequestCallback>(this);
}

ContentDownload::~ContentDownload() {
  if (retry_timer_ != 0) kestrel::MainLoop::Default()->CancelTimer(retry_timer_);
  if (sink_ != nullptr) sink_->Release();
  if (request_ != nullptr) NetworkRequest::ReleaseRef(request_);
  doDelete(callback_adaptor_);
  doDelete(manager_);
}

void ContentDownload::Start(const QUrl& url, DownloadTarget target, DownloadOptions options,
                            DownloadCallback callback) {
  url_ = url;
  target_ = std::move(target);
  options_ = std::move(options);
  callback_ = std::move(callback);
  if (options_.resume_from > 0 && !options_.etag.isEmpty() && options_.resume_from <= kMaxLength) {
    written_ = options_.resume_from;
    result_.bytes_reused = written_;
    result_.etag = options_.etag;
  } else if (options_.resume_from > 0 && !target_.Truncate(0)) {
    // A part of unknown version is never extended; one that cannot be dropped ends it here.
    std::weak_ptr<int> alive = life_;
    kestrel::MainLoop::Default()->Post([this, alive] {
      if (alive.expired()) return;
      Fail(DownloadOutcome::kCannotRestart, target_.error());
      Finish(DownloadOutcome::kCannotRestart, 2);
    });
    return;
  }
  Send();
}

void ContentDownload::Cancel() {
  if (finished_ || cancelled_) return;
  cancelled_ = true;
  if (sink_ != nullptr) {
    // Nothing more reaches the destination; the transfer is taken off the wire, and its
    // completion reports the cancellation.
    sink_->Stop();
    if (request_ != nullptr) manager_->CancelRequest(request_);
    return;
  }
  // Between attempts: nothing is in flight, and the back-off wait is taken back.
  if (retry_timer_ != 0) kestrel::MainLoop::Default()->CancelTimer(retry_timer_);
  retry_timer_ = 0;
  std::weak_ptr<int> alive = life_;
  kestrel::MainLoop::Default()->Post([this, alive] {
    if (!alive.expired() && !finished_) Finish(DownloadOutcome::kCancelled, 2);
  });
}

void ContentDownload::Send() {
  if (finished_) return;
  if (cancelled_) {
    Finish(DownloadOutcome::kCancelled, 2);
    return;
  }
  offset_ = written_;
  received_ = 0;
  expected_ = -1;
  head_seen_ = false;
  sent_range_ = offset_ > 0;
  ++result_.attempts;

  kestrel::net::RequestHeaderList headers;
  auto add = [&headers](const QString& line) {
    kestrel::net::RequestHeader header;
    header.type = 0;
    header.name = line;
    headers.push_back(header);
  };
  add(QStringLiteral("Quire-Version: ") + QLatin1String(kProtocolVersion));
  for (const QString& line : *service_->authorization_headers()) add(line);
  if (sent_range_) {
    add(QStringLiteral("Range: bytes=%1-").arg(offset_));
    add(QStringLiteral("If-Range: ") + result_.etag);
  }

  sink_ = new kestrel::net::ResponseSink(
      options_.buffer_bytes,
      [this](int http_status, const std::vector<QString>& lines) {
        return OnHead(http_status, lines);
      },
      [this](const char* data, std::size_t size) { return OnPiece(data, size); });
  const QString url = url_.toString(QUrl::FullyEncoded);
  NetworkRequest::Info info(kestrel::net::HttpRequest::kGet, QByteArray(), url, std::move(headers),
                            true, callback_adaptor_, nullptr, NetworkRequest::Info::kStandard);
  info.response_sink = sink_;
  kestrel::net::ServerInfo server(url);
  request_ = manager_->StartRequest(server, info);
  // The network layer never completes a request inside StartRequest: the pointer is valid here.
  NetworkRequest::AddRef(request_);
}

bool ContentDownload::Fail(DownloadOutcome outcome, const QString& error) {
  if (!failed_) {
    failed_ = true;
    failure_outcome_ = outcome;
    result_.error = error;
  }
  return false;
}

bool ContentDownload::OnHead(int http_status, const std::vector<QString>& headers) {
  if (finished_ || cancelled_) return false;
  head_seen_ = true;
  const QString etag = FindHeader(headers, "ETag");
  int length_fields = 0;
  const QString length_text = FindHeader(headers, "Content-Length", &length_fields);
  std::int64_t length = -1;
  if (length_fields > 0) {
    std::uint64_t parsed = 0;
    if (length_fields > 1 || !ParseLength(length_text, &parsed)) {
      return Fail(DownloadOutcome::kProtocolError,
                  QStringLiteral("the answer's Content-Length is malformed: ") + length_text);
    }
    length = static_cast<std::int64_t>(parsed);
  }

  if (http_status == 206) {
    if (!sent_range_) {
      return Fail(DownloadOutcome::kProtocolError,
                  QStringLiteral("a partial answer (206) came to a request for the whole content"));
    }
    int range_fields = 0;
    const QString range_text = FindHeader(headers, "Content-Range", &range_fields);
    ContentRangeValue range;
    if (range_fields != 1 || !ParseContentRange(range_text, &range)) {
      return Fail(DownloadOutcome::kProtocolError,
                  QStringLiteral("the partial answer's Content-Range is missing or malformed: ") +
                      range_text);
    }
    if (range.first != offset_ ||
        (range.total >= 0 && range.last + 1 != static_cast<std::uint64_t>(range.total))) {
      return Fail(DownloadOutcome::kProtocolError,
                  QStringLiteral("the partial answer's Content-Range (%1) does not match the "
                                 "request (bytes %2- to the end)")
                      .arg(range_text)
                      .arg(offset_));
    }
    const std::uint64_t part = range.last - range.first + 1;
    if (length >= 0 && static_cast<std::uint64_t>(length) != part) {
      return Fail(DownloadOutcome::kProtocolError,
                  QStringLiteral("the partial answer's Content-Length (%1) differs from its "
                                 "Content-Range (%2)")
                      .arg(length)
                      .arg(range_text));
    }
    if (!etag.isEmpty() && etag != result_.etag) {
      return Fail(DownloadOutcome::kProtocolError,
                  QStringLiteral("the partial answer is of another version (entity tag %1, asked "
                                 "for %2)")
                      .arg(etag, result_.etag));
    }
    expected_ = static_cast<std::int64_t>(part);
    result_.total = static_cast<std::int64_t>(range.last + 1);
  } else {
    // The whole content: a part kept from before is of another version (or the server ignores
    // ranges), so the destination starts over.
    if (offset_ > 0) {
      StartOver();
      if (failed_) return false;
    }
    expected_ = length;
    result_.total = length;
    result_.etag = etag;
  }
  if (options_.started) options_.started(result_.etag, result_.total, offset_);
  if (options_.progress) options_.progress(written_, result_.total);
  return true;
}

void ContentDownload::StartOver() {
  if (!target_.Truncate(0)) {
    Fail(DownloadOutcome::kCannotRestart,
         QStringLiteral("the content changed and the destination cannot start over: ") +
             target_.error());
    return;
  }
  result_.restarted = true;
  result_.bytes_reused = 0;
  offset_ = 0;
  written_ = 0;
}

bool ContentDownload::OnPiece(const char* data, std::size_t size) {
  if (finished_ || cancelled_ || failed_) return false;
  if (expected_ >= 0 && received_ + size > static_cast<std::uint64_t>(expected_)) {
    return Fail(
        DownloadOutcome::kProtocolError,
        QStringLiteral("the service sent more bytes than it announced (%1)").arg(expected_));
  }
  if (offset_ + received_ + size > kMaxLength) {
    return Fail(DownloadOutcome::kProtocolError, QStringLiteral("the content is too long"));
  }
  if (!target_.Write(offset_ + received_, data, size)) {
    result_.error_number = target_.error_number();
    return Fail(DownloadOutcome::kWriteFailed, target_.error());
  }
  received_ += size;
  written_ = offset_ + received_;
  result_.bytes_transferred += size;
  if (options_.progress) options_.progress(written_, result_.total);
  return true;
}

void ContentDownload::OnComplete(NetworkRequest* request) {
  const std::uint32_t code = request->GetHttpRequest()->GetResponseStatus();
  if (sink_ != nullptr) {
    sink_->Release();
    sink_ = nullptr;
  }
  if (request_ == request) {
    request_ = nullptr;
    NetworkRequest::ReleaseRef(request);  // the caller's reference keeps it alive for this call
  }
  if (finished_) return;
  int http_status = 0;
  if (code >= status::kHttpSuccessBase && code < status::kHttpSuccessBase + 1000) {
    http_status = static_cast<int>(code - status::kHttpSuccessBase);
  } else if (code >= status::kHttpErrorBase && code < status::kHttpErrorBase + 1000) {
    http_status = static_cast<int>(code - status::kHttpErrorBase);
  }
  if (failed_) return Finish(failure_outcome_, http_status == 0 ? 2 : http_status);
  if (cancelled_) return Finish(DownloadOutcome::kCancelled, 2);

  if (http_status >= 200 && http_status <= 299) {
    if (!head_seen_) {
      // The sink saw no head: the content is empty, or the transport (a host's own) does not use
      // sinks and collected the body in its buffer.
      const std::vector<QString> lines = HeaderLines(request);
      if (!OnHead(http_status, lines)) return Finish(failure_outcome_, http_status);
      const kestrel::net::ByteBuffer* buffer = request->GetHttpRequest()->GetResponseBuffer();
      if (buffer != nullptr && buffer->size() > 0 && !OnPiece(buffer->data(), buffer->size())) {
        return Finish(failure_outcome_, http_status);
      }
    }
    if (expected_ >= 0 && received_ < static_cast<std::uint64_t>(expected_)) {
      // Ended early although the transport saw no error: resume.
      return RetryOrFail(2, 0, request);
    }
    if (result_.total < 0) result_.total = static_cast<std::int64_t>(written_);
    return Finish(DownloadOutcome::kComplete, 0);
  }
  if (http_status == 416 && sent_range_) {
    const std::vector<QString> lines = HeaderLines(request);
    std::uint64_t total = 0;
    const QString etag = FindHeader(lines, "ETag");
    if (ParseUnsatisfiedRange(FindHeader(lines, "Content-Range"), &total) && total == offset_ &&
        (etag.isEmpty() || etag == result_.etag)) {
      // The part already holds the whole content.
      result_.total = static_cast<std::int64_t>(total);
      return Finish(DownloadOutcome::kComplete, 0);
    }
    // The part is longer than the content, or of another version: start over.
    StartOver();
    if (failed_) return Finish(failure_outcome_, 416);
    return Send();
  }
  RetryOrFail(http_status == 0 ? 2 : http_status, code, request);
}

void ContentDownload::RetryOrFail(std::int32_t status_value, std::uint32_t code,
                                  const NetworkRequest* request) {
  const RetryPolicy& policy = options_.retry_policy;
  const DownloadOutcome failure =
      status_value == 2 ? DownloadOutcome::kNetworkFailure : DownloadOutcome::kHttpError;
  if (!policy.IsTransient(kMethodGet, status_value, code)) return Finish(failure, status_value);
  // An attempt that brought bytes starts a new count: the download goes on from them.
  if (received_ > 0) failures_in_a_row_ = 0;
  if (failures_in_a_row_ == 0) streak_started_ = SteadySeconds();
  ++failures_in_a_row_;
  if (failures_in_a_row_ >= policy.max_attempts()) return Finish(failure, status_value);
  if (written_ > 0 && result_.etag.isEmpty()) {
    // Without an entity tag a resumed range could belong to another version: start over.
    StartOver();
    if (failed_) return Finish(failure_outcome_, status_value);
  }
  double delay = 0;
  if (received_ == 0) {
    // Nothing came this time: wait as the policy says before asking again.
    const std::vector<QString> lines = HeaderLines(request);
    delay = policy.DelayBeforeRetry(failures_in_a_row_, &lines,
                                    static_cast<double>(std::time(nullptr)));
  }
  if (policy.total_deadline_seconds() > 0 &&
      SteadySeconds() + delay - streak_started_ > policy.total_deadline_seconds()) {
    return Finish(failure, status_value);
  }
  std::weak_ptr<int> alive = life_;
  retry_timer_ = kestrel::MainLoop::Default()->PostTimer(delay, [this, alive] {
    if (alive.expired()) return;
    retry_timer_ = 0;
    Send();
  });
}

void ContentDownload::Finish(DownloadOutcome outcome, std::int32_t status_value) {
  if (finished_) return;
  finished_ = true;
  result_.outcome = outcome;
  result_.status = status_value;
  result_.bytes_written = written_;
  DownloadCallback callback = std::move(callback_);
  const DownloadResult result = result_;
  // The download may be deleted inside the callback: nothing of it is touched afterwards.
  if (callback) callback(result);
}

}  // namespace quire
}  // namespace kestrel
