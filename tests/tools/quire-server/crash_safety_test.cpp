// Crash safety: many resumable uploads run while the server is killed (SIGKILL) at random moments
// and restarted on the same data folder. Afterwards every document whose creation was answered
// 2xx is there with exactly its bytes, and every document in the feed is whole.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <random>
#include <thread>

#include "quire/services/endpoints.h"
#include "tests/tools/quire-server/server_test.h"

namespace quire_test::server {
namespace {

constexpr int kClients = 50;
constexpr int kUploadsPerClient = 3;
constexpr int kKills = 12;
constexpr std::size_t kChunk = 32 * 1024;
constexpr auto kClientDeadline = std::chrono::seconds(120);

const std::string kFeed = "http://docs.quire.example/feeds/default/private/full";

struct Recorded {
  std::string id;
  std::string sha;
};

// The server of the test: restarted on the same data after each kill, on a new port.
class RestartingServer {
 public:
  explicit RestartingServer(std::string data) : data_(std::move(data)) { Launch(); }

  int port() const { return port_.load(); }
  void KillAndRestart() {
    std::lock_guard<std::mutex> lock(mutex_);
    server_->Kill();
    Launch();
  }
  ServerProcess& server() { return *server_; }

 private:
  void Launch() {
    server_ = std::make_unique<ServerProcess>(
        std::vector<std::string>{"--data", data_, "--http", "--session-timeout", "600"});
    ASSERT_TRUE(server_->started()) << server_->first_line();
    port_.store(server_->port());
  }

  std::string data_;
  std::mutex mutex_;
  std::unique_ptr<ServerProcess> server_;
  std::atomic<int> port_{0};
};

// One resumable upload that survives the server's deaths: it resumes where the server says,
// and starts over only when its session is gone. Returns the answered entry, if any.
std::optional<EntryView> Upload(HttpClient& client, RestartingServer& server,
                                const std::string& data, const std::string& title,
                                std::chrono::steady_clock::time_point deadline) {
  auto send = [&](const std::string& method, const std::string& url,
                  std::vector<std::string> headers, const std::string* body) {
    client.SetPort(server.port());
    headers.push_back("Quire-Version: 3.0");
    headers.push_back(std::string("Authorization: Bearer ") + kToken);
    return client.Send(method, url, headers, body);
  };
  const std::string total = std::to_string(data.size());
  std::string session;
  std::uint64_t position = 0;
  while (std::chrono::steady_clock::now() < deadline) {
    if (session.empty()) {
      std::string metadata =
          "<entry xmlns=\"http://www.w3.org/2005/Atom\"><title>" + title + "</title></entry>";
      HttpResult opened = send(
          "POST", "http://docs.quire.example/upload/feeds/default/private/full",
          {"Content-Type: application/atom+xml", "X-Upload-Content-Type: application/octet-stream",
           "X-Upload-Content-Length: " + total},
          &metadata);
      if (!opened.ok() || opened.status != 200) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        continue;
      }
      session = opened.Header("Location");
      position = 0;
    }
    std::string chunk = data.substr(position, kChunk);
    HttpResult put = send("PUT", session,
                          {"Content-Range: bytes " + std::to_string(position) + "-" +
                           std::to_string(position + chunk.size() - 1) + "/" + total},
                          &chunk);
    if (!put.ok()) {
      // The server died: ask where the session stands once it is back.
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      HttpResult query = send("PUT", session, {"Content-Range: bytes */" + total}, nullptr);
      if (!query.ok()) continue;
      put = query;
    }
    if (put.status == 201) return AtomView::ParseEntry(put.body);
    if (put.status == 308) {
      std::string range = put.Header("Range");
      position = range.empty() ? 0 : std::stoull(range.substr(8));
      continue;
    }
    // The session is gone (its completion's answer was lost): start over.
    session.clear();
  }
  return std::nullopt;
}

TEST(CrashSafetyTest, AnsweredDocumentsSurviveKillsAndNoneIsPartial) {
  TempDir data;
  RestartingServer server(data.path());
  std::vector<std::vector<Recorded>> recorded(kClients);
  std::atomic<int> finished{0};
  std::atomic<int> failed{0};

  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back([&, i] {
      HttpClient client(server.port(), "");
      client.SetTimeoutMs(10000);
      std::mt19937 random(static_cast<unsigned>(i));
      auto deadline = std::chrono::steady_clock::now() + kClientDeadline;
      for (int n = 0; n < kUploadsPerClient; ++n) {
        std::string bytes = RandomBytes(100000 + random() % 400000, 7919u * i + n);
        std::string sha = Sha256Hex(bytes);
        std::string title = "crash-" + std::to_string(i) + "-" + std::to_string(n) + "-" + sha;
        std::optional<EntryView> entry = Upload(client, server, bytes, title, deadline);
        if (!entry || !entry->parsed) {
          ++failed;
          break;
        }
        recorded[i].push_back({AtomView::IdOf(*entry), sha});
      }
      ++finished;
    });
  }

  std::mt19937 random(12345);
  int kills = 0;
  while (kills < kKills && finished.load() < kClients) {
    std::this_thread::sleep_for(std::chrono::milliseconds(30 + random() % 150));
    if (finished.load() == kClients) break;
    server.KillAndRestart();
    ++kills;
  }
  for (std::thread& client : clients) client.join();
  EXPECT_EQ(failed.load(), 0);
  // The kills must have hit the uploads, or this test shows nothing.
  EXPECT_GE(kills, 3);

  // One more crash for good measure, then check everything.
  server.KillAndRestart();
  HttpClient client(server.port(), "");
  std::vector<std::string> headers = {"Quire-Version: 3.0",
                                      std::string("Authorization: Bearer ") + kToken};
  std::size_t answered = 0;
  for (const auto& list : recorded) {
    for (const Recorded& doc : list) {
      ++answered;
      HttpResult content = client.Send("GET", kFeed + "/" + doc.id + "/content", headers);
      ASSERT_EQ(content.status, 200) << doc.id;
      EXPECT_EQ(Sha256Hex(content.body), doc.sha) << doc.id;
    }
  }
  EXPECT_EQ(answered, static_cast<std::size_t>(kClients * kUploadsPerClient));

  HttpResult feed_answer = client.Send("GET", kFeed, headers);
  ASSERT_EQ(feed_answer.status, 200);
  FeedView feed = AtomView::ParseFeed(feed_answer.body);
  ASSERT_TRUE(feed.parsed);
  EXPECT_GE(feed.entries.size(), answered);
  for (const EntryView& entry : feed.entries) {
    ASSERT_EQ(entry.title.rfind("crash-", 0), 0u) << entry.title;
    std::string sha = entry.title.substr(entry.title.rfind('-') + 1);
    HttpResult content = client.Send("GET", entry.content_src, headers);
    ASSERT_EQ(content.status, 200);
    EXPECT_EQ(Sha256Hex(content.body), sha) << entry.title;
  }
  EXPECT_TRUE(std::filesystem::is_empty(data.path() + "/tmp"));
  std::cout << kills << " kills during the uploads; " << feed.entries.size() << " documents for "
            << answered << " answered creations" << std::endl;
}

}  // namespace
}  // namespace quire_test::server
