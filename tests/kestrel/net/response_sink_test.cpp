// ResponseSink on its own: the order of head and pieces, the ring's wrap-around and bound, the
// waker of a producer that found it full, and stopping.
#include "kestrel/net/response_sink.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <string>

#include "kestrel/base/main_loop.h"
#include "kestrel/base/memory_manager.h"

namespace {

using kestrel::MainLoop;
using kestrel::net::ResponseSink;
using PushResult = ResponseSink::PushResult;

class ResponseSinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MainLoop::Default()->RunUntilIdle();
    live_ = kestrel::MemoryManager::Default()->live_allocations();
  }
  void TearDown() override {
    MainLoop::Default()->RunUntilIdle();
    EXPECT_EQ(kestrel::MemoryManager::Default()->live_allocations(), live_);
  }
  long live_ = 0;
};

std::string Bytes(std::size_t size, char seed) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(seed + i * 7 + i / 4096);
  return bytes;
}

TEST_F(ResponseSinkTest, HeadComesFirstThenEveryByteInOrderAcrossTheRingsEnd) {
  std::string got;
  std::vector<std::string> events;
  auto* sink = new ResponseSink(
      ResponseSink::kMinCapacity,
      [&](int status, const std::vector<QString>& headers) {
        events.push_back("head " + std::to_string(status) + " " + headers.at(0).toStdString());
        return true;
      },
      [&](const char* data, std::size_t size) {
        events.push_back("piece");
        got.append(data, size);
        return true;
      });
  const std::size_t piece = 300000;  // does not divide the ring: pieces wrap around its end
  const std::string body = Bytes(piece * 11, 3);
  sink->PushHead(206, {QStringLiteral("Content-Range: bytes 0-9/10")});
  for (std::size_t at = 0; at < body.size(); at += piece) {
    EXPECT_EQ(sink->Push(body.data() + at, piece), PushResult::kTaken);
    MainLoop::Default()->RunUntilIdle();
  }
  EXPECT_EQ(events.front(), "head 206 Content-Range: bytes 0-9/10");
  EXPECT_EQ(got, body);
  EXPECT_EQ(sink->delivered(), body.size());
  EXPECT_LE(sink->peak_queued(), sink->capacity());
  sink->Release();
}

TEST_F(ResponseSinkTest, FullRingRefusesThenWakesTheProducerAtHalf) {
  std::size_t delivered = 0;
  auto* sink = new ResponseSink(0, nullptr, [&](const char*, std::size_t size) {
    delivered += size;
    return true;
  });
  int wakes = 0;
  sink->SetWaker([&] { ++wakes; });
  const std::string piece = Bytes(400 * 1024, 1);
  EXPECT_EQ(sink->Push(piece.data(), piece.size()), PushResult::kTaken);
  EXPECT_EQ(sink->Push(piece.data(), piece.size()), PushResult::kTaken);
  EXPECT_EQ(sink->Push(piece.data(), piece.size()), PushResult::kFull);
  EXPECT_EQ(wakes, 0);
  MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(wakes, 1);
  EXPECT_EQ(delivered, 2 * piece.size());
  EXPECT_EQ(sink->Push(piece.data(), piece.size()), PushResult::kTaken);
  MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(delivered, 3 * piece.size());
  EXPECT_EQ(wakes, 1) << "woken only after a refusal";
  sink->SetWaker({});
  sink->Release();
}

TEST_F(ResponseSinkTest, PieceLargerThanAnEmptyRingIsTaken) {
  std::string got;
  auto* sink = new ResponseSink(0, nullptr, [&](const char* data, std::size_t size) {
    got.append(data, size);
    return true;
  });
  const std::string big = Bytes(3 * ResponseSink::kMinCapacity + 5, 9);
  EXPECT_EQ(sink->Push(big.data(), big.size()), PushResult::kTaken);
  MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(got, big);
  sink->Release();
}

TEST_F(ResponseSinkTest, RefusedHeadOrFailedPieceStopsEverything) {
  int pieces = 0;
  auto* refusing = new ResponseSink(
      0, [](int, const std::vector<QString>&) { return false; },
      [&](const char*, std::size_t) { return ++pieces > 0; });
  refusing->PushHead(200, {});
  EXPECT_EQ(refusing->Push("abc", 3), PushResult::kTaken);
  MainLoop::Default()->RunUntilIdle();
  EXPECT_TRUE(refusing->stopped());
  EXPECT_EQ(pieces, 0);
  EXPECT_EQ(refusing->Push("abc", 3), PushResult::kStopped);
  refusing->Release();

  auto* failing = new ResponseSink(0, nullptr, [](const char*, std::size_t) { return false; });
  EXPECT_EQ(failing->Push("abc", 3), PushResult::kTaken);
  MainLoop::Default()->RunUntilIdle();
  EXPECT_TRUE(failing->stopped());
  EXPECT_EQ(failing->delivered(), 0u);
  EXPECT_EQ(failing->Push("abc", 3), PushResult::kStopped);
  failing->Release();
}

TEST_F(ResponseSinkTest, StopWakesAPausedProducerAndDropsWhatWaits) {
  int pieces = 0;
  auto* sink = new ResponseSink(0, nullptr, [&](const char*, std::size_t) { return ++pieces > 0; });
  int wakes = 0;
  sink->SetWaker([&] { ++wakes; });
  const std::string piece = Bytes(ResponseSink::kMinCapacity, 2);
  EXPECT_EQ(sink->Push(piece.data(), piece.size()), PushResult::kTaken);
  EXPECT_EQ(sink->Push("x", 1), PushResult::kFull);
  sink->Stop();
  EXPECT_EQ(wakes, 1);
  EXPECT_EQ(sink->Push("x", 1), PushResult::kStopped);
  MainLoop::Default()->RunUntilIdle();
  EXPECT_EQ(pieces, 0);
  sink->Stop();  // twice: nothing more
  EXPECT_EQ(wakes, 1);
  sink->SetWaker({});
  sink->Release();
}

}  // namespace
