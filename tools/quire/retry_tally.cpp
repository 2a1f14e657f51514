#include "tools/quire/retry_tally.h"

#include "quire/connection/retrying_connection.h"
#include "tools/quire/progress_bar.h"

namespace quire_cli {

using kestrel::quire::RetryingConnection;
using kestrel::quire::RetryPolicy;

RetryTally::RetryTally(int retries) {
  policy_.set_max_attempts(retries + 1);
  policy_.set_base_backoff_seconds(0.5);
  policy_.set_max_backoff_seconds(30);
  policy_.set_retry_after_cap_seconds(120);
  policy_.set_total_deadline_seconds(300);
}

RetryingConnection* RetryTally::Wrap(kestrel::quire::IConnection* inner) {
  auto* connection = new RetryingConnection(inner, policy_);
  connection->set_retry_observer([this](const RetryingConnection::RetryNotice&) { Count(); });
  return connection;
}

void RetryTally::Count() {
  ++retries_;
  if (bar_ != nullptr) bar_->set_retries(retries_);
}

void RetryTally::set_bar(ProgressBar* bar) {
  bar_ = bar;
  if (bar_ != nullptr) bar_->set_retries(retries_);
}

std::string RetryTally::Note() const {
  if (retries_ == 0) return std::string();
  return ", after " + std::to_string(retries_) + (retries_ == 1 ? " retry" : " retries");
}

}  // namespace quire_cli
