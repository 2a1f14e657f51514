#include "tools/quire/request_log.h"

#include <iomanip>
#include <iterator>
#include <sstream>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/network_request.h"
#include "kestrel/net/network_status.h"

namespace quire_cli {
namespace {

using kestrel::net::HttpRequest;
using kestrel::net::NetworkRequest;

// How often the completions of requests in flight are looked for.
constexpr double kPollSeconds = 0.002;

const char* MethodName(HttpRequest::MethodType method) {
  // Indexed by HttpRequest::MethodType, whose values are fixed.
  static const char* const kNames[] = {"GET", "POST", "PUT", "DELETE"};
  const int index = static_cast<int>(method);
  return index >= 0 && index < static_cast<int>(std::size(kNames)) ? kNames[index] : "?";
}

// The request's header records as lines, in sending order.
std::vector<QString> RequestLines(const HttpRequest& http) {
  std::vector<QString> lines;
  for (const kestrel::net::RequestHeader& header : http.headers()) {
    lines.push_back(header.value.isNull() ? header.name
                                          : header.name + QStringLiteral(": ") + header.value);
  }
  return lines;
}

// Content-Range tells apart the chunks of an upload, which share method, URL and size.
QString ContentRange(const HttpRequest& http) {
  for (const QString& line : RequestLines(http)) {
    if (line.startsWith(QLatin1String("Content-Range:"), Qt::CaseInsensitive)) return line;
  }
  return QString();
}

}  // namespace

RequestLog::RequestLog(kestrel::net::ITransport* inner, std::ostream* log, int verbosity)
    : inner_(inner), log_(log), verbosity_(verbosity), alive_(std::make_shared<bool>(true)) {}

RequestLog::~RequestLog() {
  Poll();
  for (const Entry& entry : running_) NetworkRequest::ReleaseRef(entry.request);
}

void RequestLog::Start(NetworkRequest* request, const kestrel::net::ServerInfo& server,
                       const kestrel::net::ConnectionOptions& options) {
  Poll();
  const HttpRequest& http = *request->GetHttpRequest();
  const QString key = QString::fromLatin1(MethodName(http.method())) + QLatin1Char(' ') +
                      http.url() + QLatin1Char(' ') + QString::number(http.body().size()) +
                      QLatin1Char(' ') + ContentRange(http);
  last_attempt_ = key == last_key_ ? last_attempt_ + 1 : 1;
  last_key_ = key;
  if (verbosity_ >= 2) {
    *log_ << "> " << MethodName(http.method()) << ' ' << http.url().toStdString() << '\n';
    for (const QString& line : RequestLines(http)) {
      *log_ << "> " << MaskHeaderLine(line).toStdString() << '\n';
    }
    *log_ << std::flush;
  }
  NetworkRequest::AddRef(request);
  running_.push_back({request, std::chrono::steady_clock::now(), last_attempt_});
  inner_->Start(request, server, options);
  QueuePoll();
}

void RequestLog::Poll() {
  std::vector<Entry> still_running;
  for (const Entry& entry : running_) {
    if (entry.request->completed()) {
      Report(entry);
      NetworkRequest::ReleaseRef(entry.request);
    } else {
      still_running.push_back(entry);
    }
  }
  running_.swap(still_running);
  if (!running_.empty()) QueuePoll();
}

void RequestLog::QueuePoll() {
  if (poll_queued_) return;
  poll_queued_ = true;
  std::weak_ptr<bool> alive = alive_;
  kestrel::MainLoop::Default()->PostDelayed(kPollSeconds, [this, alive] {
    if (alive.lock()) {
      poll_queued_ = false;
      Poll();
    }
  });
}

void RequestLog::Report(const Entry& entry) {
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - entry.start).count();
  const HttpRequest& http = *entry.request->GetHttpRequest();
  if (verbosity_ >= 2) {
    for (int i = 0; i < http.GetResponseHeaderCount(); ++i) {
      const QString* line = http.GetResponseHeader(i);
      if (line != nullptr) *log_ << "< " << MaskHeaderLine(*line).toStdString() << '\n';
    }
  }
  const std::size_t received = http.GetResponseBuffer() ? http.GetResponseBuffer()->size() : 0;
  std::ostringstream line;
  line << MethodName(http.method()) << ' ' << http.url().toStdString() << " -> "
       << DescribeCode(http.GetResponseStatus()) << ", sent " << http.body().size()
       << " bytes, received " << received << " bytes, " << std::fixed << std::setprecision(3)
       << seconds << " s, attempt " << entry.attempt << '\n';
  *log_ << line.str() << std::flush;
}

QString RequestLog::MaskHeaderLine(const QString& line) {
  const int colon = line.indexOf(QLatin1Char(':'));
  if (colon < 0) return line;
  const QString name = line.left(colon).trimmed();
  static const char* const kSecret[] = {"Authorization", "Proxy-Authorization", "Cookie",
                                        "Set-Cookie"};
  for (const char* secret : kSecret) {
    if (name.compare(QLatin1String(secret), Qt::CaseInsensitive) != 0) continue;
    const QString value = line.mid(colon + 1).trimmed();
    const int space = value.indexOf(QLatin1Char(' '));
    // "Bearer" or "Basic" stays: it tells which kind of credential was sent, not the credential.
    const bool has_scheme =
        space > 0 && name.endsWith(QLatin1String("Authorization"), Qt::CaseInsensitive);
    return line.left(colon) + QStringLiteral(": ") +
           (has_scheme ? value.left(space + 1) : QString()) + QStringLiteral("<masked>");
  }
  return line;
}

std::string RequestLog::DescribeCode(std::uint32_t code) {
  namespace status = kestrel::net::status;
  if (code >= status::kHttpSuccessBase && code < status::kHttpSuccessBase + 400) {
    return std::to_string(code - status::kHttpSuccessBase);
  }
  if (code >= status::kHttpErrorBase + 400 && code < status::kHttpErrorBase + 1000) {
    return std::to_string(code - status::kHttpErrorBase);
  }
  static const struct {
    std::uint32_t code;
    const char* text;
  } kFailures[] = {
      {status::kErrorNameNotResolved, "failed: name not resolved"},
      {status::kErrorConnectionRefused, "failed: connection refused"},
      {status::kErrorConnectionReset, "failed: connection reset"},
      {status::kErrorTls, "failed: TLS"},
      {status::kErrorCertificate, "failed: TLS"},
      {status::kErrorTimedOut, "failed: timed out"},
      {status::kErrorResponseTruncated, "failed: response truncated"},
      {status::kErrorInvalidRequest, "failed: invalid request"},
      {status::kErrorNoTransport, "failed: no transport"},
      {status::kErrorSendFailed, "failed: send failed"},
  };
  for (const auto& failure : kFailures) {
    if (failure.code == code) return failure.text;
  }
  std::ostringstream text;
  text << "failed: code 0x" << std::hex << code;
  return text.str();
}

}  // namespace quire_cli
