// Start-up, the printed address, TLS certificates, persistence across restarts, recovery of
// leftovers, and clean shutdown.
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "quire/model/link_relations.h"
#include "quire/services/endpoints.h"
#include "tests/tools/quire-server/server_test.h"

namespace quire_test::server {
namespace {

namespace fs = std::filesystem;
namespace q = kestrel::quire;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

std::size_t CountEntries(const std::string& dir) {
  std::size_t count = 0;
  for (const auto& item : fs::directory_iterator(dir)) {
    (void)item;
    ++count;
  }
  return count;
}

// "quire-server listening on SCHEME://127.0.0.1:PORT".
bool IsListeningLine(const std::string& line, const std::string& scheme) {
  std::string prefix = "quire-server listening on " + scheme + "://127.0.0.1:";
  if (line.compare(0, prefix.size(), prefix) != 0 || line.size() == prefix.size()) return false;
  return line.find_first_not_of("0123456789", prefix.size()) == std::string::npos;
}

class LifecycleTest : public ServerTest {};

TEST_F(LifecycleTest, PrintsOneLineWithTheAddress) {
  Start();
  EXPECT_TRUE(IsListeningLine(server_->first_line(), "https")) << server_->first_line();
  TempDir other;
  ServerProcess http({"--data", other.path(), "--http"});
  ASSERT_TRUE(http.started());
  EXPECT_TRUE(IsListeningLine(http.first_line(), "http")) << http.first_line();
  EXPECT_EQ(http.Terminate(), 0);
}

TEST_F(LifecycleTest, ListensWhereItIsTold) {
  Start();
  int port = server_->port();
  EXPECT_EQ(server_->Terminate(), 0);
  TempDir other;
  ServerProcess fixed({"--data", other.path(), "--listen", "127.0.0.1:" + std::to_string(port)});
  ASSERT_TRUE(fixed.started()) << fixed.first_line();
  EXPECT_EQ(fixed.port(), port);
  EXPECT_EQ(fixed.Terminate(), 0);
}

TEST_F(LifecycleTest, RefusesABadCommandLine) {
  struct Refusal {
    std::vector<std::string> args;
    int exit_code;       // -1: any failure (the command-line parser's own code)
    std::string reason;  // what the message on standard error must say
  };
  const Refusal refusals[] = {
      {{"--listen", "nonsense:port"}, 2, "--listen wants ADDR:PORT, got nonsense:port"},
      {{"--cert", "only-a-cert.pem"}, 2, "--cert and --key go together"},
      {{"--account", "a&b@example.org"}, 2, "--account must be printable without blanks"},
      {{"--no-such-option"}, -1, "not expected: --no-such-option"},
  };
  for (const Refusal& refusal : refusals) {
    ServerProcess server(refusal.args, {}, true);
    EXPECT_FALSE(server.started()) << refusal.args[0];
    const std::string errors = server.ErrorOutput();
    const int exit_code = server.WaitForExit(10000);
    if (refusal.exit_code >= 0) {
      EXPECT_EQ(exit_code, refusal.exit_code) << refusal.args[0];
    } else {
      EXPECT_GT(exit_code, 0) << refusal.args[0];
    }
    EXPECT_NE(errors.find(refusal.reason), std::string::npos) << refusal.args[0] << ": " << errors;
  }
}

TEST_F(LifecycleTest, TemporaryFolderIsRemovedOnSigtermAndSigint) {
  for (int signal_number : {SIGTERM, SIGINT}) {
    TempDir tmp;
    ServerProcess server({}, {"TMPDIR=" + tmp.path()});
    ASSERT_TRUE(server.started());
    ASSERT_EQ(CountEntries(tmp.path()), 1u);
    HttpClient client(server.port(), "");
    std::string folder = fs::directory_iterator(tmp.path())->path().string();
    HttpClient tls(server.port(), folder + "/tls/cert.pem");
    std::string body = "temporary";
    HttpResult created =
        tls.Send("POST", q::DocsFeedUrl,
                 {"Quire-Version: 3.0", std::string("Authorization: Bearer ") + kToken}, &body);
    EXPECT_EQ(created.status, 201);
    ::kill(server.pid(), signal_number);
    EXPECT_EQ(server.WaitForExit(15000), 0);
    EXPECT_EQ(CountEntries(tmp.path()), 0u) << "signal " << signal_number;
  }
}

TEST_F(LifecycleTest, DocumentsTagsAndSessionsSurviveARestart) {
  Start();
  EntryView entry = Create("persistent", "Kept", "text/plain");
  ASSERT_EQ(Call("POST", DocsUrl("/emulator/documents/" + AtomView::IdOf(entry) + "/star")).status,
            200);
  std::string data = RandomBytes(10000, 31);
  std::string session = OpenUpload(Feed().links[q::kResumableCreateMediaRel], data.size());
  ASSERT_EQ(PutChunk(session, 0, data.substr(0, 4000), data.size()).status, 308);
  FeedView before = Feed();
  Restart();
  FeedView after = Feed();
  EXPECT_EQ(after.etag, before.etag);
  ASSERT_EQ(after.entries.size(), 1u);
  EXPECT_EQ(after.entries[0].etag, before.entries[0].etag);
  EXPECT_EQ(after.entries[0].title, "Kept");
  EXPECT_TRUE(after.entries[0].starred);
  EXPECT_EQ(Content(entry), "persistent");
  HttpResult status = StatusQuery(session, data.size());
  EXPECT_EQ(status.status, 308);
  EXPECT_EQ(status.Header("Range"), "bytes=0-3999");
  HttpResult done = PutChunk(session, 3999, data.substr(3999), data.size());
  ASSERT_EQ(done.status, 201);
  EXPECT_EQ(Content(AtomView::ParseEntry(done.body)), data);
}

TEST_F(LifecycleTest, LeftoversOfACrashAreCleanedAtStart) {
  Start();
  EntryView entry = Create("survivor");
  server_->Kill();
  std::ofstream(data() + "/tmp/half-written") << "partial";
  std::ofstream(data() + "/content/orphan") << "unreferenced";
  std::ofstream(data() + "/uploads/orphan.part") << "no session";
  Restart();
  EXPECT_FALSE(fs::exists(data() + "/tmp/half-written"));
  EXPECT_FALSE(fs::exists(data() + "/content/orphan"));
  EXPECT_FALSE(fs::exists(data() + "/uploads/orphan.part"));
  EXPECT_EQ(CountEntries(data() + "/content"), 1u);
  EXPECT_EQ(Content(entry), "survivor");
}

TEST_F(LifecycleTest, SecondServerOnTheSameDataRefuses) {
  Start();
  ServerProcess second({"--data", data()});
  EXPECT_FALSE(second.started());
  EXPECT_NE(second.WaitForExit(10000), 0);
  EXPECT_EQ(Call("GET", FeedUrl()).status, 200);
}

TEST_F(LifecycleTest, CertificateCoversBothHostNamesAndIsKept) {
  Start();
  std::string cert = ReadFile(data() + "/tls/cert.pem");
  ASSERT_FALSE(cert.empty());
  EXPECT_EQ(fs::status(data() + "/tls/key.pem").permissions() & fs::perms::others_read,
            fs::perms::none);
  // Verified TLS to both host names (the client checks the certificate against the name).
  EXPECT_EQ(Call("GET", UserInfoUrl(), {}, nullptr, false).status, 200);
  EXPECT_EQ(Call("GET", FeedUrl()).status, 200);
  // A name the certificate does not cover fails verification.
  HttpResult mismatch = client_->Send("GET", "https://other.quire.example/", Standard());
  EXPECT_EQ(mismatch.error, CURLE_PEER_FAILED_VERIFICATION);
  Restart();
  EXPECT_EQ(ReadFile(data() + "/tls/cert.pem"), cert);
  EXPECT_EQ(Call("GET", FeedUrl()).status, 200);
}

TEST_F(LifecycleTest, UsesTheCertificateItIsGiven) {
  Start();
  std::string cert = data() + "/tls/cert.pem";
  std::string key = data() + "/tls/key.pem";
  TempDir other;
  ServerProcess given({"--data", other.path(), "--cert", cert, "--key", key});
  ASSERT_TRUE(given.started());
  EXPECT_FALSE(fs::exists(other.path() + "/tls/cert.pem"));
  HttpClient client(given.port(), cert);
  EXPECT_EQ(client.Send("GET", FeedUrl(), Standard()).status, 200);
  EXPECT_EQ(given.Terminate(), 0);
}

}  // namespace
}  // namespace quire_test::server
