// Resumable upload sessions: their state in the database, their bytes in one file each in the
// uploads folder. A session's `held` count only grows after the bytes below it are on disk, so a
// restarted server never claims bytes it does not have. Sessions that see no request for the idle
// timeout are dropped. Thread-safe; one request at a time may use a session (see Claim).
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>

#include "tools/quire-server/session_claim.h"
#include "tools/quire-server/upload_session_record.h"

namespace quire_server {

class Database;
class DataFolder;

class UploadSessionStore {
 public:
  enum class ClaimResult { kOk, kUnknown, kBusy };

  UploadSessionStore(Database& db, const DataFolder& folder, std::int64_t idle_timeout_ms);

  // Removes session files without a session, and sessions without a file. Called once before
  // serving.
  void Recover();

  // Opens a session with an empty file; returns its id (192 random bits).
  std::string Open(const std::string& document_id, const std::optional<std::string>& title,
                   const std::string& content_type, std::uint64_t total);
  // Claims a live session for the calling request and records the activity. A session idle for
  // longer than the timeout counts as unknown (and is dropped).
  ClaimResult Claim(const std::string& id, UploadSessionRecord* record, SessionClaim* claim);
  // Records that [0, held) is durably in the session's file. Never lowers the count.
  void SetHeld(const std::string& id, std::uint64_t held);
  // Deletes the session's row; the caller holds the database lock inside its own transaction.
  void RemoveRow(const std::string& id);
  // Deletes the session (row, then file).
  void Remove(const std::string& id);
  // Deletes the file of a session whose row is gone.
  void RemoveFile(const std::string& id);
  // Drops idle sessions that no request is using; returns how many.
  std::size_t ExpireIdle();

  std::string PartPath(const std::string& id) const;

 private:
  friend class SessionClaim;
  void Unclaim(const std::string& id);

  Database& db_;
  const DataFolder& folder_;
  const std::int64_t idle_timeout_ms_;
  std::mutex claims_mutex_;
  std::unordered_set<std::string> claimed_;
};

}  // namespace quire_server
