// A write transaction on the emulator's database: begun at construction, rolled back at
// destruction unless committed. The caller holds the database lock for the whole lifetime.
#pragma once

namespace quire_server {

class Database;

class DbTransaction {
 public:
  explicit DbTransaction(Database& db);
  ~DbTransaction();
  DbTransaction(const DbTransaction&) = delete;
  DbTransaction& operator=(const DbTransaction&) = delete;

  // Makes the changes durable. Throws std::runtime_error on failure (the changes are then undone).
  void Commit();

 private:
  Database& db_;
  bool done_ = false;
};

}  // namespace quire_server
