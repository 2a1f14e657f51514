/// @file
/// An IConnection decorator that sends failed requests again under a RetryPolicy, refreshes the
/// access token once on a 401, and cancels for real.
#pragma once

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "quire/connection/i_transfer_connection.h"
#include "quire/connection/retry_policy.h"
#include "quire/quire_export.h"

namespace kestrel {
namespace quire {

class Service;

/// An IConnection decorator that sends failed requests again under a RetryPolicy, refreshes the
/// access token once on a 401, and cancels for real. Any service, ConnectionUtils or
/// ResumableUploader can be given one:
///
/// ```cpp
/// auto* retrying = new RetryingConnection(new Connection, RetryPolicy());
/// DocsService docs(retrying);                       // the service owns the decorator
/// retrying->SetTokenRefresher(ask_the_host_for_a_token, &docs);
/// ```
///
/// **Retries.** When a send ends in an outcome that the policy calls transient
/// (RetryPolicy::IsTransient(); a POST only when it provably never reached the server), the
/// request is sent again after the policy's wait (its `Retry-After`, capped, or jittered
/// exponential backoff), up to the policy's number of attempts and within its total deadline. The
/// wait is a main-loop timer, never a sleep. Every send of one request carries the same request id
/// (the one Request() returned); what a caller's callback receives is the last send's outcome,
/// unchanged. When the connection underneath is an ITransferConnection (Connection is), its
/// network codes tell the failures apart; otherwise a status 2 counts as a failure of unknown
/// kind (retried for GET, PUT and DELETE, not for POST).
///
/// **Token refresh.** With a refresher set (SetTokenRefresher()), an answer 401 makes the
/// connection call the refresher once for a new access token (concurrent 401s share one call). The
/// new token goes into the service given (Service::SetOAuth2AuthToken(), which rebuilds its
/// "Authorization: Bearer" line as always) and replaces the authorisation line of every request
/// waiting for it, which is then sent once more. A second 401 for the same request is final, and
/// so is the first when the refresher answers with an empty token.
///
/// **Exactly one callback.** Every request ends in exactly one call of its callback, later, on the
/// main loop's thread, never inside Request() or Cancel(). last_attempts() tells, during the
/// callback, how many sends the request took; set_retry_observer() hears of every retry as it is
/// decided.
///
/// **Cancellation.** Cancel() (and Abort(), the same) stops a request wherever it is: a pending
/// wait is taken off the main loop, a send in flight is stopped on the wire (through
/// ITransferConnection::Abort() of the connection underneath, else its Cancel()), a wait for a
/// token is left. Its callback then comes once, on the next turn of the main loop, with status
/// kStatusCancelled (3), an empty body, no header lines (an empty list when they were asked for)
/// and, for StartTransfer(), the network code kestrel::net::status::kErrorCancelled.
///
/// **Fixed header lines.** Lines given to Init() that carry an authorisation
/// ("Authorization: ...") are kept here and sent ahead of each request's own lines, so that a
/// refresh can replace them; the other lines go to the inner connection's Init().
///
/// **Ownership and lifetime.** The decorator owns the inner connection and deletes it with itself
/// (a null inner connection makes it create a Connection of its own), just as a service owns the
/// connection it is handed. Destroy it only after the last callback of its requests has run; if it
/// is destroyed earlier, the requests it still holds are dropped without their callbacks (retries
/// waiting are taken off the main loop). Allocated through the default memory manager (plain `new`
/// and `delete` do that). Threading: main thread only, no locks.
class QUIRE_EXPORT RetryingConnection : public ITransferConnection {
 public:
  /// Receives the new access token from the host's refresher; an empty token means the refresh
  /// failed. Call it once, on the main thread, at any time (also from inside the refresher).
  using TokenReady = std::function<void(const QString& access_token)>;
  /// The host's asynchronous way to obtain a new access token: it starts whatever it needs and
  /// calls `ready` once with the result.
  using TokenRefresher = std::function<void(TokenReady ready)>;

  /// A retry as it is decided, for a host that shows it.
  struct RetryNotice {
    /// The request's id.
    std::uint32_t request_id;
    /// The number of the send that failed (1 for the first).
    int attempt;
    /// That send's status (as in NetworkResponseInfo).
    std::int32_t status;
    /// That send's network code (0 when unknown).
    std::uint32_t network_code;
    /// How long the connection waits before the next send.
    double delay_seconds;
  };
  /// Hears of every retry as it is decided (before the wait). Main thread.
  using RetryObserver = std::function<void(const RetryNotice& notice)>;

  /// Wraps `inner` (owned; null creates a Connection) under `policy` (copied).
  explicit RetryingConnection(IConnection* inner = nullptr,
                              const RetryPolicy& policy = RetryPolicy());
  /// Drops the requests it still holds (see the class description) and deletes the inner
  /// connection.
  ~RetryingConnection() override;
  RetryingConnection(const RetryingConnection&) = delete;
  RetryingConnection& operator=(const RetryingConnection&) = delete;

  /// Keeps the authorisation lines of `headers` and hands the others to the inner connection's
  /// Init().
  void Init(const std::vector<QString>& headers) override;
  /// Issues the request under the retry policy and returns its id at once (see the class
  /// description). `callback` must not be empty.
  unsigned int Request(const ConnectionParams& params, ResponseCallback callback) override;
  /// Like Request(); `callback` also receives the last send's network code, and `progress` hears
  /// of each send's bytes (starting from 0 again when a request is sent again) when the inner
  /// connection is an ITransferConnection.
  unsigned int StartTransfer(const ConnectionParams& params, TransferCallback callback,
                             ProgressCallback progress) override;
  /// Cancels every request under `request_id` that has not yet called back (see the class
  /// description). Unknown and finished ids are ignored; cancelling twice does nothing more.
  void Cancel(unsigned int request_id) override;
  /// The same as Cancel().
  void Abort(unsigned int request_id) override;

  /// Sets the token refresher (empty: 401 answers are final) and the service whose access token it
  /// renews (may be null: only the requests' authorisation lines are then replaced). The service
  /// must outlive the decorator's requests; normally it owns the decorator.
  void SetTokenRefresher(TokenRefresher refresher, Service* service);
  /// Sets the observer of retries (empty: none).
  void set_retry_observer(RetryObserver observer) { observer_ = std::move(observer); }

  /// The policy in use.
  const RetryPolicy& policy() const { return policy_; }
  /// Replaces the policy for requests issued and retries decided from now on.
  void set_policy(const RetryPolicy& policy) { policy_ = policy; }
  /// The inner connection (owned).
  IConnection* inner() const { return inner_; }

  /// How many sends the request that called back most recently took (valid during its callback,
  /// and after it until the next callback); 0 before the first.
  int last_attempts() const { return last_attempts_; }
  /// The id of the request that called back most recently; 0 before the first.
  std::uint32_t last_request_id() const { return last_request_id_; }
  /// The number of retries decided since construction.
  std::uint64_t retries() const { return retries_; }
  /// The number of times the refresher was called since construction.
  std::uint64_t token_refreshes() const { return token_refreshes_; }
  /// The number of requests that have not yet called back.
  std::size_t pending() const { return calls_.size(); }

 private:
  struct Call;
  struct RefreshSession;
  using CallPtr = std::shared_ptr<Call>;

  unsigned int Start(const ConnectionParams& params, ResponseCallback response,
                     TransferCallback transfer, ProgressCallback progress);
  void Send(const CallPtr& call);
  void Handle(const CallPtr& call, NetworkResponseInfo info, const QByteArray& body,
              std::uint32_t network_code);
  void Finish(const CallPtr& call, NetworkResponseInfo info, const QByteArray& body,
              std::uint32_t network_code);
  void Forget(const CallPtr& call);
  void StartRefresh();
  void OnToken(const QString& token);

  IConnection* inner_;
  ITransferConnection* transfer_inner_;  // inner_ when it is one, else null
  RetryPolicy policy_;
  std::vector<QString> auth_lines_;
  std::vector<CallPtr, MMAlloc<CallPtr>> calls_;
  std::vector<CallPtr, MMAlloc<CallPtr>> waiting_for_token_;
  TokenRefresher refresher_;
  Service* service_ = nullptr;
  std::shared_ptr<RefreshSession> refresh_;
  RetryObserver observer_;
  std::shared_ptr<bool> alive_;
  int last_attempts_ = 0;
  std::uint32_t last_request_id_ = 0;
  std::uint64_t retries_ = 0;
  std::uint64_t token_refreshes_ = 0;
};

}  // namespace quire
}  // namespace kestrel
