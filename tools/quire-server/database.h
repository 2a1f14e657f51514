// The emulator's SQLite database: one connection shared by every thread, guarded by one lock. It
// runs in write-ahead-log mode with full synchronisation, so a committed transaction survives a
// crash of the process or of the machine.
#pragma once

#include <mutex>
#include <string>

struct sqlite3;

namespace quire_server {

class Database {
 public:
  // Opens (creating when missing) the database file. Throws std::runtime_error on failure.
  explicit Database(const std::string& path);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  sqlite3* handle() const { return db_; }
  // Held for every use of the connection. Recursive so that a store may run another store's
  // statements inside its own transaction.
  std::recursive_mutex& mutex() { return mutex_; }

  // Runs statements without results. Throws std::runtime_error on failure.
  void Exec(const std::string& sql);
  // Throws std::runtime_error naming `what` and SQLite's message.
  [[noreturn]] void Fail(const std::string& what) const;

 private:
  sqlite3* db_ = nullptr;
  std::recursive_mutex mutex_;
};

}  // namespace quire_server
