#include "kestrel/net/internal/curl_transfer.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/internal/header_lines.h"

namespace kestrel {
namespace net {
namespace internal {
namespace {

// libcurl's receive buffer: large reads mean few calls into the body writer on big downloads.
constexpr long kReceiveBufferBytes = 512 * 1024;
// libcurl's upload buffer (its maximum is 2 MiB).
constexpr long kUploadBufferBytes = 1024 * 1024;
// A Content-Length up to this is reserved in one piece before the first body byte; beyond it the
// buffer grows as bytes arrive, so a server cannot make us reserve what it never sends.
constexpr curl_off_t kMaxReservedBodyBytes = curl_off_t{2} * 1024 * 1024 * 1024;
// A request with a response sink keeps at most this much of a body that is not 2xx (an error
// document) in its buffer; a longer one stops the transfer.
constexpr std::size_t kMaxSinkErrorBodyBytes = std::size_t{1} << 20;
// Progress is reported whenever this many more bytes have moved, or kProgressInterval has passed
// with bytes moving (and never while a report of the same request waits in the main loop).
constexpr curl_off_t kProgressBytes = 256 * 1024;
constexpr std::chrono::milliseconds kProgressInterval(100);
// The largest value libcurl's long time options take here.
constexpr double kMaxLongOption = 2e9;

long ClampToLong(double value) {
  return value > kMaxLongOption ? static_cast<long>(kMaxLongOption) : static_cast<long>(value);
}

// libcurl's progress callback: reports when 256 KiB more have moved or 100 ms have passed with
// bytes moving.
int OnTransferInfo(void* user, curl_off_t download_total, curl_off_t download_now,
                   curl_off_t /*upload_total*/, curl_off_t upload_now) {
  auto* transfer = static_cast<CurlTransfer*>(user);
  transfer->sent = upload_now;
  transfer->received = download_now;
  transfer->to_receive = download_total > 0 ? download_total : transfer->content_length;
  const curl_off_t moved = upload_now + download_now - transfer->reported_bytes;
  if (moved <= 0) return 0;
  if (moved >= kProgressBytes ||
      std::chrono::steady_clock::now() - transfer->reported_at >= kProgressInterval) {
    transfer->ReportProgress();
  }
  return 0;
}

// --- libcurl callbacks (I/O thread).

size_t OnHeaderLine(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<CurlTransfer*>(user);
  const size_t total = size * count;
  const ResponseHeaderLine line = ReadResponseHeaderLine(data, total, transfer->keep_headers);
  switch (line.kind) {
    case ResponseHeaderLine::kEnd:
      transfer->header_complete = true;
      break;
    case ResponseHeaderLine::kStatusLine:
      // A status line starts a new response; what an interim (1xx) response said is dropped.
      transfer->response_code = line.status_code;
      transfer->sink_head_sent = false;
      transfer->content_length = -1;
      transfer->header_complete = false;
      transfer->http->ClearResponse();
      transfer->last_line = QString();
      break;
    case ResponseHeaderLine::kContinuation:
      // An obsolete continuation line: joins the previous line's value with one blank.
      if (!transfer->last_line.isNull() && !line.text.isNull()) {
        transfer->last_line.append(QLatin1Char(' '));
        transfer->last_line.append(line.text);
      }
      break;
    case ResponseHeaderLine::kField:
    case ResponseHeaderLine::kOther:
      if (line.is_content_length) transfer->content_length = line.content_length;
      if (transfer->keep_headers) {
        transfer->FlushLastLine();
        transfer->last_line = line.text;
      }
      break;
  }
  return total;
}

size_t OnSinkBytes(CurlTransfer* transfer, char* data, size_t total) {
  if (!transfer->sink_head_sent) {
    transfer->sink_head_sent = true;
    // The header block is complete once the body starts: no continuation line can follow.
    transfer->FlushLastLine();
    transfer->last_line = QString();
    std::vector<QString> lines;
    const HttpRequest* http = transfer->http;
    lines.reserve(static_cast<std::size_t>(http->GetResponseHeaderCount()));
    for (int i = 0; i < http->GetResponseHeaderCount(); ++i) {
      lines.push_back(*http->GetResponseHeader(i));
    }
    transfer->sink->PushHead(transfer->response_code, std::move(lines));
  }
  switch (transfer->sink->Push(data, total)) {
    case ResponseSink::PushResult::kTaken:
      return total;
    case ResponseSink::PushResult::kFull:
      transfer->paused = true;
      return CURL_WRITEFUNC_PAUSE;
    case ResponseSink::PushResult::kStopped:
    default:
      return 0;
  }
}

size_t OnBodyBytes(char* data, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<CurlTransfer*>(user);
  const size_t total = size * count;
  if (transfer->sink != nullptr) {
    if (transfer->response_code >= 200 && transfer->response_code <= 299) {
      return OnSinkBytes(transfer, data, total);
    }
    const ByteBuffer* kept = transfer->http->GetResponseBuffer();
    if (kept != nullptr && kept->size() + total > kMaxSinkErrorBodyBytes) return 0;
    transfer->http->MutableResponseBuffer()->Append(data, total);
    return total;
  }
  if (transfer->buffer == nullptr) {
    transfer->buffer = transfer->http->MutableResponseBuffer();
    if (transfer->content_length > 0) {
      const auto reserved =
          static_cast<std::size_t>(std::min(transfer->content_length, kMaxReservedBodyBytes));
      if (reserved >= BodyStorage::kMinBytes) {
        transfer->buffer->ReserveFrom(transfer->storage, reserved);
      } else {
        transfer->buffer->Reserve(reserved);
      }
    }
  }
  transfer->buffer->Append(data, total);
  return total;
}

size_t OnUploadBytes(char* out, size_t size, size_t count, void* user) {
  auto* transfer = static_cast<CurlTransfer*>(user);
  const size_t room = size * count;
  const size_t left = transfer->body_size - transfer->body_offset;
  const size_t n = std::min(room, left);
  if (n > 0) std::memcpy(out, transfer->body + transfer->body_offset, n);
  transfer->body_offset += n;
  return n;
}

// libcurl rewinds the body when it sends the request again on a fresh connection.
int OnUploadSeek(void* user, curl_off_t offset, int origin) {
  auto* transfer = static_cast<CurlTransfer*>(user);
  if (origin != SEEK_SET || offset < 0 || static_cast<std::size_t>(offset) > transfer->body_size) {
    return CURL_SEEKFUNC_CANTSEEK;
  }
  transfer->body_offset = static_cast<std::size_t>(offset);
  return CURL_SEEKFUNC_OK;
}

}  // namespace

CurlTransfer::~CurlTransfer() {
  curl_slist_free_all(headers);
  curl_url_cleanup(url);
}

void CurlTransfer::FlushLastLine() {
  if (!last_line.isNull()) http->AddResponseHeader(last_line);
}

void CurlTransfer::ReportProgress() {
  TransferProgress progress;
  progress.bytes_sent = sent;
  progress.bytes_to_send = static_cast<std::int64_t>(body_size);
  progress.bytes_received = received;
  progress.bytes_to_receive = to_receive;
  reported_bytes = sent + received;
  reported_at = std::chrono::steady_clock::now();
  if (!request->UpdateProgress(progress)) return;
  NetworkRequest::AddRef(request);
  MainLoop::Default()->Post([request = request] {
    request->DeliverProgress();
    NetworkRequest::ReleaseRef(request);
  });
}

void CurlTransfer::ReportFinalProgress() {
  curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &sent);
  curl_easy_getinfo(easy, CURLINFO_SIZE_DOWNLOAD_T, &received);
  if (sent + received != reported_bytes) ReportProgress();
}

// Hands a finished request to the main loop, which reports it and drops the transport's reference.
void PostCompletion(NetworkRequest* request) {
  MainLoop::Default()->Post([request] {
    request->Complete();
    NetworkRequest::ReleaseRef(request);
  });
}

void CurlTransfer::SetUpHandle(CURL* handle) {
  curl_easy_setopt(handle, CURLOPT_PRIVATE, this);
  curl_easy_setopt(handle, CURLOPT_CURLU, url);
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  settings->Apply(handle, secure, proxied, send_user_agent);
  curl_easy_setopt(handle, CURLOPT_BUFFERSIZE, kReceiveBufferBytes);
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &OnHeaderLine);
  curl_easy_setopt(handle, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &OnBodyBytes);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, this);
  if (report_progress) {
    reported_at = std::chrono::steady_clock::now();
    curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, &OnTransferInfo);
    curl_easy_setopt(handle, CURLOPT_XFERINFODATA, this);
    curl_easy_setopt(handle, CURLOPT_NOPROGRESS, 0L);
  }

  // Connection options.
  if (!options.keep_alive || options.max_idle_connections_per_host <= 0) {
    curl_easy_setopt(handle, CURLOPT_FORBID_REUSE, 1L);
  }
  if (options.idle_connection_seconds > 0) {
    curl_easy_setopt(handle, CURLOPT_MAXAGE_CONN,
                     static_cast<long>(options.idle_connection_seconds));
  }
  if (options.stall_timeout_seconds > 0) {
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS,
                     ClampToLong(std::ceil(options.stall_timeout_seconds * 1000.0)));
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(handle, CURLOPT_LOW_SPEED_TIME,
                     ClampToLong(std::max(1.0, std::round(options.stall_timeout_seconds))));
  }

  // Method and body. The body is read straight out of the request's QByteArray, which the request
  // keeps alive until it is released after completion.
  switch (method) {
    case HttpRequest::kPost:
      curl_easy_setopt(handle, CURLOPT_POST, 1L);
      curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body_size));
      curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body);
      break;
    case HttpRequest::kPut:
      curl_easy_setopt(handle, CURLOPT_UPLOAD, 1L);
      curl_easy_setopt(handle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(body_size));
      curl_easy_setopt(handle, CURLOPT_READFUNCTION, &OnUploadBytes);
      curl_easy_setopt(handle, CURLOPT_READDATA, this);
      curl_easy_setopt(handle, CURLOPT_SEEKFUNCTION, &OnUploadSeek);
      curl_easy_setopt(handle, CURLOPT_SEEKDATA, this);
      curl_easy_setopt(handle, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferBytes);
      break;
    case HttpRequest::kDelete:
      curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
      curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, "DELETE");
      break;
    case HttpRequest::kGet:
    default:
      curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
      break;
  }
}

}  // namespace internal
}  // namespace net
}  // namespace kestrel
