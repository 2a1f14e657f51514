#include "tests/tools/quire-server/server_test.h"

#include <stdlib.h>

#include <filesystem>
#include <random>

#include "quire/services/endpoints.h"

namespace quire_test::server {

void ServerTest::Start(const std::vector<std::string>& extra_args, bool http) {
  http_ = http;
  args_ = {"--data", data()};
  if (http) args_.push_back("--http");
  args_.insert(args_.end(), extra_args.begin(), extra_args.end());
  server_ = std::make_unique<ServerProcess>(args_);
  ASSERT_TRUE(server_->started()) << "no listening line; got: " << server_->first_line();
  ASSERT_EQ(server_->scheme(), Scheme());
  client_ = std::make_unique<HttpClient>(server_->port(),
                                         http ? std::string() : data() + "/tls/cert.pem");
}

void ServerTest::Restart() {
  ASSERT_TRUE(server_);
  if (server_->pid() > 0) {
    EXPECT_EQ(server_->Terminate(), 0);
  }
  server_ = std::make_unique<ServerProcess>(args_);
  ASSERT_TRUE(server_->started()) << "no listening line; got: " << server_->first_line();
  client_->SetPort(server_->port());
}

void ServerTest::TearDown() {
  client_.reset();
  if (server_ && server_->pid() > 0) {
    EXPECT_EQ(server_->Terminate(), 0);
  }
  server_.reset();
}

std::string ServerTest::FeedUrl() const {
  std::string url = kestrel::quire::DocsFeedUrl;
  return http_ ? "http" + url.substr(5) : url;
}

std::string ServerTest::UserInfoUrl() const {
  std::string url = kestrel::quire::UserInfoUrl;
  return http_ ? "http" + url.substr(5) : url;
}

std::string ServerTest::DocsUrl(const std::string& path) const {
  return Scheme() + "://docs.quire.example" + path;
}

std::vector<std::string> ServerTest::Standard(bool auth) {
  std::vector<std::string> headers = {std::string("Quire-Version: ") +
                                      kestrel::quire::kProtocolVersion};
  if (auth) headers.push_back(std::string("Authorization: Bearer ") + kToken);
  return headers;
}

HttpResult ServerTest::Call(const std::string& method, const std::string& url,
                            std::vector<std::string> headers, const std::string* body, bool auth) {
  std::vector<std::string> all = Standard(auth);
  all.insert(all.end(), headers.begin(), headers.end());
  return client_->Send(method, url, all, body);
}

EntryView ServerTest::Create(const std::string& content, const std::string& slug,
                             const std::string& type) {
  std::vector<std::string> headers;
  if (!slug.empty()) headers.push_back("Slug: " + slug);
  if (!type.empty()) headers.push_back("Content-Type: " + type);
  HttpResult result = Call("POST", FeedUrl(), headers, &content);
  EXPECT_EQ(result.error, CURLE_OK);
  EXPECT_EQ(result.status, 201) << result.body;
  EntryView entry = AtomView::ParseEntry(result.body);
  EXPECT_TRUE(entry.parsed) << result.body;
  return entry;
}

FeedView ServerTest::Feed() {
  HttpResult result = Call("GET", FeedUrl());
  EXPECT_EQ(result.status, 200);
  EXPECT_EQ(result.Header("Content-Type"), "application/atom+xml");
  FeedView feed = AtomView::ParseFeed(result.body);
  EXPECT_TRUE(feed.parsed) << result.body;
  return feed;
}

std::string ServerTest::Content(const EntryView& entry) {
  HttpResult result = Call("GET", entry.content_src);
  EXPECT_EQ(result.status, 200);
  return result.body;
}

std::string ServerTest::OpenUpload(const std::string& url, std::uint64_t total,
                                   const std::string& type, const std::string& metadata) {
  std::vector<std::string> headers = {"Content-Type: application/atom+xml",
                                      "X-Upload-Content-Type: " + type,
                                      "X-Upload-Content-Length: " + std::to_string(total)};
  HttpResult result = Call("POST", url, headers, &metadata);
  EXPECT_EQ(result.error, CURLE_OK);
  EXPECT_EQ(result.status, 200) << result.body;
  EXPECT_TRUE(result.body.empty());
  return result.Header("Location");
}

HttpResult ServerTest::PutChunk(const std::string& session, std::uint64_t first,
                                const std::string& bytes, std::uint64_t total) {
  std::string range = "Content-Range: bytes " + std::to_string(first) + "-" +
                      std::to_string(first + bytes.size() - 1) + "/" + std::to_string(total);
  return Call("PUT", session, {range, "Content-Type: application/octet-stream"}, &bytes, false);
}

HttpResult ServerTest::StatusQuery(const std::string& session, std::uint64_t total) {
  return Call("PUT", session, {"Content-Range: bytes */" + std::to_string(total)}, nullptr, false);
}

::testing::AssertionResult IsError(const HttpResult& result, long status) {
  if (result.error != CURLE_OK) {
    return ::testing::AssertionFailure() << "transport error " << result.error;
  }
  if (result.status != status) {
    return ::testing::AssertionFailure()
           << "status " << result.status << " instead of " << status << ": " << result.body;
  }
  if (result.Header("Content-Type") != "application/xml") {
    return ::testing::AssertionFailure() << "Content-Type " << result.Header("Content-Type");
  }
  ErrorView error = AtomView::ParseError(result.body);
  if (!error.parsed || error.code.empty() || error.message.empty() ||
      error.status != std::to_string(status)) {
    return ::testing::AssertionFailure() << "no error document: " << result.body;
  }
  return ::testing::AssertionSuccess();
}

std::string RandomBytes(std::size_t size, unsigned seed) {
  std::mt19937 engine(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(engine() & 0xff);
  return bytes;
}

}  // namespace quire_test::server
