#include "tools/quire-server/database.h"

#include <sqlite3.h>

#include <stdexcept>

namespace quire_server {

Database::Database(const std::string& path) {
  if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
      SQLITE_OK) {
    std::string message = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    db_ = nullptr;
    throw std::runtime_error("cannot open " + path + ": " + message);
  }
  sqlite3_busy_timeout(db_, 10000);
  Exec("PRAGMA journal_mode=WAL");
  Exec("PRAGMA synchronous=FULL");
}

Database::~Database() { sqlite3_close(db_); }

void Database::Exec(const std::string& sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    std::string text = message ? message : "unknown error";
    sqlite3_free(message);
    throw std::runtime_error("database: " + text + " (" + sql + ")");
  }
}

void Database::Fail(const std::string& what) const {
  throw std::runtime_error("database: " + what + ": " + sqlite3_errmsg(db_));
}

}  // namespace quire_server
