// Fixtures shared by the tests: a scripted transport installed for the test's duration, a check
// that the memory manager's live allocations come back to where they started, and a way to run the
// main loop until the callbacks a test waits for have arrived.
#pragma once

#include <gtest/gtest.h>

#include <functional>

#include "kestrel/base/main_loop.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/net/network_status.h"
#include "kestrel/net/scripted_transport.h"
#include "kestrel/net/transport_registry.h"

namespace quire_test {

// Installs a fresh ScriptedTransport for every test and, at the end, drains the main loop and
// verifies that every scripted answer was asked for and that nothing the test allocated through
// the memory manager is still alive.
class ScriptedTest : public ::testing::Test {
 protected:
  void SetUp() override {
    kestrel::MainLoop::Default()->RunUntilIdle();
    live_at_start_ = kestrel::MemoryManager::Default()->live_allocations();
    kestrel::net::TransportRegistry::SetDefault(&transport_);
  }

  void TearDown() override {
    RunUntilIdle();
    kestrel::net::TransportRegistry::SetDefault(nullptr);
    EXPECT_EQ(transport_.in_flight(), 0u) << "requests still in flight at the end of the test";
    EXPECT_EQ(transport_.queued(), 0u) << "scripted answers that no request asked for";
    EXPECT_EQ(kestrel::MemoryManager::Default()->live_allocations(), live_at_start_)
        << "the memory manager's live allocations did not come back to where they started";
  }

  // Runs the main loop until `done` holds (5 s at most); fails the test on time-out.
  void RunUntil(const std::function<bool()>& done, double timeout_seconds = 5.0) {
    ASSERT_TRUE(kestrel::MainLoop::Default()->RunUntil(done, timeout_seconds))
        << "timed out waiting on the main loop";
  }

  // Runs every ready job, and then those that become ready, until the transport has nothing in
  // flight.
  void RunUntilIdle() {
    kestrel::MainLoop::Default()->RunUntil([this] { return transport_.in_flight() == 0; }, 10.0);
    kestrel::MainLoop::Default()->RunUntilIdle();
  }

  long live_at_start() const { return live_at_start_; }

  kestrel::net::ScriptedTransport transport_;

 private:
  long live_at_start_ = 0;
};

// Shorthand for the network layer's code of an HTTP status.
inline std::uint32_t Http(int status) { return kestrel::net::status::FromHttp(status); }

// The whole header lines of a recorded request, in order.
inline std::vector<QString> Lines(const kestrel::net::ScriptedTransport::Seen& seen) {
  std::vector<QString> lines;
  for (const auto& header : seen.headers) lines.push_back(header.name);
  return lines;
}

// Checks that a recorded request came through a manager made as ConnectionManager(4, 2, true, 60.0,
// 60), the way the library's Connection makes its own.
inline void ExpectConnectionDefaults(const kestrel::net::ConnectionOptions& options) {
  EXPECT_EQ(options.max_connections_per_host, 4);
  EXPECT_EQ(options.max_idle_connections_per_host, 2);
  EXPECT_TRUE(options.keep_alive);
  EXPECT_DOUBLE_EQ(options.stall_timeout_seconds, 60.0);
  EXPECT_EQ(options.idle_connection_seconds, 60);
}

}  // namespace quire_test
