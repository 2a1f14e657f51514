// Host code stays ordinary C++: objects made with plain `new` may be deleted by the library (which
// uses doDelete), and the other way round, without any mismatch of allocators.
#include <gtest/gtest.h>

#include "kestrel/base/memory_manager.h"
#include "quire/connection/connection.h"
#include "tests/support/test_support.h"

namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses

class MyConnection : public IConnection {
 public:
  explicit MyConnection(int* destroyed) : destroyed_(destroyed) {}
  ~MyConnection() override { ++*destroyed_; }
  void Init(const std::vector<QString>&) override {}
  unsigned int Request(const ConnectionParams&, ResponseCallback) override { return 1; }
  void Cancel(unsigned int) override {}
  std::string some_state = std::string(200, 'x');

 private:
  int* destroyed_;
};

class HostConnectionTest : public quire_test::ScriptedTest {};

TEST_F(HostConnectionTest, PlainNewThenLibraryDelete) {
  int destroyed = 0;
  IConnection* connection = new MyConnection(&destroyed);
  EXPECT_EQ(kestrel::MemoryManager::Default()->live_allocations(), live_at_start() + 1)
      << "a host class derived from IConnection is allocated through the memory manager";
  kestrel::doDelete(connection);
  EXPECT_EQ(destroyed, 1);
}

TEST_F(HostConnectionTest, LibraryNewThenPlainDelete) {
  IConnection* connection = kestrel::doNew<kestrel::quire::Connection>();
  connection->Init({QStringLiteral("Quire-Version: 3.0")});
  delete connection;
}

}  // namespace
