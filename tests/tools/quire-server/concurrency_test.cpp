// Many clients at once: every request is answered correctly and in bounded time, and conditional
// changes of one document by many clients let exactly one through.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "quire/model/link_relations.h"
#include "tests/tools/quire-server/server_test.h"

namespace quire_test::server {
namespace {

namespace q = kestrel::quire;

constexpr int kClients = 64;

class ConcurrencyTest : public ServerTest {};

// The protocol's requests through one client; failures are reported with the client's number.
struct Worker {
  ServerTest* test;
  HttpClient client;
  std::vector<std::string> failures;

  HttpResult Call(const std::string& method, const std::string& url,
                  std::vector<std::string> headers, const std::string* body, bool auth = true) {
    std::vector<std::string> all = {"Quire-Version: 3.0"};
    if (auth) all.push_back(std::string("Authorization: Bearer ") + kToken);
    all.insert(all.end(), headers.begin(), headers.end());
    return client.Send(method, url, all, body);
  }
  void Expect(bool ok, const std::string& what) {
    if (!ok) failures.push_back(what);
  }
};

TEST_F(ConcurrencyTest, SixtyFourClientsWorkAtOnce) {
  Start();
  EntryView shared = Create("shared", "shared");
  std::string resumable_url = Feed().links[q::kResumableCreateMediaRel];

  std::atomic<int> ready{0};
  std::vector<int> shared_status(kClients, 0);
  std::vector<std::string> uploaded(kClients);
  std::vector<std::string> uploaded_sha(kClients);
  std::mutex failures_mutex;
  std::vector<std::string> failures;

  std::vector<std::thread> threads;
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      Worker w{this, HttpClient(server_->port(), data() + "/tls/cert.pem"), {}};
      std::string tag = "client " + std::to_string(i) + ": ";
      ++ready;
      while (ready.load() < kClients) std::this_thread::yield();

      std::string content = RandomBytes(20000 + 100 * i, 1000 + i);
      HttpResult created = w.Call("POST", FeedUrl(), {"Slug: c" + std::to_string(i)}, &content);
      w.Expect(created.status == 201, tag + "create " + std::to_string(created.status));
      EntryView entry = AtomView::ParseEntry(created.body);
      HttpResult got = w.Call("GET", entry.content_src, {}, nullptr);
      w.Expect(got.status == 200 && got.body == content, tag + "content after create");

      std::string replacement = RandomBytes(30000, 2000 + i);
      HttpResult replaced = w.Call("PUT", entry.edit, {"If-Match: " + entry.etag}, &replacement);
      w.Expect(replaced.status == 200, tag + "replace " + std::to_string(replaced.status));
      std::string new_tag = AtomView::ParseEntry(replaced.body).etag;
      got = w.Call("GET", entry.content_src, {}, nullptr);
      w.Expect(got.body == replacement, tag + "content after replace");

      std::string data = RandomBytes(200000, 3000 + i);
      std::string metadata = "";
      HttpResult opened = w.Call("POST", resumable_url,
                                 {"Content-Type: application/atom+xml",
                                  "X-Upload-Content-Length: " + std::to_string(data.size())},
                                 &metadata);
      w.Expect(opened.status == 200, tag + "open " + std::to_string(opened.status));
      std::string session = opened.Header("Location");
      std::uint64_t position = 0;
      HttpResult last;
      for (int round = 0; round < 20; ++round) {
        std::string chunk = data.substr(position, 65536);
        std::string range = "Content-Range: bytes " + std::to_string(position) + "-" +
                            std::to_string(position + chunk.size() - 1) + "/" +
                            std::to_string(data.size());
        last = w.Call("PUT", session, {range}, &chunk, false);
        if (last.status != 308) break;
        position = std::stoull(last.Header("Range").substr(8));
      }
      w.Expect(last.status == 201, tag + "upload " + std::to_string(last.status));
      EntryView upload = AtomView::ParseEntry(last.body);
      uploaded[i] = AtomView::IdOf(upload);
      uploaded_sha[i] = Sha256Hex(data);

      std::string mine = "written by " + std::to_string(i);
      shared_status[i] =
          static_cast<int>(w.Call("PUT", shared.edit, {"If-Match: " + shared.etag}, &mine).status);

      HttpResult feed = w.Call("GET", FeedUrl(), {}, nullptr);
      w.Expect(feed.status == 200 && AtomView::ParseFeed(feed.body).parsed, tag + "feed");
      HttpResult deleted = w.Call("DELETE", entry.edit, {"If-Match: " + new_tag}, nullptr);
      w.Expect(deleted.status == 200, tag + "delete " + std::to_string(deleted.status));

      std::lock_guard<std::mutex> lock(failures_mutex);
      failures.insert(failures.end(), w.failures.begin(), w.failures.end());
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string& failure : failures) ADD_FAILURE() << failure;

  // Exactly one conditional replacement of the shared document went through.
  int ok = 0, refused = 0;
  for (int status : shared_status) {
    ok += status == 200;
    refused += status == 412;
  }
  EXPECT_EQ(ok, 1);
  EXPECT_EQ(refused, kClients - 1);
  std::string winner = Content(shared);
  EXPECT_EQ(winner.rfind("written by ", 0), 0u);

  FeedView feed = Feed();
  EXPECT_EQ(feed.entries.size(), static_cast<std::size_t>(kClients + 1));
  for (int i = 0; i < kClients; ++i) {
    const EntryView* entry = feed.Find(uploaded[i]);
    ASSERT_NE(entry, nullptr) << i;
    EXPECT_EQ(Sha256Hex(Content(*entry)), uploaded_sha[i]) << i;
  }
}

TEST_F(ConcurrencyTest, ConcurrentChunksToOneSessionAreTakenOneAtATime) {
  Start({}, /*http=*/true);
  std::string data = RandomBytes(4 << 20, 77);
  std::string session = OpenUpload(Feed().links[q::kResumableCreateMediaRel], data.size());
  std::vector<long> statuses(8, 0);
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&, i] {
      HttpClient client(server_->port(), "");
      std::string chunk = data.substr(0, 2 << 20);
      statuses[i] = client
                        .Send("PUT", session,
                              {"Quire-Version: 3.0", "Content-Range: bytes 0-" +
                                                         std::to_string(chunk.size() - 1) + "/" +
                                                         std::to_string(data.size())},
                              &chunk)
                        .status;
    });
  }
  for (std::thread& thread : threads) thread.join();
  int stored = 0;
  for (long status : statuses) {
    EXPECT_TRUE(status == 308 || status == 409) << status;
    stored += status == 308;
  }
  EXPECT_GE(stored, 1);
  HttpResult query = StatusQuery(session, data.size());
  EXPECT_EQ(query.Header("Range"), "bytes=0-" + std::to_string((2 << 20) - 1));
  HttpResult done = PutChunk(session, (2 << 20) - 1, data.substr((2 << 20) - 1), data.size());
  ASSERT_EQ(done.status, 201);
  EXPECT_EQ(Sha256Hex(Content(AtomView::ParseEntry(done.body))), Sha256Hex(data));
}

}  // namespace
}  // namespace quire_test::server
