#include "tools/quire-server/document_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <set>
#include <stdexcept>

#include "tools/quire-server/data_folder.h"
#include "tools/quire-server/database.h"
#include "tools/quire-server/db_transaction.h"
#include "tools/quire-server/field_text.h"
#include "tools/quire-server/random_id.h"
#include "tools/quire-server/sqlite_statement.h"
#include "tools/quire-server/timestamp.h"

namespace quire_server {
namespace {

constexpr char kColumns[] =
    "id, title, content_type, size, blob, etag, updated_ms, starred, removed";

DocumentRecord ReadRecord(const SqliteStatement& row) {
  DocumentRecord record;
  record.id = row.Text(0);
  record.title = row.Text(1);
  record.content_type = row.Text(2);
  record.size = static_cast<std::uint64_t>(row.Int(3));
  record.blob = row.Text(4);
  record.etag = row.Text(5);
  record.updated_ms = row.Int(6);
  record.starred = row.Int(7) != 0;
  record.removed = row.Int(8) != 0;
  return record;
}

std::optional<DocumentRecord> SelectLocked(Database& db, const std::string& id) {
  std::string sql = std::string("SELECT ") + kColumns + " FROM documents WHERE id = ?1";
  SqliteStatement select(db, sql.c_str());
  select.Bind(1, id);
  if (!select.Step()) return std::nullopt;
  return ReadRecord(select);
}

std::vector<std::string> ListDirectory(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) throw std::runtime_error("cannot list " + dir + ": " + std::strerror(errno));
  while (dirent* entry = ::readdir(d)) {
    std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(d);
  return names;
}

}  // namespace

DocumentStore::DocumentStore(Database& db, const DataFolder& folder) : db_(db), folder_(folder) {
  std::lock_guard<std::recursive_mutex> lock(db_.mutex());
  db_.Exec(
      "CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value TEXT NOT NULL);"
      "CREATE TABLE IF NOT EXISTS documents("
      "  id TEXT PRIMARY KEY, seq INTEGER NOT NULL, title TEXT NOT NULL,"
      "  content_type TEXT NOT NULL, size INTEGER NOT NULL, blob TEXT NOT NULL,"
      "  etag TEXT NOT NULL, updated_ms INTEGER NOT NULL, starred INTEGER NOT NULL DEFAULT 0,"
      "  removed INTEGER NOT NULL DEFAULT 0);");
  DbTransaction tx(db_);
  SqliteStatement insert(db_, "INSERT OR IGNORE INTO meta(key, value) VALUES (?1, ?2)");
  insert.Bind(1, std::string_view("store_id")).Bind(2, RandomId::Hex(6)).Run();
  SqliteStatement version(db_, "INSERT OR IGNORE INTO meta(key, value) VALUES (?1, ?2)");
  version.Bind(1, std::string_view("feed_version")).Bind(2, std::string_view("1")).Run();
  SqliteStatement updated(db_, "INSERT OR IGNORE INTO meta(key, value) VALUES (?1, ?2)");
  updated.Bind(1, std::string_view("feed_updated_ms"))
      .Bind(2, std::to_string(Timestamp::NowMillis()))
      .Run();
  tx.Commit();
}

void DocumentStore::Recover() {
  for (const std::string& name : ListDirectory(folder_.TmpDir())) {
    ::unlink((folder_.TmpDir() + "/" + name).c_str());
  }
  std::set<std::string> referenced;
  {
    std::lock_guard<std::recursive_mutex> lock(db_.mutex());
    SqliteStatement select(db_, "SELECT blob FROM documents");
    while (select.Step()) referenced.insert(select.Text(0));
  }
  for (const std::string& name : ListDirectory(folder_.ContentDir())) {
    if (referenced.count(name) == 0) ::unlink((folder_.ContentDir() + "/" + name).c_str());
  }
  DataFolder::SyncDirectory(folder_.ContentDir());
  DataFolder::SyncDirectory(folder_.TmpDir());
}

DocumentStore::Listing DocumentStore::List() {
  std::lock_guard<std::recursive_mutex> lock(db_.mutex());
  Listing listing;
  std::string sql =
      std::string("SELECT ") + kColumns + " FROM documents ORDER BY updated_ms DESC, seq DESC";
  SqliteStatement select(db_, sql.c_str());
  while (select.Step()) listing.documents.push_back(ReadRecord(select));
  SqliteStatement meta(db_, "SELECT key, value FROM meta");
  std::string store_id, version;
  while (meta.Step()) {
    std::string key = meta.Text(0);
    if (key == "store_id") store_id = meta.Text(1);
    if (key == "feed_version") version = meta.Text(1);
    if (key == "feed_updated_ms") listing.updated_ms = std::stoll(meta.Text(1));
  }
  listing.etag = "\"" + store_id + "." + version + "\"";
  return listing;
}

std::optional<DocumentRecord> DocumentStore::Find(const std::string& id) {
  std::lock_guard<std::recursive_mutex> lock(db_.mutex());
  return SelectLocked(db_, id);
}

UniqueFd DocumentStore::OpenContent(const std::string& id, DocumentRecord* record) {
  // The file is opened under the lock, so that a concurrent replacement cannot remove it between
  // the look-up and the open.
  std::lock_guard<std::recursive_mutex> lock(db_.mutex());
  std::optional<DocumentRecord> found = SelectLocked(db_, id);
  if (!found) return UniqueFd();
  std::string path = folder_.ContentDir() + "/" + found->blob;
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) throw std::runtime_error("cannot open " + path + ": " + std::strerror(errno));
  *record = *found;
  return fd;
}

FileSink DocumentStore::NewContentFile() {
  return FileSink::CreateNew(folder_.TmpDir() + "/" + RandomId::Hex(16));
}

DocumentRecord DocumentStore::Create(const ContentSource& source, const std::string& title,
                                     const std::string& content_type, const InTransaction& also) {
  std::string blob = Publish(source);
  try {
    std::lock_guard<std::recursive_mutex> lock(db_.mutex());
    DbTransaction tx(db_);
    DocumentRecord record;
    record.id = RandomId::Hex(12);
    record.title = title;
    record.content_type = content_type;
    CommitContent(
        &tx,
        "INSERT INTO documents(id, seq, title, content_type, size, blob, etag, updated_ms) "
        "VALUES (?1, (SELECT COALESCE(MAX(seq), 0) + 1 FROM documents), ?2, ?3, ?4, ?5, ?6, ?7)",
        source, blob, also, &record);
    return record;
  } catch (...) {
    RemoveBlob(blob);
    throw;
  }
}

DocumentStore::Outcome DocumentStore::Replace(const std::string& id, const ContentSource& source,
                                              const std::string& content_type,
                                              const std::optional<std::string>& title,
                                              const std::optional<std::string>& if_match,
                                              DocumentRecord* record, const InTransaction& also) {
  std::string blob = Publish(source);
  std::string old_blob;
  try {
    std::lock_guard<std::recursive_mutex> lock(db_.mutex());
    DbTransaction tx(db_);
    std::optional<DocumentRecord> found = SelectLocked(db_, id);
    if (!found) {
      RemoveBlob(blob);
      return Outcome::kNotFound;
    }
    if (if_match && !EtagMatches(*if_match, found->etag)) {
      RemoveBlob(blob);
      return Outcome::kPreconditionFailed;
    }
    old_blob = found->blob;
    DocumentRecord updated = *found;
    if (!content_type.empty()) updated.content_type = content_type;
    if (title) updated.title = *title;
    CommitContent(&tx,
                  "UPDATE documents SET title = ?2, content_type = ?3, size = ?4, blob = ?5, "
                  "etag = ?6, updated_ms = ?7 WHERE id = ?1",
                  source, blob, also, &updated);
    *record = updated;
  } catch (...) {
    RemoveBlob(blob);
    throw;
  }
  // Readers open files under the database lock, so nobody can still be about to open this one.
  RemoveBlob(old_blob);
  return Outcome::kOk;
}

void DocumentStore::CommitContent(DbTransaction* tx, const char* sql, const ContentSource& source,
                                  const std::string& blob, const InTransaction& also,
                                  DocumentRecord* record) {
  record->size = source.size;
  record->blob = blob;
  record->etag = NewEtag();
  record->updated_ms = Timestamp::NowMillis();
  SqliteStatement statement(db_, sql);
  statement.Bind(1, record->id)
      .Bind(2, record->title)
      .Bind(3, record->content_type)
      .Bind(4, static_cast<std::int64_t>(record->size))
      .Bind(5, record->blob)
      .Bind(6, record->etag)
      .Bind(7, record->updated_ms)
      .Run();
  BumpFeed(record->updated_ms);
  if (also) also();
  tx->Commit();
}

DocumentStore::Outcome DocumentStore::Delete(const std::string& id,
                                             const std::optional<std::string>& if_match) {
  std::string blob;
  {
    std::lock_guard<std::recursive_mutex> lock(db_.mutex());
    DbTransaction tx(db_);
    std::optional<DocumentRecord> found = SelectLocked(db_, id);
    if (!found) return Outcome::kNotFound;
    if (if_match && !EtagMatches(*if_match, found->etag)) return Outcome::kPreconditionFailed;
    SqliteStatement remove(db_, "DELETE FROM documents WHERE id = ?1");
    remove.Bind(1, id).Run();
    BumpFeed(Timestamp::NowMillis());
    tx.Commit();
    blob = found->blob;
  }
  RemoveBlob(blob);
  return Outcome::kOk;
}

DocumentStore::Outcome DocumentStore::SetFlags(const std::string& id, std::optional<bool> starred,
                                               std::optional<bool> removed,
                                               DocumentRecord* record) {
  std::lock_guard<std::recursive_mutex> lock(db_.mutex());
  DbTransaction tx(db_);
  std::optional<DocumentRecord> found = SelectLocked(db_, id);
  if (!found) return Outcome::kNotFound;
  DocumentRecord updated = *found;
  if (starred) updated.starred = *starred;
  if (removed) updated.removed = *removed;
  updated.etag = NewEtag();
  updated.updated_ms = Timestamp::NowMillis();
  SqliteStatement update(db_,
                         "UPDATE documents SET starred = ?2, removed = ?3, etag = ?4, "
                         "updated_ms = ?5 WHERE id = ?1");
  update.Bind(1, id)
      .Bind(2, std::int64_t{updated.starred})
      .Bind(3, std::int64_t{updated.removed})
      .Bind(4, updated.etag)
      .Bind(5, updated.updated_ms)
      .Run();
  BumpFeed(updated.updated_ms);
  tx.Commit();
  *record = updated;
  return Outcome::kOk;
}

bool DocumentStore::EtagMatches(const std::string& if_match, const std::string& etag) {
  std::size_t start = 0;
  while (start <= if_match.size()) {
    std::size_t comma = if_match.find(',', start);
    std::string tag(TrimBlanks(
        if_match.substr(start, comma == std::string::npos ? std::string::npos : comma - start)));
    if (tag == "*" || tag == etag) return true;
    if (comma == std::string::npos) break;
    start = comma + 1;
  }
  return false;
}

std::string DocumentStore::Publish(const ContentSource& source) {
  std::string blob = RandomId::Hex(16);
  std::string target = folder_.ContentDir() + "/" + blob;
  int rc = source.link ? ::link(source.path.c_str(), target.c_str())
                       : ::rename(source.path.c_str(), target.c_str());
  if (rc != 0) {
    throw std::runtime_error("cannot publish " + source.path + ": " + std::strerror(errno));
  }
  if (!DataFolder::SyncDirectory(folder_.ContentDir())) {
    ::unlink(target.c_str());
    throw std::runtime_error("cannot sync the content folder");
  }
  return blob;
}

void DocumentStore::RemoveBlob(const std::string& blob) {
  if (!blob.empty()) ::unlink((folder_.ContentDir() + "/" + blob).c_str());
}

void DocumentStore::BumpFeed(std::int64_t now_ms) {
  SqliteStatement version(db_,
                          "UPDATE meta SET value = CAST(value AS INTEGER) + 1 "
                          "WHERE key = 'feed_version'");
  version.Run();
  SqliteStatement updated(db_, "UPDATE meta SET value = ?1 WHERE key = 'feed_updated_ms'");
  updated.Bind(1, std::to_string(now_ms)).Run();
}

std::string DocumentStore::NewEtag() { return "\"" + RandomId::Hex(12) + "\""; }

}  // namespace quire_server
