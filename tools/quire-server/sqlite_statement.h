// A prepared SQLite statement with positional parameters (numbered from 1) and columns (from 0).
// Every failure throws std::runtime_error. The caller holds the database lock.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

struct sqlite3_stmt;

namespace quire_server {

class Database;

class SqliteStatement {
 public:
  SqliteStatement(Database& db, const char* sql);
  ~SqliteStatement();
  SqliteStatement(const SqliteStatement&) = delete;
  SqliteStatement& operator=(const SqliteStatement&) = delete;

  SqliteStatement& Bind(int index, std::int64_t value);
  SqliteStatement& Bind(int index, std::string_view value);
  SqliteStatement& Bind(int index, const std::string& value) {
    return Bind(index, std::string_view(value));
  }
  SqliteStatement& Bind(int index, const std::optional<std::string>& value);
  // Runs one step; true when a row is ready to read.
  bool Step();
  // Runs a statement that returns no rows.
  void Run();

  std::int64_t Int(int column) const;
  std::string Text(int column) const;
  bool IsNull(int column) const;

 private:
  Database& db_;
  sqlite3_stmt* stmt_ = nullptr;
};

}  // namespace quire_server
