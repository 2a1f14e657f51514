#include "quire/connection/retrying_connection.h"

#include <QDateTime>
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "kestrel/base/main_loop.h"
#include "kestrel/net/network_status.h"
#include "quire/connection/connection.h"
#include "quire/services/service.h"

namespace kestrel {
namespace quire {
namespace {

double SteadySeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double UnixSeconds() { return static_cast<double>(QDateTime::currentMSecsSinceEpoch()) / 1000.0; }

bool IsAuthorizationLine(const QString& line) {
  return line.startsWith(QLatin1String("Authorization:"), Qt::CaseInsensitive);
}

}  // namespace

// One request of the caller, through all its sends.
struct RetryingConnection::Call {
  enum State { kInFlight, kWaiting, kRefreshing, kDone };

  RetryingConnection* owner = nullptr;  // null once the decorator is gone
  std::uint32_t method = kMethodGet;
  QString url;
  QByteArray body;
  bool has_body = false;
  std::vector<QString> headers;
  bool collect_response_headers = false;
  std::uint32_t id = 0;  // 0 until the first send returned one
  ResponseCallback response;
  TransferCallback transfer;
  ProgressCallback progress;
  int attempts = 0;
  bool refreshed = false;
  State state = kInFlight;
  MainLoop::TimerId timer = 0;
  double started = 0;
  // The 401 that asked for a token, handed on if the refresh fails.
  std::int32_t saved_status = 0;
  std::vector<QString> saved_headers;
  bool saved_had_headers = false;
  QByteArray saved_body;
  std::uint32_t saved_code = 0;
};

// One call of the host's refresher; its answer counts once, and not after the decorator is gone.
struct RetryingConnection::RefreshSession {
  RetryingConnection* owner = nullptr;
  bool answered = false;
};

RetryingConnection::RetryingConnection(IConnection* inner, const RetryPolicy& policy)
    : inner_(inner != nullptr ? inner : doNew<Connection>()),
      transfer_inner_(dynamic_cast<ITransferConnection*>(inner_)),
      policy_(policy),
      alive_(std::allocate_shared<bool>(MMAlloc<bool>(), true)) {}

RetryingConnection::~RetryingConnection() {
  *alive_ = false;
  for (const CallPtr& call : calls_) {
    call->owner = nullptr;
    if (call->state == Call::kWaiting) MainLoop::Default()->CancelTimer(call->timer);
    call->state = Call::kDone;
  }
  calls_.clear();
  waiting_for_token_.clear();
  if (refresh_) refresh_->owner = nullptr;
  refresh_.reset();
  doDelete(inner_);
}

void RetryingConnection::Init(const std::vector<QString>& headers) {
  std::vector<QString> forwarded;
  for (const QString& line : headers) {
    if (IsAuthorizationLine(line)) {
      auth_lines_.push_back(line);
    } else {
      forwarded.push_back(line);
    }
  }
  inner_->Init(forwarded);
}

unsigned int RetryingConnection::Request(const ConnectionParams& params,
                                         ResponseCallback callback) {
  if (!callback) std::abort();  // an empty callback is a programming error
  return Start(params, std::move(callback), TransferCallback(), ProgressCallback());
}

unsigned int RetryingConnection::StartTransfer(const ConnectionParams& params,
                                               TransferCallback callback,
                                               ProgressCallback progress) {
  if (!callback) std::abort();  // an empty callback is a programming error
  return Start(params, ResponseCallback(), std::move(callback), std::move(progress));
}

unsigned int RetryingConnection::Start(const ConnectionParams& params, ResponseCallback response,
                                       TransferCallback transfer, ProgressCallback progress) {
  CallPtr call = std::allocate_shared<Call>(MMAlloc<Call>());
  call->owner = this;
  call->method = params.method;
  call->url = params.url;
  call->has_body = params.body != nullptr;
  if (params.body != nullptr) call->body = *params.body;  // shared, not copied
  if (params.headers != nullptr) call->headers = *params.headers;
  call->collect_response_headers = params.collect_response_headers;
  call->id = params.request_id;
  call->response = std::move(response);
  call->transfer = std::move(transfer);
  call->progress = std::move(progress);
  call->started = SteadySeconds();
  calls_.push_back(call);
  Send(call);
  return call->id;
}

void RetryingConnection::Send(const CallPtr& call) {
  std::vector<QString> lines;
  lines.reserve(auth_lines_.size() + call->headers.size());
  lines.insert(lines.end(), auth_lines_.begin(), auth_lines_.end());
  lines.insert(lines.end(), call->headers.begin(), call->headers.end());
  ConnectionParams params{call->method,
                          call->url,
                          call->has_body ? &call->body : nullptr,
                          &lines,
                          call->collect_response_headers,
                          call->id};
  ++call->attempts;
  call->state = Call::kInFlight;
  const int attempt = call->attempts;
  // Completions of an earlier send (one that was stopped) are recognised by their number.
  auto done = [call, attempt](NetworkResponseInfo info, QByteArray body, std::uint32_t code) {
    if (call->owner == nullptr || call->state != Call::kInFlight || call->attempts != attempt) {
      return;
    }
    call->owner->Handle(call, info, body, code);
  };
  unsigned int id;
  if (transfer_inner_ != nullptr) {
    ProgressCallback progress;
    if (call->progress) {
      progress = [call, attempt](std::uint32_t request_id,
                                 const kestrel::net::TransferProgress& figures) {
        if (call->owner == nullptr || call->state != Call::kInFlight || call->attempts != attempt) {
          return;
        }
        call->progress(request_id, figures);
      };
    }
    id = transfer_inner_->StartTransfer(params, std::move(done), std::move(progress));
  } else {
    id = inner_->Request(
        params, [done](NetworkResponseInfo info, QByteArray body) { done(info, body, 0); });
  }
  if (call->id == 0) call->id = id;
}

void RetryingConnection::Handle(const CallPtr& call, NetworkResponseInfo info,
                                const QByteArray& body, std::uint32_t network_code) {
  if (info.status == 401 && refresher_ && !call->refreshed) {
    // Kept for the caller in case no token comes: the answer lives only during this call.
    call->refreshed = true;
    call->state = Call::kRefreshing;
    call->saved_status = info.status;
    call->saved_had_headers = info.headers != nullptr;
    if (info.headers != nullptr) call->saved_headers = *info.headers;
    call->saved_body = QByteArray(body.constData(), body.size());
    call->saved_code = network_code;
    waiting_for_token_.push_back(call);
    if (!refresh_) StartRefresh();
    return;
  }
  if (call->attempts < policy_.max_attempts() &&
      policy_.IsTransient(call->method, info.status, network_code)) {
    const double delay = policy_.DelayBeforeRetry(call->attempts, info.headers, UnixSeconds());
    const double deadline = policy_.total_deadline_seconds();
    if (deadline <= 0 || SteadySeconds() - call->started + delay <= deadline) {
      ++retries_;
      call->state = Call::kWaiting;
      call->timer = MainLoop::Default()->PostTimer(delay, [call] {
        if (call->owner == nullptr || call->state != Call::kWaiting) return;
        call->owner->Send(call);
      });
      if (observer_) {
        observer_(RetryNotice{call->id, call->attempts, info.status, network_code, delay});
      }
      return;
    }
  }
  Finish(call, info, body, network_code);
}

void RetryingConnection::Forget(const CallPtr& call) {
  call->state = Call::kDone;
  calls_.erase(std::remove(calls_.begin(), calls_.end(), call), calls_.end());
  waiting_for_token_.erase(std::remove(waiting_for_token_.begin(), waiting_for_token_.end(), call),
                           waiting_for_token_.end());
}

void RetryingConnection::Finish(const CallPtr& call, NetworkResponseInfo info,
                                const QByteArray& body, std::uint32_t network_code) {
  Forget(call);
  last_attempts_ = call->attempts;
  last_request_id_ = call->id;
  info.request_id = call->id;
  // The callback may delete this decorator (with its service): nothing of it is touched after.
  if (call->transfer) {
    call->transfer(info, body, network_code);
  } else {
    call->response(info, body);
  }
}

void RetryingConnection::Cancel(unsigned int request_id) {
  std::vector<CallPtr, MMAlloc<CallPtr>> cancelled;
  for (const CallPtr& call : calls_) {
    if (call->id == request_id && call->state != Call::kDone) cancelled.push_back(call);
  }
  bool abort_inner = false;
  for (const CallPtr& call : cancelled) {
    if (call->state == Call::kWaiting) MainLoop::Default()->CancelTimer(call->timer);
    if (call->state == Call::kInFlight) abort_inner = true;
    Forget(call);
    std::shared_ptr<bool> alive = alive_;
    MainLoop::Default()->Post([call, alive] {
      if (!*alive) return;  // the decorator is gone: nobody to tell
      RetryingConnection* owner = call->owner;
      owner->last_attempts_ = call->attempts;
      owner->last_request_id_ = call->id;
      const std::vector<QString> no_lines;
      const NetworkResponseInfo info{call->id, kStatusCancelled,
                                     call->collect_response_headers ? &no_lines : nullptr};
      if (call->transfer) {
        call->transfer(info, QByteArray(), kestrel::net::status::kErrorCancelled);
      } else {
        call->response(info, QByteArray());
      }
    });
  }
  if (abort_inner) {
    if (transfer_inner_ != nullptr) {
      transfer_inner_->Abort(request_id);
    } else {
      inner_->Cancel(request_id);
    }
  }
}

void RetryingConnection::Abort(unsigned int request_id) { Cancel(request_id); }

void RetryingConnection::SetTokenRefresher(TokenRefresher refresher, Service* service) {
  refresher_ = std::move(refresher);
  service_ = service;
}

void RetryingConnection::StartRefresh() {
  refresh_ = std::allocate_shared<RefreshSession>(MMAlloc<RefreshSession>());
  refresh_->owner = this;
  ++token_refreshes_;
  std::shared_ptr<RefreshSession> session = refresh_;
  // The answer is taken on a later turn of the main loop, also when the host gives it at once.
  refresher_([session](const QString& token) {
    if (session->answered) return;
    session->answered = true;
    MainLoop::Default()->Post([session, token] {
      if (session->owner != nullptr) session->owner->OnToken(token);
    });
  });
}

void RetryingConnection::OnToken(const QString& token) {
  refresh_.reset();
  std::vector<CallPtr, MMAlloc<CallPtr>> waiting;
  waiting.swap(waiting_for_token_);
  if (token.isEmpty()) {
    // No token: each request ends with the 401 it had.
    std::shared_ptr<bool> alive = alive_;
    for (const CallPtr& call : waiting) {
      if (!*alive) return;
      if (call->state != Call::kRefreshing) continue;
      const NetworkResponseInfo info{call->id, call->saved_status,
                                     call->saved_had_headers ? &call->saved_headers : nullptr};
      Finish(call, info, call->saved_body, call->saved_code);
    }
    return;
  }
  QString line = QStringLiteral("Authorization: Bearer ") + token;
  if (service_ != nullptr) {
    service_->SetOAuth2AuthToken(token);
    if (!service_->authorization_headers()->empty())
      line = service_->authorization_headers()->front();
  }
  for (QString& kept : auth_lines_) kept = line;
  for (const CallPtr& call : waiting) {
    if (call->state != Call::kRefreshing) continue;
    for (QString& header : call->headers) {
      if (IsAuthorizationLine(header)) header = line;
    }
    call->saved_headers.clear();
    call->saved_body = QByteArray();
    Send(call);
  }
}

}  // namespace quire
}  // namespace kestrel
