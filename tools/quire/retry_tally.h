// The retries of one command: the policy that its connections follow (from --retries), and a count
// of the retries that happened, for the progress line and the command's last message.
#pragma once

#include <string>

#include "quire/connection/retry_policy.h"

namespace kestrel {
namespace quire {
class IConnection;
class RetryingConnection;
}  // namespace quire
}  // namespace kestrel

namespace quire_cli {

class ProgressBar;

class RetryTally {
 public:
  // Up to `retries` retries of each request (0: none).
  explicit RetryTally(int retries);
  RetryTally(const RetryTally&) = delete;
  RetryTally& operator=(const RetryTally&) = delete;

  // The policy of the command: retries + 1 attempts, jittered exponential backoff from 0.5 s up to
  // 30 s, a Retry-After honoured up to two minutes, at most five minutes for one request in all.
  const kestrel::quire::RetryPolicy& policy() const { return policy_; }

  // `inner` (owned by the result; null for a Connection) under the policy, each retry counted
  // here. The result is meant to be handed to a service, which owns it.
  kestrel::quire::RetryingConnection* Wrap(kestrel::quire::IConnection* inner);

  // Counts one retry (and shows the new count on the progress line, when there is one).
  void Count();
  int retries() const { return retries_; }
  // Where the count is shown (borrowed, may be null).
  void set_bar(ProgressBar* bar);

  // ", after 3 retries" (", after 1 retry"), or "" when nothing was retried: the tail of the
  // command's last message.
  std::string Note() const;

 private:
  kestrel::quire::RetryPolicy policy_;
  int retries_ = 0;
  ProgressBar* bar_ = nullptr;
};

}  // namespace quire_cli
