#include "tools/quire-server/db_transaction.h"

#include <sqlite3.h>

#include "tools/quire-server/database.h"

namespace quire_server {

DbTransaction::DbTransaction(Database& db) : db_(db) { db_.Exec("BEGIN IMMEDIATE"); }

DbTransaction::~DbTransaction() {
  if (!done_) sqlite3_exec(db_.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
}

void DbTransaction::Commit() {
  db_.Exec("COMMIT");
  done_ = true;
}

}  // namespace quire_server
