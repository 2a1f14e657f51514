// Test fixture: a quire-server on 127.0.0.1 with a fresh data folder, a client that reaches it
// through the library's host names, and helpers for the requests of the protocol.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/support/atom_view.h"
#include "tests/support/http_client.h"
#include "tests/support/server_process.h"
#include "tests/support/temp_dir.h"

namespace quire_test::server {

constexpr char kToken[] = "quire-demo-token";
constexpr char kAccount[] = "demo@quire.example";

class ServerTest : public ::testing::Test {
 protected:
  // Starts the server on this test's data folder; asserts that it started.
  void Start(const std::vector<std::string>& extra_args = {}, bool http = false);
  // Stops the server (SIGTERM, unless it was killed already) and starts it again with the same
  // arguments and data.
  void Restart();
  void TearDown() override;

  const std::string& data() const { return data_.path(); }
  std::string Scheme() const { return http_ ? "http" : "https"; }
  // The feed's address as the server hands it out.
  std::string FeedUrl() const;
  std::string UserInfoUrl() const;
  // An address on the service host.
  std::string DocsUrl(const std::string& path) const;

  // The headers every request carries: the version, and the token when `auth`.
  static std::vector<std::string> Standard(bool auth = true);
  HttpResult Call(const std::string& method, const std::string& url,
                  std::vector<std::string> headers = {}, const std::string* body = nullptr,
                  bool auth = true);

  // POST to the feed; asserts 201 and returns the parsed entry.
  EntryView Create(const std::string& content, const std::string& slug = "",
                   const std::string& type = "");
  FeedView Feed();
  std::string Content(const EntryView& entry);
  // Opens an upload session; asserts 200 and returns its address.
  std::string OpenUpload(const std::string& url, std::uint64_t total,
                         const std::string& type = "application/octet-stream",
                         const std::string& metadata = "");
  // PUTs `bytes` at `first` of `total` to a session (without a token, like the client).
  HttpResult PutChunk(const std::string& session, std::uint64_t first, const std::string& bytes,
                      std::uint64_t total);
  HttpResult StatusQuery(const std::string& session, std::uint64_t total);

  std::unique_ptr<ServerProcess> server_;
  std::unique_ptr<HttpClient> client_;

 private:
  TempDir data_;
  std::vector<std::string> args_;
  bool http_ = false;
};

// Asserts an error answer: the status, Content-Type application/xml and an error document.
::testing::AssertionResult IsError(const HttpResult& result, long status);
// Random bytes (deterministic for a seed).
std::string RandomBytes(std::size_t size, unsigned seed);

}  // namespace quire_test::server
