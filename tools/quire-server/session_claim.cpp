#include "tools/quire-server/session_claim.h"

#include "tools/quire-server/upload_session_store.h"

namespace quire_server {

SessionClaim::SessionClaim(SessionClaim&& other) noexcept
    : store_(other.store_), id_(std::move(other.id_)) {
  other.store_ = nullptr;
}

SessionClaim& SessionClaim::operator=(SessionClaim&& other) noexcept {
  if (this != &other) {
    Release();
    store_ = other.store_;
    id_ = std::move(other.id_);
    other.store_ = nullptr;
  }
  return *this;
}

SessionClaim::~SessionClaim() { Release(); }

void SessionClaim::Release() {
  if (store_ != nullptr) store_->Unclaim(id_);
  store_ = nullptr;
}

}  // namespace quire_server
