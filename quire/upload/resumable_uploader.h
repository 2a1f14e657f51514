/// @file
/// A resumable upload of a file or a stream of any size that recovers from failures by itself.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <functional>
#include <memory>

#include "kestrel/base/main_loop.h"
#include "kestrel/base/memory_manager.h"
#include "quire/connection/i_connection.h"
#include "quire/connection/network_response_info.h"
#include "quire/connection/retry_policy.h"
#include "quire/quire_export.h"

class QIODevice;

namespace kestrel {
namespace quire {

class ITransferConnection;
namespace internal {
class UploadSource;
}

/// A resumable upload of a file or a stream of any size that recovers from failures by itself.
///
/// **On the wire** it speaks the protocol of ConnectionUtils: a POST of the metadata with
/// "Content-Type: application/atom+xml", `X-Upload-Content-Type` and `X-Upload-Content-Length`,
/// whose answer's "Location" is the session address; then PUTs of at most chunk_size() bytes with
/// "Content-Length", "Content-Type" and `Content-Range: bytes <first>-<last>/<total>`, each
/// answered 308 with `Range: bytes=0-<last held>` until the last one is answered 200 or 201. Each
/// chunk starts right after the last byte the server holds. Positions are 64-bit, so sources of
/// 4 GiB and more go up wherever the server takes them.
///
/// **Memory.** The source is read chunk by chunk as the upload goes: at most two chunks are in
/// memory at any time, whatever the source's size.
///
/// **Recovery.** When a chunk fails (an answer the policy calls transient, a connection that broke,
/// any failure without an answer) or a 308 reports less than was sent, the uploader waits the
/// policy's backoff (or the answer's `Retry-After`), asks the session where it stands
/// (`Content-Range: bytes */<total>`, no body) and goes on from the server's answer. A transient
/// failure of the opening POST is retried too (it only opens a session). Up to
/// RetryPolicy::max_attempts() failures in a row are absorbed (any progress starts the count
/// again), within RetryPolicy::total_deadline_seconds() from the first of them.
///
/// **Resuming after a restart.** session_url() (and the session callback) give the session
/// address as soon as it is known; a later process hands it to Resume() with the same source, and
/// the upload goes on from what the server holds. If the session is gone (404 or 410), a new one
/// is opened only when the host allowed it (set_allow_new_session()) and gave the POST's address
/// and metadata; otherwise the upload fails with that status and error() kSessionGone.
///
/// **The source must not change.** A file's size and modification time are checked before each
/// chunk is read and again before it is sent; a stream's bytes must keep coming. A source that
/// shrinks or changes fails the upload (status 2, error() kSourceChanged) before a changed byte is
/// sent, so the server never holds a torn document.
///
/// **The callback** is called exactly once per upload, later, on the main loop's thread, never
/// inside the call that started it:
/// - status 0 (or the server's own success status passed through): done; the info and body are the
///   server's answer to the last request (the document's entry);
/// - kStatusCancelled (3): Cancel() was called;
/// - an HTTP status of the server (400 to 416, 500 to 505, ...) passed through unchanged: a
///   permanent refusal, or the last of too many transient failures; the server's header lines
///   are given, the body is empty;
/// - 2: a failure without a usable answer after the last attempt, or one made up here (null header
///   list, empty body): error() says which.
///
/// The info's request id is that of the last request sent (Start() and Resume() return the first
/// one's). error() tells the kind of failure (kNone on success).
///
/// **Connection.** Borrowed, like ConnectionUtils: keep it alive until the callback has come. Give
/// it a Connection initialised with the lines every request needs (the version and the
/// authorisation lines); when it is an ITransferConnection (Connection is), byte progress comes
/// from the wire and Cancel() stops the transfer on it. The uploader applies its own policy, so a
/// RetryingConnection underneath is not needed.
///
/// **Lifetime.** One upload at a time per uploader. The host may delete the uploader at any time,
/// also inside its own callbacks; a running upload is then dropped without its callback (the
/// request in flight is stopped). Allocated through the default memory manager. Main thread only.
class QUIRE_EXPORT ResumableUploader {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// What went wrong, for a host that explains it.
  enum Error {
    kNone = 0,          ///< no failure (yet)
    kCancelled,         ///< Cancel() was called
    kInvalidArgument,   ///< no source, a chunk size of 0, an empty address
    kSourceUnreadable,  ///< the file could not be opened or read, or the stream is not readable
    kSourceChanged,     ///< the source shrank or changed during the upload
    kSessionGone,       ///< the session answered 404 or 410 and no new one was allowed
    kNoSessionAddress,  ///< the POST's answer had no "Location"
    kBadRange,          ///< the server reported holding bytes beyond the data
    kServerRefused,     ///< the server answered with a status that is not transient
    kRetriesExhausted,  ///< transient failures went on past the policy's attempts or deadline
  };

  /// How far the upload has got, in bytes.
  struct Progress {
    /// Bytes handed to the network so far: those the server confirmed plus what has left of the
    /// chunk in flight.
    std::int64_t bytes_sent = 0;
    /// Bytes the server has confirmed holding.
    std::int64_t bytes_confirmed = 0;
    /// The source's size.
    std::int64_t total_bytes = 0;
    /// Retries since the upload started.
    int retries = 0;
  };
  /// Hears of the upload's progress: while a chunk moves (at least every 256 KiB or 100 ms when
  /// the connection reports bytes) and whenever the server confirms bytes. Main thread.
  using ProgressCallback = std::function<void(const Progress& progress)>;
  /// Hears of the session address once the POST's answer (or Resume()) has given it.
  using SessionCallback = std::function<void(const QString& session_url)>;

  /// `connection` is borrowed; `chunk_size` is the largest number of data bytes of one PUT (0 is
  /// refused at Start(); above 1 GiB it is taken as 1 GiB); `policy` governs recovery.
  ResumableUploader(IConnection* connection, std::uint32_t chunk_size,
                    const RetryPolicy& policy = RetryPolicy());
  /// Drops a running upload without its callback, stopping its request in flight.
  ~ResumableUploader();
  ResumableUploader(const ResumableUploader&) = delete;
  ResumableUploader& operator=(const ResumableUploader&) = delete;

  /// Uploads the file at `file_path`: a POST of `metadata` (Atom XML, sent as UTF-8) to `url`
  /// opens the session, for content of `content_type`. Returns the POST's request id, or 0 when
  /// the upload could not start (the callback then reports why, later). While an upload runs,
  /// another Start() or Resume() is refused: its own callback gets status 2, later, and the
  /// running upload goes on.
  unsigned int Start(const QString& url, const QString& metadata, const QString& content_type,
                     const QString& file_path, ResponseCallback callback);
  /// Uploads what `device` (borrowed, open for reading, kept alive until the callback) holds from
  /// its current position on: `total_bytes` of it, or, when that is negative, the rest of a
  /// random-access device (size() minus pos()). A sequential device is read once; recovery then
  /// works as long as the server goes back no further than the chunk in memory.
  unsigned int Start(const QString& url, const QString& metadata, const QString& content_type,
                     QIODevice* device, std::int64_t total_bytes, ResponseCallback callback);
  /// Goes on with the upload whose session address is `session_url` (from session_url() of an
  /// earlier run), from the file at `file_path`: asks the session where it stands, then sends the
  /// rest. `url` and `metadata` open a new session if this one is gone and set_allow_new_session()
  /// allowed it (they may be empty otherwise). Returns the first request's id, or 0.
  unsigned int Resume(const QString& session_url, const QString& url, const QString& metadata,
                      const QString& content_type, const QString& file_path,
                      ResponseCallback callback);
  /// Cancels the running upload: the request in flight is stopped (on the wire when the connection
  /// is an ITransferConnection, else through its Cancel()), a pending wait is taken off the main
  /// loop, and the callback comes once, on the next turn of the main loop, with kStatusCancelled.
  /// The session stays on the server (Resume() can go on later). Does nothing when no upload runs
  /// or it was already cancelled.
  void Cancel();

  /// Whether a session that is gone may be replaced by a new one (default false).
  void set_allow_new_session(bool allow) { allow_new_session_ = allow; }
  /// Sets the progress callback (empty: none).
  void set_progress_callback(ProgressCallback callback) {
    progress_callback_ = std::move(callback);
  }
  /// Sets the session callback (empty: none).
  void set_session_callback(SessionCallback callback) { session_callback_ = std::move(callback); }

  /// Whether an upload is running (started and its callback not yet called).
  bool running() const { return state_ != kIdle; }
  /// The session address, once known; empty before.
  const QString& session_url() const { return session_url_; }
  /// The figures of the running (or last) upload.
  const Progress& progress() const { return progress_; }
  /// The kind of the last upload's failure; kNone while it runs and after success.
  Error error() const { return error_; }
  /// The largest number of data bytes of one PUT.
  std::uint32_t chunk_size() const { return chunk_size_; }
  /// The recovery policy.
  const RetryPolicy& policy() const { return policy_; }

 private:
  enum State { kIdle, kOpening, kSending, kQuerying, kWaiting };
  struct Token;

  // Prepares a new upload; false when it cannot start (another one runs, or the arguments are not
  // valid: `arguments_valid` false is an invalid argument too), the callback then told later.
  bool Begin(const QString& url, const QString& metadata, const QString& content_type,
             bool arguments_valid, ResponseCallback* callback);
  bool OpenFile(const QString& file_path, ResponseCallback* callback);
  unsigned int SendPost();
  unsigned int SendQuery();
  void SendChunk();
  unsigned int Issue(std::uint32_t method, const QString& url, const QByteArray* body,
                     const std::vector<QString>& headers, bool track_bytes);
  void OnAnswer(NetworkResponseInfo info, const QByteArray& body, std::uint32_t code);
  void OnPostAnswer(const NetworkResponseInfo& info, std::uint32_t code);
  void OnSessionAnswer(const NetworkResponseInfo& info, const QByteArray& body, std::uint32_t code);
  bool ReadRange(const NetworkResponseInfo& info, std::int64_t* held) const;
  void Recover(const NetworkResponseInfo& info, std::uint32_t code, State next);
  bool ReadChunk(std::int64_t position, std::int64_t length, QByteArray* out);
  void Confirmed(std::int64_t held);
  // Tells the progress callback; false when the upload is over for this object afterwards (the
  // uploader was deleted, or the upload cancelled, inside the callback).
  bool Report();
  void FailLater(Error error, ResponseCallback callback);
  void Fail(Error error, NetworkResponseInfo info);
  void Finish(Error error, NetworkResponseInfo info, const QByteArray& body);
  void Reset();

  IConnection* connection_;
  ITransferConnection* transfer_connection_;
  std::uint32_t chunk_size_;
  RetryPolicy policy_;
  bool allow_new_session_ = false;
  ProgressCallback progress_callback_;
  SessionCallback session_callback_;

  // The running upload.
  State state_ = kIdle;
  ResponseCallback callback_;
  QString post_url_;
  QString metadata_;
  QString content_type_;
  QString session_url_;
  std::unique_ptr<internal::UploadSource> source_;
  Progress progress_;
  Error error_ = kNone;
  // The chunk in flight (or kept for a sequential device) and where it starts.
  QByteArray chunk_;
  std::int64_t chunk_position_ = 0;
  std::uint32_t last_request_id_ = 0;
  std::uint64_t generation_ = 0;  // tells the answer of the current request from stale ones
  int failures_in_a_row_ = 0;
  double first_failure_at_ = 0;
  bool gone_once_ = false;  // a new session was already opened for a gone one
  kestrel::MainLoop::TimerId timer_ = 0;
  std::shared_ptr<Token> token_;
};

}  // namespace quire
}  // namespace kestrel
