#include "tools/quire-server/sqlite_statement.h"

#include <sqlite3.h>

#include "tools/quire-server/database.h"

namespace quire_server {

SqliteStatement::SqliteStatement(Database& db, const char* sql) : db_(db) {
  if (sqlite3_prepare_v2(db.handle(), sql, -1, &stmt_, nullptr) != SQLITE_OK) {
    db.Fail(std::string("prepare ") + sql);
  }
}

SqliteStatement::~SqliteStatement() { sqlite3_finalize(stmt_); }

SqliteStatement& SqliteStatement::Bind(int index, std::int64_t value) {
  if (sqlite3_bind_int64(stmt_, index, value) != SQLITE_OK) db_.Fail("bind");
  return *this;
}

SqliteStatement& SqliteStatement::Bind(int index, std::string_view value) {
  if (sqlite3_bind_text(stmt_, index, value.data(), static_cast<int>(value.size()),
                        SQLITE_TRANSIENT) != SQLITE_OK) {
    db_.Fail("bind");
  }
  return *this;
}

SqliteStatement& SqliteStatement::Bind(int index, const std::optional<std::string>& value) {
  if (!value) {
    if (sqlite3_bind_null(stmt_, index) != SQLITE_OK) db_.Fail("bind");
    return *this;
  }
  return Bind(index, std::string_view(*value));
}

bool SqliteStatement::Step() {
  int rc = sqlite3_step(stmt_);
  if (rc == SQLITE_ROW) return true;
  if (rc == SQLITE_DONE) return false;
  db_.Fail("step");
}

void SqliteStatement::Run() {
  while (Step()) {
  }
}

std::int64_t SqliteStatement::Int(int column) const { return sqlite3_column_int64(stmt_, column); }

std::string SqliteStatement::Text(int column) const {
  const unsigned char* text = sqlite3_column_text(stmt_, column);
  int size = sqlite3_column_bytes(stmt_, column);
  return text ? std::string(reinterpret_cast<const char*>(text), static_cast<std::size_t>(size))
              : std::string();
}

bool SqliteStatement::IsNull(int column) const {
  return sqlite3_column_type(stmt_, column) == SQLITE_NULL;
}

}  // namespace quire_server
