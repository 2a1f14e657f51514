/// @file
/// Downloads a document's content to a file, a QIODevice or functions, as it arrives: resumable,
/// retried, with byte progress, in bounded memory.
#pragma once

#include <QString>
#include <QUrl>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "quire/connection/retry_policy.h"
#include "quire/quire_export.h"
#include "quire/services/download_target.h"

namespace kestrel {
namespace net {
class ConnectionManager;
class NetworkRequest;
class ResponseSink;
}  // namespace net
namespace quire {

class Service;

/// How a download ended (DownloadResult::outcome).
enum class DownloadOutcome {
  kComplete,        ///< the destination holds the whole content
  kHttpError,       ///< the service answered with an error status (DownloadResult::status)
  kNetworkFailure,  ///< no usable answer after the allowed attempts (network, TLS, time-out)
  kWriteFailed,     ///< the destination refused bytes (a full disk, say): DownloadResult::error
  kProtocolError,   ///< the answer contradicts the request or itself: DownloadResult::error
  kCannotRestart,   ///< the content changed and the destination cannot start over (a stream)
  kCancelled,       ///< Cancel() was called
};

/// The settings of one download.
struct DownloadOptions {
  /// Bytes that the destination already holds from an earlier, interrupted download of the same
  /// content; they are asked for no more (Range: bytes=N-) when `etag` is given.
  std::uint64_t resume_from = 0;
  /// The entity tag the earlier download started with; sent as If-Range so that a changed
  /// document is answered whole. Without it, `resume_from` is ignored and the download starts
  /// from byte 0 (a part of unknown version is never extended).
  QString etag;
  /// When to retry a transient failure (a failure without an answer, 408, 429, 500, 502, 503,
  /// 504; see RetryPolicy::IsTransient() for a GET) and how long to wait (exponential back-off
  /// with full jitter, Retry-After honoured up to its cap). A download resumes from the bytes
  /// written, so an attempt that brought new bytes starts a new count: max_attempts() and
  /// total_deadline_seconds() bound the attempts in a row that bring nothing.
  RetryPolicy retry_policy;
  /// Bytes that may wait between the network and the destination; the transfer pauses beyond.
  std::size_t buffer_bytes = std::size_t{8} << 20;
  /// Called on the main thread as bytes reach the destination: the bytes it now holds and the
  /// content's length (-1 while unknown). At most once per written piece.
  std::function<void(std::uint64_t written, std::int64_t total)> progress;
  /// Called on the main thread when an answer has been accepted, before its first byte is
  /// written: the content's entity tag (empty when the service sent none), its length (-1 while
  /// unknown) and the offset its bytes start at (0 when the download starts over). A host that
  /// keeps a part for a later resume records the tag here.
  std::function<void(const QString& etag, std::int64_t total, std::uint64_t from)> started;
};

/// The end of a download, handed once to its callback.
struct DownloadResult {
  /// How it ended.
  DownloadOutcome outcome = DownloadOutcome::kNetworkFailure;
  /// The status of the last answer as in NetworkResponseInfo (0 success, 2 a failure without an
  /// HTTP answer, else the HTTP number; a 206 or 416 that ends a download well is 0).
  std::int32_t status = 2;
  /// Bytes of the content that the destination holds at the end (from byte 0).
  std::uint64_t bytes_written = 0;
  /// Of those, bytes that were there before (kept from `resume_from`).
  std::uint64_t bytes_reused = 0;
  /// Bytes received over the network in all attempts.
  std::uint64_t bytes_transferred = 0;
  /// The content's length, -1 when no answer told it.
  std::int64_t total = -1;
  /// The content's entity tag as the service sent it (empty when it sent none); keep it with a
  /// part to resume it later.
  QString etag;
  /// Requests sent.
  int attempts = 0;
  /// Whether the download started over from byte 0 after the service's answer (a changed entity
  /// tag, a 200 to a range request, a 416 for a part longer than the content).
  bool restarted = false;
  /// What went wrong, in words, for kWriteFailed, kProtocolError and kCannotRestart.
  QString error;
  /// The destination's system error number for kWriteFailed (ENOSPC, EROFS, ...), else 0.
  int error_number = 0;
};

/// Receives the end of a download.
using DownloadCallback = std::function<void(const DownloadResult&)>;

/// Downloads a document's content to a DownloadTarget as it arrives, beside
/// DocsService::GetEntryContent() (which hands the body over whole, in memory).
///
/// The body goes through a kestrel::net::ResponseSink: the transport pauses the transfer while the
/// destination is behind, so memory stays bounded (about DownloadOptions::buffer_bytes) whatever
/// the content's size. Each request carries the service's version line and authorisation line.
///
/// Every answer a server gives is handled: 200 (the whole content; a part kept from before is
/// dropped), 206 whose Content-Range starts exactly where the destination ends and runs to the
/// end of the content, 416 with "bytes */LEN" when the part already holds everything (any other
/// 416 starts over), a changed entity tag (If-Range: answered whole, so the download starts
/// over). A transient failure is retried with exponential back-off and full jitter, resuming from
/// the bytes written under the entity tag of the first answer. An answer that contradicts the
/// request (a Content-Range that is not the one asked for, lengths that disagree, are negative or
/// overflow, more bytes than announced, a 206 of another entity tag) stops the download with
/// kProtocolError; no byte is ever written beyond the announced end of the content.
///
/// Usage: construct with the service whose tokens to use, Start() once, run the main loop until
/// the callback has come. The callback runs exactly once, on the main loop's thread, never inside
/// Start(); the download may be deleted inside it. Delete it only after its callback (or before
/// Start()). Allocated through the memory manager. Main thread only.
class QUIRE_EXPORT ContentDownload {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// A download that authorises its requests with `service`'s access token (read at each
  /// request), which must outlive it. Its requests go through the transport installed now
  /// (kestrel::net::TransportRegistry).
  explicit ContentDownload(const Service* service);
  /// Must not run while a download is in flight (see the class description).
  ~ContentDownload();
  ContentDownload(const ContentDownload&) = delete;
  ContentDownload& operator=(const ContentDownload&) = delete;

  /// Starts downloading `url` (a DocsEntry's content_src) into `target`. Only once per object.
  void Start(const QUrl& url, DownloadTarget target, DownloadOptions options,
             DownloadCallback callback);
  /// Stops the download: the transfer is taken off the wire at once (ConnectionManager::
  /// CancelRequest()), the callback comes with kCancelled (later, on the main loop, never inside
  /// this call), and the bytes written so far stay in the destination for a later resume. Does
  /// nothing after the callback, or when called again.
  void Cancel();

  /// The bytes the destination holds now.
  std::uint64_t written() const { return written_; }

 private:
  class RequestCallback;
  friend class RequestCallback;

  void Send();
  bool OnHead(int http_status, const std::vector<QString>& headers);
  bool OnPiece(const char* data, std::size_t size);
  void OnComplete(kestrel::net::NetworkRequest* request);
  // Retries a failed attempt under the retry policy (`code`: the network layer's code, 0 when
  // unknown), or ends the download.
  void RetryOrFail(std::int32_t status, std::uint32_t code,
                   const kestrel::net::NetworkRequest* request);
  void StartOver();
  void Finish(DownloadOutcome outcome, std::int32_t status);
  bool Fail(DownloadOutcome outcome, const QString& error);

  const Service* service_;
  kestrel::net::ConnectionManager* manager_;
  RequestCallback* callback_adaptor_ = nullptr;
  kestrel::net::ResponseSink* sink_ = nullptr;
  kestrel::net::NetworkRequest* request_ = nullptr;  // in flight, with a reference of ours
  std::uint64_t retry_timer_ = 0;                    // the back-off wait, 0 when none
  QUrl url_;
  DownloadTarget target_;
  DownloadOptions options_;
  DownloadCallback callback_;
  DownloadResult result_;
  std::uint64_t written_ = 0;
  // The current attempt.
  std::uint64_t offset_ = 0;    // where this answer's bytes go
  std::uint64_t received_ = 0;  // bytes of this answer written
  std::int64_t expected_ = -1;  // bytes this answer announced, -1 unknown
  bool head_seen_ = false;
  bool sent_range_ = false;
  int failures_in_a_row_ = 0;
  double streak_started_ = 0;  // steady seconds of the first failure in a row
  bool cancelled_ = false;
  bool finished_ = false;
  bool failed_ = false;  // a violation or write failure already decided the outcome
  DownloadOutcome failure_outcome_ = DownloadOutcome::kProtocolError;
  // Jobs posted for later hold a weak reference: they do nothing once the download is gone.
  std::shared_ptr<int> life_;
};

}  // namespace quire
}  // namespace kestrel
