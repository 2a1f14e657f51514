#include "quire/upload/resumable_uploader.h"

#include <QDateTime>
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>
#include <vector>

#include "kestrel/net/network_status.h"
#include "quire/connection/i_transfer_connection.h"
#include "quire/upload/internal/upload_source.h"

namespace kestrel {
namespace quire {
namespace {

// QByteArray holds at most about 2 GiB; chunks stay well below.
constexpr std::uint32_t kMaxChunk = 1u << 30;

double SteadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double UnixSeconds() { return static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000.0; }

// A decimal number of 1 to 18 digits, nothing else.
bool ParseDigits(const QString& text, std::int64_t* out) {
  if (text.isEmpty() || text.size() > 18) return false;
  std::int64_t value = 0;
  for (QChar c : text) {
    if (c < QLatin1Char('0') || c > QLatin1Char('9')) return false;
    value = value * 10 + (c.unicode() - '0');
  }
  *out = value;
  return true;
}

NetworkResponseInfo MadeUp(std::uint32_t request_id) {
  return NetworkResponseInfo{request_id, kStatusFailure, nullptr};
}

}  // namespace

// Shared with the jobs and completions of the upload, so that they find out whether the uploader
// still exists.
struct ResumableUploader::Token {
  ResumableUploader* owner = nullptr;
};

ResumableUploader::ResumableUploader(IConnection* connection, std::uint32_t chunk_size,
                                     const RetryPolicy& policy)
    : connection_(connection),
      transfer_connection_(dynamic_cast<ITransferConnection*>(connection)),
      chunk_size_(std::min(chunk_size, kMaxChunk)),
      policy_(policy),
      source_(new internal::UploadSource),
      token_(std::allocate_shared<Token>(MMAlloc<Token>())) {
  token_->owner = this;
}

ResumableUploader::~ResumableUploader() {
  token_->owner = nullptr;
  if (state_ == kWaiting) {
    kestrel::MainLoop::Default()->CancelTimer(timer_);
  } else if (state_ != kIdle && connection_ != nullptr) {
    if (transfer_connection_ != nullptr) {
      transfer_connection_->Abort(last_request_id_);
    } else {
      connection_->Cancel(last_request_id_);
    }
  }
  Reset();
}

bool ResumableUploader::Begin(const QString& url, const QString& metadata,
                              const QString& content_type, bool arguments_valid,
                              ResponseCallback* callback) {
  if (!*callback) std::abort();  // an empty callback is a programming error
  if (state_ != kIdle) {
    // The running upload is left alone; only the new caller hears of the refusal.
    ResponseCallback refused = std::move(*callback);
    kestrel::MainLoop::Default()->Post([refused] { refused(MadeUp(0), QByteArray()); });
    return false;
  }
  post_url_ = url;
  metadata_ = metadata;
  content_type_ = content_type;
  session_url_.clear();
  progress_ = Progress();
  error_ = kNone;
  chunk_ = QByteArray();
  chunk_position_ = 0;
  failures_in_a_row_ = 0;
  gone_once_ = false;
  if (connection_ == nullptr || chunk_size_ == 0 || !arguments_valid) {
    FailLater(kInvalidArgument, std::move(*callback));
    return false;
  }
  return true;
}

bool ResumableUploader::OpenFile(const QString& file_path, ResponseCallback* callback) {
  if (!source_->OpenFile(file_path)) {
    FailLater(kSourceUnreadable, std::move(*callback));
    return false;
  }
  progress_.total_bytes = source_->file_size();
  return true;
}

unsigned int ResumableUploader::Start(const QString& url, const QString& metadata,
                                      const QString& content_type, const QString& file_path,
                                      ResponseCallback callback) {
  if (!Begin(url, metadata, content_type, !url.isEmpty(), &callback) ||
      !OpenFile(file_path, &callback)) {
    return 0;
  }
  callback_ = std::move(callback);
  return SendPost();
}

unsigned int ResumableUploader::Start(const QString& url, const QString& metadata,
                                      const QString& content_type, QIODevice* device,
                                      std::int64_t total_bytes, ResponseCallback callback) {
  if (!Begin(url, metadata, content_type, !url.isEmpty() && device != nullptr, &callback)) {
    return 0;
  }
  const Error opened = source_->OpenDevice(device, &total_bytes);
  if (opened != kNone) {
    FailLater(opened, std::move(callback));
    return 0;
  }
  progress_.total_bytes = total_bytes;
  callback_ = std::move(callback);
  return SendPost();
}

unsigned int ResumableUploader::Resume(const QString& session_url, const QString& url,
                                       const QString& metadata, const QString& content_type,
                                       const QString& file_path, ResponseCallback callback) {
  if (!Begin(url, metadata, content_type, !session_url.isEmpty(), &callback) ||
      !OpenFile(file_path, &callback)) {
    return 0;
  }
  callback_ = std::move(callback);
  session_url_ = session_url;
  return SendQuery();
}

void ResumableUploader::Cancel() {
  if (state_ == kIdle) return;
  if (state_ == kWaiting) {
    kestrel::MainLoop::Default()->CancelTimer(timer_);
  } else if (transfer_connection_ != nullptr) {
    transfer_connection_->Abort(last_request_id_);
  } else {
    connection_->Cancel(last_request_id_);
  }
  ++generation_;  // whatever still comes of the stopped request is ignored
  ResponseCallback callback = std::move(callback_);
  const std::uint32_t id = last_request_id_;
  error_ = kCancelled;
  Reset();
  // Later, and whatever becomes of the uploader meanwhile: the caller counts on its callback.
  kestrel::MainLoop::Default()->Post([callback, id] {
    callback(NetworkResponseInfo{id, kStatusCancelled, nullptr}, QByteArray());
  });
}

unsigned int ResumableUploader::SendPost() {
  state_ = kOpening;
  const QByteArray body = metadata_.toUtf8();
  const std::vector<QString> headers{
      QStringLiteral("Content-Type: application/atom+xml"),
      QStringLiteral("X-Upload-Content-Type: %1").arg(content_type_),
      QStringLiteral("X-Upload-Content-Length: %1").arg(progress_.total_bytes)};
  return Issue(kMethodPost, post_url_, &body, headers, false);
}

unsigned int ResumableUploader::SendQuery() {
  state_ = kQuerying;
  const std::vector<QString> headers{
      QStringLiteral("Content-Length: 0"),
      QStringLiteral("Content-Range: bytes */%1").arg(progress_.total_bytes)};
  return Issue(kMethodPut, session_url_, nullptr, headers, false);
}

void ResumableUploader::SendChunk() {
  const std::int64_t total = progress_.total_bytes;
  const std::int64_t position = progress_.bytes_confirmed;
  if (position >= total) {
    SendQuery();  // nothing to send (an empty source): the session says whether it is done
    return;
  }
  const std::int64_t length = std::min<std::int64_t>(chunk_size_, total - position);
  QByteArray next;
  if (!ReadChunk(position, length, &next)) return;  // failed already
  chunk_ = next;
  chunk_position_ = position;
  state_ = kSending;
  const std::vector<QString> headers{QStringLiteral("Content-Length: %1").arg(length),
                                     QStringLiteral("Content-Type: %1").arg(content_type_),
                                     QStringLiteral("Content-Range: bytes %1-%2/%3")
                                         .arg(position)
                                         .arg(position + length - 1)
                                         .arg(total)};
  Issue(kMethodPut, session_url_, &chunk_, headers, true);
}

unsigned int ResumableUploader::Issue(std::uint32_t method, const QString& url,
                                      const QByteArray* body, const std::vector<QString>& headers,
                                      bool track_bytes) {
  const ConnectionParams params{method, url, body, &headers, true, 0};
  const std::uint64_t generation = ++generation_;
  std::shared_ptr<Token> token = token_;
  auto done = [token, generation](NetworkResponseInfo info, QByteArray answer, std::uint32_t code) {
    ResumableUploader* owner = token->owner;
    if (owner == nullptr || owner->generation_ != generation) return;
    owner->OnAnswer(info, answer, code);
  };
  unsigned int id;
  if (transfer_connection_ != nullptr) {
    quire::ProgressCallback progress;
    if (track_bytes) {
      progress = [token, generation](std::uint32_t, const kestrel::net::TransferProgress& figures) {
        ResumableUploader* owner = token->owner;
        if (owner == nullptr || owner->generation_ != generation) return;
        const std::int64_t sent = std::min<std::int64_t>(figures.bytes_sent, owner->chunk_.size());
        owner->progress_.bytes_sent = owner->chunk_position_ + sent;
        owner->Report();
      };
    }
    id = transfer_connection_->StartTransfer(params, std::move(done), std::move(progress));
  } else {
    id = connection_->Request(
        params, [done](NetworkResponseInfo info, QByteArray answer) { done(info, answer, 0); });
  }
  last_request_id_ = id;
  return id;
}

void ResumableUploader::OnAnswer(NetworkResponseInfo info, const QByteArray& body,
                                 std::uint32_t code) {
  last_request_id_ = info.request_id;
  if (state_ == kOpening) {
    OnPostAnswer(info, code);
  } else {
    OnSessionAnswer(info, body, code);
  }
}

void ResumableUploader::OnPostAnswer(const NetworkResponseInfo& info, std::uint32_t code) {
  if (info.status == kStatusSuccess) {
    const QString location = RetryPolicy::HeaderValue(info.headers, QStringLiteral("Location"));
    if (location.isEmpty()) {
      Fail(kNoSessionAddress, MadeUp(info.request_id));
      return;
    }
    session_url_ = location;
    failures_in_a_row_ = 0;
    if (session_callback_) {
      std::shared_ptr<Token> token = token_;
      const SessionCallback callback = session_callback_;
      const QString url = session_url_;
      const std::uint64_t generation = generation_;
      callback(url);
      // Deleted or cancelled inside its callback: nothing more to do.
      if (token->owner == nullptr || generation_ != generation) return;
    }
    SendChunk();
    return;
  }
  // Opening a session changes nothing that a second POST would harm: any transient outcome is
  // worth another one, as for an idempotent request.
  if (policy_.IsTransient(kMethodPut, info.status, code)) {
    Recover(info, code, kOpening);
    return;
  }
  Fail(kServerRefused, info);
}

bool ResumableUploader::ReadRange(const NetworkResponseInfo& info, std::int64_t* held) const {
  const QString value = RetryPolicy::HeaderValue(info.headers, QStringLiteral("Range"));
  if (value.isEmpty()) {
    *held = 0;  // the session holds nothing yet
    return true;
  }
  if (!value.startsWith(QLatin1String("bytes="))) return false;
  const QString range = value.mid(6);
  const int dash = range.indexOf(QLatin1Char('-'));
  if (dash <= 0) return false;
  std::int64_t first = 0;
  std::int64_t last = 0;
  if (!ParseDigits(range.left(dash), &first) || !ParseDigits(range.mid(dash + 1), &last) ||
      first != 0) {
    return false;
  }
  *held = last + 1;
  return true;
}

void ResumableUploader::OnSessionAnswer(const NetworkResponseInfo& info, const QByteArray& body,
                                        std::uint32_t code) {
  if (info.status == kStatusSuccess) {
    progress_.bytes_confirmed = progress_.total_bytes;
    progress_.bytes_sent = progress_.total_bytes;
    if (!Report()) return;
    Finish(kNone, info, body);
    return;
  }
  if (info.status == 308) {
    std::int64_t held = 0;
    if (!ReadRange(info, &held) || held > progress_.total_bytes) {
      // A server that claims bytes beyond the data, or says nothing readable: nothing more from
      // this source can be right.
      Fail(kBadRange, MadeUp(info.request_id));
      return;
    }
    if (held == progress_.total_bytes) {
      // Every byte is there but the session did not finish: ask again, under the policy.
      Recover(info, code, kQuerying);
      return;
    }
    const bool moved_on = held > progress_.bytes_confirmed;
    if (held < progress_.bytes_confirmed || (state_ == kSending && !moved_on)) {
      // The server lost bytes it had confirmed, or took nothing of the chunk: a failure, counted
      // against the policy, then onwards from what it says it holds.
      ++failures_in_a_row_;
      if (failures_in_a_row_ == 1) first_failure_at_ = SteadySeconds();
      if (failures_in_a_row_ >= policy_.max_attempts()) {
        Fail(kRetriesExhausted, info);
        return;
      }
      ++progress_.retries;
    } else if (moved_on) {
      failures_in_a_row_ = 0;
    }
    progress_.bytes_confirmed = held;
    progress_.bytes_sent = held;
    if (!Report()) return;
    SendChunk();
    return;
  }
  if (info.status == 404 || info.status == 410) {
    if (allow_new_session_ && !post_url_.isEmpty() && !gone_once_) {
      gone_once_ = true;
      session_url_.clear();
      progress_.bytes_confirmed = 0;
      progress_.bytes_sent = 0;
      if (!Report()) return;
      SendPost();
      return;
    }
    Fail(kSessionGone, info);
    return;
  }
  if (policy_.IsTransient(kMethodPut, info.status, code)) {
    Recover(info, code, kQuerying);
    return;
  }
  Fail(kServerRefused, info);
}

void ResumableUploader::Recover(const NetworkResponseInfo& info, std::uint32_t /*code*/,
                                State next) {
  ++failures_in_a_row_;
  const double now = SteadySeconds();
  if (failures_in_a_row_ == 1) first_failure_at_ = now;
  if (failures_in_a_row_ >= policy_.max_attempts()) {
    Fail(kRetriesExhausted, info);
    return;
  }
  const double delay = policy_.DelayBeforeRetry(failures_in_a_row_, info.headers, UnixSeconds());
  const double deadline = policy_.total_deadline_seconds();
  if (deadline > 0 && now - first_failure_at_ + delay > deadline) {
    Fail(kRetriesExhausted, info);
    return;
  }
  ++progress_.retries;
  // A file is read again when needed; a stream's chunk is kept, it cannot be read twice.
  if (!source_->sequential()) chunk_ = QByteArray();
  progress_.bytes_sent = progress_.bytes_confirmed;
  state_ = kWaiting;
  const std::uint64_t generation = ++generation_;
  std::shared_ptr<Token> token = token_;
  timer_ = kestrel::MainLoop::Default()->PostTimer(delay, [token, generation, next] {
    ResumableUploader* owner = token->owner;
    if (owner == nullptr || owner->generation_ != generation) return;
    owner->timer_ = 0;
    if (next == kOpening) {
      owner->SendPost();
    } else {
      owner->SendQuery();
    }
  });
  Report();
}

bool ResumableUploader::ReadChunk(std::int64_t position, std::int64_t length, QByteArray* out) {
  // The source is checked before the chunk is read and again after, so that a change while it is
  // read is caught before any of its bytes leave.
  Error error = kNone;
  if (!source_->Unchanged(progress_.total_bytes)) {
    error = kSourceChanged;
  } else {
    error = source_->Read(position, length, chunk_, chunk_position_, out);
    if (error == kNone && !source_->Unchanged(progress_.total_bytes)) error = kSourceChanged;
  }
  if (error != kNone) {
    Fail(error, MadeUp(last_request_id_));
    return false;
  }
  return true;
}

bool ResumableUploader::Report() {
  if (!progress_callback_) return true;
  std::shared_ptr<Token> token = token_;
  // A copy runs, so that the host may delete the uploader (and its callbacks) inside it.
  const ProgressCallback callback = progress_callback_;
  const Progress progress = progress_;
  const std::uint64_t generation = generation_;
  callback(progress);
  // False when the host deleted the uploader or cancelled (or restarted) the upload meanwhile.
  return token->owner != nullptr && token->owner->generation_ == generation;
}

void ResumableUploader::FailLater(Error error, ResponseCallback callback) {
  error_ = error;
  Reset();
  kestrel::MainLoop::Default()->Post([callback] { callback(MadeUp(0), QByteArray()); });
}

void ResumableUploader::Fail(Error error, NetworkResponseInfo info) {
  Finish(error, info, QByteArray());
}

void ResumableUploader::Finish(Error error, NetworkResponseInfo info, const QByteArray& body) {
  ResponseCallback callback = std::move(callback_);
  error_ = error;
  ++generation_;
  Reset();
  // The callback may delete the uploader: nothing of it is touched afterwards.
  callback(info, body);
}

void ResumableUploader::Reset() {
  if (state_ == kWaiting && timer_ != 0) kestrel::MainLoop::Default()->CancelTimer(timer_);
  timer_ = 0;
  state_ = kIdle;
  callback_ = ResponseCallback();
  source_->Close();
  chunk_ = QByteArray();
}

}  // namespace quire
}  // namespace kestrel
