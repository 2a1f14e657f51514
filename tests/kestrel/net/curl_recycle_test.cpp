// Large response bodies land in storage that the transport recycles: a released body's memory
// serves the next body of a similar size, is never shared between live bodies, and goes back to
// the memory manager when the transport is gone, also when a body outlives the transport.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "kestrel/base/main_loop.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/net/transport_registry.h"
#include "tests/kestrel/net/curl_test_support.h"
#include "tests/support/data_pattern.h"

namespace quire_test::curl {
namespace {

constexpr std::size_t kMiB = 1024 * 1024;

struct Seen {
  int calls = 0;
  int status = -1;
  std::size_t size = 0;
  bool pattern = false;
  long long live_bytes = 0;  // the memory manager's, during the callback
  const char* data = nullptr;
};

class CurlRecycleTest : public CurlTest {
 protected:
  // Issues a GET of `size` bytes of the pattern from its byte `from` on; the callback records what
  // it saw into `*seen`.
  void Issue(kestrel::quire::Connection* connection, std::size_t size, Seen* seen,
             std::uint64_t from = 0) {
    kestrel::quire::ConnectionParams params{
        kestrel::quire::kMethodGet,
        DocsUrl(QStringLiteral("/bytes/%1?from=%2").arg(size).arg(from)),
        nullptr,
        nullptr,
        false,
        0};
    connection->Request(
        params, [seen, from](kestrel::quire::NetworkResponseInfo info, QByteArray body) {
          ++seen->calls;
          seen->status = info.status;
          seen->size = static_cast<std::size_t>(body.size());
          seen->pattern = FindPatternMismatch(body.constData(), from, seen->size) == seen->size;
          seen->live_bytes = kestrel::MemoryManager::Default()->live_bytes();
          seen->data = body.constData();
        });
  }

  // One GET of `size` bytes, run to its end (request released); returns what the callback saw.
  Seen Download(std::size_t size) {
    auto connection = MakeConnection();
    Seen seen;
    Issue(connection.get(), size, &seen);
    RunUntil([&seen] { return seen.calls > 0; });
    kestrel::MainLoop::Default()->RunUntilIdle();
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.status, 0);
    EXPECT_EQ(seen.size, size);
    EXPECT_TRUE(seen.pattern);
    return seen;
  }

  long long LiveBytes() const { return kestrel::MemoryManager::Default()->live_bytes(); }
};

TEST_F(CurlRecycleTest, ReleasedBodyStorageServesTheNextLargeBody) {
  long long before = LiveBytes();
  const Seen first = Download(4 * kMiB);
  // The first body needed fresh storage of its own size.
  EXPECT_GE(first.live_bytes - before, static_cast<long long>(4 * kMiB));
  // Released, the storage stays with the transport...
  before = LiveBytes();
  const Seen second = Download(4 * kMiB);
  // ...and the second body lands in it: no second block of that size was taken.
  EXPECT_LT(second.live_bytes - before, static_cast<long long>(kMiB));
  EXPECT_EQ(second.data, first.data);
  // A smaller body that still fills more than half of the block takes it too.
  before = LiveBytes();
  const Seen third = Download(3 * kMiB);
  EXPECT_LT(third.live_bytes - before, static_cast<long long>(kMiB));
}

TEST_F(CurlRecycleTest, StorageIsNotHandedToABodyMuchSmallerThanIt) {
  Download(8 * kMiB);
  const long long before = LiveBytes();
  const Seen small = Download(2 * kMiB);
  // 8 MiB would waste more than half: the 2 MiB body gets fresh storage.
  EXPECT_GE(small.live_bytes - before, static_cast<long long>(2 * kMiB));
}

TEST_F(CurlRecycleTest, SmallBodiesDoNotUseRecycledStorage) {
  // A block that a body of just under 1 MiB would fill more than half of.
  Download(kMiB + kMiB / 2);
  const long long before = LiveBytes();
  const Seen small = Download(kMiB - 1);
  EXPECT_GE(small.live_bytes - before, static_cast<long long>(kMiB - 1));
}

TEST_F(CurlRecycleTest, BodiesAliveAtTheSameTimeHaveTheirOwnStorage) {
  Download(4 * kMiB);  // leaves a block with the transport
  auto connection = MakeConnection();
  // Three bodies of the same size with different bytes: each is a different stretch of the pattern.
  constexpr std::size_t kBodies = 3;
  std::vector<Seen> seen(kBodies);
  for (std::size_t i = 0; i < kBodies; ++i) {
    Issue(connection.get(), 4 * kMiB, &seen[i], i * 4 * kMiB + 8 * (i + 1));
  }
  // Every transfer ends before any callback runs, so that every body is alive (held by a request
  // that has not been released yet) while the others are received.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (transport_->in_flight() > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_EQ(transport_->in_flight(), 0u);
  for (const Seen& one : seen) EXPECT_EQ(one.calls, 0);
  RunUntil([&seen] { return seen[0].calls > 0 && seen[1].calls > 0 && seen[2].calls > 0; });
  kestrel::MainLoop::Default()->RunUntilIdle();
  for (std::size_t i = 0; i < kBodies; ++i) {
    SCOPED_TRACE(testing::Message() << "body " << i);
    EXPECT_EQ(seen[i].calls, 1);
    EXPECT_EQ(seen[i].status, 0);
    EXPECT_EQ(seen[i].size, 4 * kMiB);
    // A body whose storage another body shared would hold the other's bytes.
    EXPECT_TRUE(seen[i].pattern);
  }
  // No two bodies' storage overlaps.
  for (std::size_t i = 0; i < kBodies; ++i) {
    for (std::size_t j = i + 1; j < kBodies; ++j) {
      const auto a = reinterpret_cast<std::uintptr_t>(seen[i].data);
      const auto b = reinterpret_cast<std::uintptr_t>(seen[j].data);
      EXPECT_TRUE(a + seen[i].size <= b || b + seen[j].size <= a)
          << "bodies " << i << " and " << j << " share storage";
    }
  }
}

TEST_F(CurlRecycleTest, BodyThatOutlivesTheTransportIsFreedWithTheRequest) {
  Download(4 * kMiB);  // leaves a block with the transport
  auto connection = MakeConnection();
  Seen seen;
  Issue(connection.get(), 4 * kMiB, &seen);
  // Wait for the completion to be handed to the main loop without running it.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (transport_->in_flight() > 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_EQ(transport_->in_flight(), 0u);
  EXPECT_EQ(seen.calls, 0);
  kestrel::net::TransportRegistry::SetDefault(nullptr);
  delete transport_;
  transport_ = nullptr;
  // The body is still whole, and its storage goes back to the memory manager afterwards (the
  // fixture checks the live allocations at the end).
  RunUntil([&seen] { return seen.calls > 0; });
  kestrel::MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(seen.status, 0);
  EXPECT_EQ(seen.size, 4 * kMiB);
  EXPECT_TRUE(seen.pattern);
}

}  // namespace
}  // namespace quire_test::curl
