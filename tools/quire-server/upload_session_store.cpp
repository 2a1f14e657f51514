#include "tools/quire-server/upload_session_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <stdexcept>
#include <vector>

#include "tools/quire-server/data_folder.h"
#include "tools/quire-server/database.h"
#include "tools/quire-server/db_transaction.h"
#include "tools/quire-server/random_id.h"
#include "tools/quire-server/sqlite_statement.h"
#include "tools/quire-server/timestamp.h"
#include "tools/quire-server/unique_fd.h"

namespace quire_server {
namespace {

constexpr char kPartSuffix[] = ".part";

}  // namespace

UploadSessionStore::UploadSessionStore(Database& db, const DataFolder& folder,
                                       std::int64_t idle_timeout_ms)
    : db_(db), folder_(folder), idle_timeout_ms_(idle_timeout_ms) {
  std::lock_guard<std::recursive_mutex> lock(db_.mutex());
  db_.Exec(
      "CREATE TABLE IF NOT EXISTS upload_sessions("
      "  id TEXT PRIMARY KEY, document_id TEXT NOT NULL, title TEXT,"
      "  content_type TEXT NOT NULL, total INTEGER NOT NULL, held INTEGER NOT NULL,"
      "  last_ms INTEGER NOT NULL);");
}

void UploadSessionStore::Recover() {
  std::set<std::string> live;
  {
    std::lock_guard<std::recursive_mutex> lock(db_.mutex());
    std::vector<std::string> lost;
    SqliteStatement select(db_, "SELECT id FROM upload_sessions");
    while (select.Step()) {
      std::string id = select.Text(0);
      struct stat info;
      if (::stat(PartPath(id).c_str(), &info) == 0) {
        live.insert(id + kPartSuffix);
      } else {
        lost.push_back(id);
      }
    }
    for (const std::string& id : lost) RemoveRow(id);
  }
  DIR* dir = ::opendir(folder_.UploadsDir().c_str());
  if (dir == nullptr) throw std::runtime_error("cannot list " + folder_.UploadsDir());
  std::vector<std::string> stale;
  while (dirent* entry = ::readdir(dir)) {
    std::string name = entry->d_name;
    if (name != "." && name != ".." && live.count(name) == 0) stale.push_back(name);
  }
  ::closedir(dir);
  for (const std::string& name : stale) ::unlink((folder_.UploadsDir() + "/" + name).c_str());
  DataFolder::SyncDirectory(folder_.UploadsDir());
  ExpireIdle();
}

std::string UploadSessionStore::Open(const std::string& document_id,
                                     const std::optional<std::string>& title,
                                     const std::string& content_type, std::uint64_t total) {
  std::string id = RandomId::Hex(24);
  std::string path = PartPath(id);
  {
    UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    if (!fd.valid() || ::fsync(fd.get()) != 0) {
      throw std::runtime_error("cannot create " + path + ": " + std::strerror(errno));
    }
  }
  if (!DataFolder::SyncDirectory(folder_.UploadsDir())) {
    ::unlink(path.c_str());
    throw std::runtime_error("cannot sync the uploads folder");
  }
  try {
    std::lock_guard<std::recursive_mutex> lock(db_.mutex());
    SqliteStatement insert(db_,
                           "INSERT INTO upload_sessions(id, document_id, title, content_type, "
                           "total, held, last_ms) VALUES (?1, ?2, ?3, ?4, ?5, 0, ?6)");
    insert.Bind(1, id)
        .Bind(2, document_id)
        .Bind(3, title)
        .Bind(4, content_type)
        .Bind(5, static_cast<std::int64_t>(total))
        .Bind(6, Timestamp::NowMillis())
        .Run();
  } catch (...) {
    ::unlink(path.c_str());
    throw;
  }
  return id;
}

UploadSessionStore::ClaimResult UploadSessionStore::Claim(const std::string& id,
                                                          UploadSessionRecord* record,
                                                          SessionClaim* claim) {
  {
    std::lock_guard<std::mutex> lock(claims_mutex_);
    if (!claimed_.insert(id).second) return ClaimResult::kBusy;
  }
  SessionClaim held(this, id);
  std::int64_t now = Timestamp::NowMillis();
  bool expired = false;
  {
    std::lock_guard<std::recursive_mutex> lock(db_.mutex());
    SqliteStatement select(db_,
                           "SELECT document_id, title, content_type, total, held, last_ms "
                           "FROM upload_sessions WHERE id = ?1");
    select.Bind(1, id);
    if (!select.Step()) return ClaimResult::kUnknown;
    record->id = id;
    record->document_id = select.Text(0);
    record->title = select.IsNull(1) ? std::nullopt : std::optional<std::string>(select.Text(1));
    record->content_type = select.Text(2);
    record->total = static_cast<std::uint64_t>(select.Int(3));
    record->held = static_cast<std::uint64_t>(select.Int(4));
    record->last_ms = select.Int(5);
    if (now - record->last_ms > idle_timeout_ms_) {
      expired = true;
      RemoveRow(id);
    } else {
      SqliteStatement touch(db_, "UPDATE upload_sessions SET last_ms = ?2 WHERE id = ?1");
      touch.Bind(1, id).Bind(2, now).Run();
      record->last_ms = now;
    }
  }
  if (expired) {
    RemoveFile(id);
    return ClaimResult::kUnknown;
  }
  *claim = std::move(held);
  return ClaimResult::kOk;
}

void UploadSessionStore::SetHeld(const std::string& id, std::uint64_t held) {
  std::lock_guard<std::recursive_mutex> lock(db_.mutex());
  SqliteStatement update(db_,
                         "UPDATE upload_sessions SET held = MAX(held, ?2), last_ms = ?3 "
                         "WHERE id = ?1");
  update.Bind(1, id).Bind(2, static_cast<std::int64_t>(held)).Bind(3, Timestamp::NowMillis()).Run();
}

void UploadSessionStore::RemoveRow(const std::string& id) {
  std::lock_guard<std::recursive_mutex> lock(db_.mutex());
  SqliteStatement remove(db_, "DELETE FROM upload_sessions WHERE id = ?1");
  remove.Bind(1, id).Run();
}

void UploadSessionStore::Remove(const std::string& id) {
  RemoveRow(id);
  RemoveFile(id);
}

void UploadSessionStore::RemoveFile(const std::string& id) { ::unlink(PartPath(id).c_str()); }

std::size_t UploadSessionStore::ExpireIdle() {
  std::vector<std::string> expired;
  {
    std::lock_guard<std::recursive_mutex> lock(db_.mutex());
    SqliteStatement select(db_, "SELECT id FROM upload_sessions WHERE last_ms < ?1");
    select.Bind(1, Timestamp::NowMillis() - idle_timeout_ms_);
    std::vector<std::string> idle;
    while (select.Step()) idle.push_back(select.Text(0));
    std::lock_guard<std::mutex> claims(claims_mutex_);
    for (const std::string& id : idle) {
      if (claimed_.count(id) != 0) continue;
      RemoveRow(id);
      expired.push_back(id);
    }
  }
  for (const std::string& id : expired) RemoveFile(id);
  return expired.size();
}

std::string UploadSessionStore::PartPath(const std::string& id) const {
  return folder_.UploadsDir() + "/" + id + kPartSuffix;
}

void UploadSessionStore::Unclaim(const std::string& id) {
  std::lock_guard<std::mutex> lock(claims_mutex_);
  claimed_.erase(id);
}

}  // namespace quire_server
