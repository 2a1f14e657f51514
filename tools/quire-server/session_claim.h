// Exclusive use of one upload session by one request, released when the claim goes away.
#pragma once

#include <string>

namespace quire_server {

class UploadSessionStore;

class SessionClaim {
 public:
  SessionClaim() = default;
  SessionClaim(UploadSessionStore* store, std::string id) : store_(store), id_(std::move(id)) {}
  SessionClaim(SessionClaim&& other) noexcept;
  SessionClaim& operator=(SessionClaim&& other) noexcept;
  SessionClaim(const SessionClaim&) = delete;
  SessionClaim& operator=(const SessionClaim&) = delete;
  ~SessionClaim();

  bool held() const { return store_ != nullptr; }
  const std::string& id() const { return id_; }
  void Release();

 private:
  UploadSessionStore* store_ = nullptr;
  std::string id_;
};

}  // namespace quire_server
