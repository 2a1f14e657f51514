// What a hostile caller's input or a hostile server cannot make the library do, through the real
// CurlTransport on 127.0.0.1. Listeners that record every byte they receive are the witnesses:
//   * a line break or NUL in the token, in a header line or in a URL never reaches the wire;
//   * schemes other than http and https are never used, and no file is read for a file: URL;
//   * redirects are not followed: the answer reaches the caller, the Location is never contacted;
//   * a certificate that is untrusted, expired or for another host fails the request with status 2
//     before a byte of it is sent, unless the host trusts that certificate explicitly;
//   * XML external entities are never resolved: no file is opened and no connection is made;
//   * a streaming download refuses answers that contradict its request or themselves (more bytes
//     than announced, a Content-Range other than the one asked for, negative or overflowing
//     lengths): a clear failure, and nothing written beyond the announced end or outside its file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QDir>
#include <QTemporaryDir>
#include <QUrl>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "kestrel/base/main_loop.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/net/transport_registry.h"
#include "quire/services/content_download.h"
#include "tests/hardening/library_client.h"
#include "tests/hardening/operation_runner.h"
#include "tests/support/raw_server.h"
#include "tests/support/test_certificates.h"

namespace quire_test::hardening {
namespace {

using kestrel::MainLoop;
using kestrel::quire::NetworkResponseInfo;
using quire_test::TestCertificates;

constexpr char kServiceNames[] = "DNS:docs.quire.example,DNS:api.quire.example,IP:127.0.0.1";
constexpr long kDay = 24 * 3600;

// What follows a line break in the hostile inputs: a header line of its own if it got through.
constexpr char kInjected[] = "X-Injected: yes";

// The four ways to end a line early, each followed by the injected line.
std::vector<QString> Hostile(const QString& before) {
  std::vector<QString> texts;
  for (const QString& cut :
       {QStringLiteral("\r\n"), QStringLiteral("\r"), QStringLiteral("\n"), QString(QChar(0))}) {
    texts.push_back(before + cut + QLatin1String(kInjected));
  }
  return texts;
}

// True when `bytes` hold nothing but well-formed HTTP/1.1 lines (every line break a CR LF pair, no
// NUL) and no line that the hostile inputs tried to inject. Bodies sent by these tests are plain
// letters, so the rule holds for them too.
::testing::AssertionResult WireIsClean(const std::string& bytes) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const char c = bytes[i];
    if (c == '\0') return ::testing::AssertionFailure() << "NUL at byte " << i;
    if (c == '\r' && (i + 1 >= bytes.size() || bytes[i + 1] != '\n')) {
      return ::testing::AssertionFailure() << "CR without LF at byte " << i;
    }
    if (c == '\n' && (i == 0 || bytes[i - 1] != '\r')) {
      return ::testing::AssertionFailure() << "LF without CR at byte " << i;
    }
  }
  if (bytes.find(std::string("\n") + kInjected) != std::string::npos) {
    return ::testing::AssertionFailure() << "the injected line is on the wire";
  }
  return ::testing::AssertionSuccess();
}

// A file whose opening would show: it is watched for any open or read.
class WatchedFile {
 public:
  WatchedFile() {
    char pattern[] = "/tmp/quire-secret-XXXXXX";
    const int fd = ::mkstemp(pattern);
    if (fd < 0) return;
    path_ = pattern;
    const bool written = ::write(fd, "secret\n", 7) == 7;
    ::close(fd);
    watch_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (written && watch_ >= 0 && ::inotify_add_watch(watch_, pattern, IN_OPEN | IN_ACCESS) < 0) {
      ::close(watch_);
      watch_ = -1;
    }
  }
  ~WatchedFile() {
    if (watch_ >= 0) ::close(watch_);
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  bool ok() const { return watch_ >= 0; }
  const std::string& path() const { return path_; }
  // Whether anybody opened or read the file since it was made.
  bool Touched() const {
    char events[4096];
    return ::read(watch_, events, sizeof events) > 0;
  }

 private:
  std::string path_;
  int watch_ = -1;
};

class SecurityTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    certificates_ = new TestCertificates();
    server_ = new TestCertificates::Server(
        certificates_->Make("service", kServiceNames, -3600, 7 * kDay, false));
  }
  static void TearDownTestSuite() {
    delete server_;
    delete certificates_;
    server_ = nullptr;
    certificates_ = nullptr;
  }

  void SetUp() override {
    ASSERT_TRUE(certificates_->ok());
    ASSERT_FALSE(server_->certificate_file.empty());
    MainLoop::Default()->RunUntilIdle();
    live_at_start_ = kestrel::MemoryManager::Default()->live_allocations();
  }
  void TearDown() override {
    MainLoop::Default()->RunUntilIdle();
    EXPECT_EQ(kestrel::MemoryManager::Default()->live_allocations(), live_at_start_)
        << "the memory manager's live allocations did not come back to where they started";
  }

  // A listener speaking TLS with the service's certificate, answering `reply`.
  static std::unique_ptr<RawServer> Service(const std::string& reply) {
    return std::make_unique<RawServer>(reply, server_->certificate_file, server_->key_file);
  }

  // Options for a client that sends the service names to `port` and trusts the test authority.
  static LibraryClient::Options ClientFor(int port) {
    LibraryClient::Options options;
    options.port = port;
    options.trusted_files = {certificates_->authority_file()};
    options.token = QStringLiteral("clean-token");
    return options;
  }

  // Addresses on the service host, and bodies of plain letters.
  static Targets ServiceTargets() {
    Targets targets;
    const QString base = QStringLiteral("https://docs.quire.example/feeds/default/private/full/d1");
    targets.content_src = QUrl(base + QStringLiteral("/content"));
    targets.content = QByteArray("content");
    targets.modify_edit_link = QUrl(base);
    targets.delete_edit_link = QUrl(base);
    targets.delete_etag = QStringLiteral("\"tag\"");
    targets.new_content = QByteArray("replacement");
    targets.upload_url =
        QUrl(QStringLiteral("https://docs.quire.example/upload/feeds/default/private/full"));
    targets.upload_data = QByteArray(1000, 'u');
    return targets;
  }

  // Runs `operations` side by side on one client and returns their outcomes once every callback
  // has come and the transport is idle.
  static std::vector<Outcome> Run(const LibraryClient::Options& options, const Targets& targets,
                                  const std::vector<Operation>& operations) {
    std::vector<Outcome> outcomes(operations.size());
    auto client = std::make_unique<LibraryClient>(options);
    EXPECT_TRUE(client->configured());
    for (std::size_t i = 0; i < operations.size(); ++i) {
      OperationRunner::Start(operations[i], client.get(), targets, &outcomes[i]);
    }
    Finish(client.get(), [&outcomes] {
      for (const Outcome& outcome : outcomes) {
        if (outcome.calls == 0) return false;
      }
      return true;
    });
    for (std::size_t i = 0; i < operations.size(); ++i) {
      EXPECT_EQ(outcomes[i].calls, 1) << OperationRunner::Name(operations[i]);
      EXPECT_FALSE(outcomes[i].called_during_issue) << OperationRunner::Name(operations[i]);
    }
    return outcomes;
  }

  static std::vector<Outcome> RunAll(const LibraryClient::Options& options,
                                     const Targets& targets) {
    return Run(options, targets,
               std::vector<Operation>(std::begin(kAllOperations), std::end(kAllOperations)));
  }

  // Waits for `done`, then until the client's transport has nothing in flight, so that a second
  // callback would have shown up.
  static void Finish(LibraryClient* client, const std::function<bool()>& done) {
    EXPECT_TRUE(MainLoop::Default()->RunUntil(done, 60.0)) << "callbacks missing";
    EXPECT_TRUE(client->WaitForIdle(60.0));
  }

  static TestCertificates* certificates_;
  static TestCertificates::Server* server_;

 private:
  long live_at_start_ = 0;
};

TestCertificates* SecurityTest::certificates_ = nullptr;
TestCertificates::Server* SecurityTest::server_ = nullptr;

// Each operation's outcome when the listener answered its request with an empty 200: the e-mail,
// the feed and the entries find nothing to read (1), content and deletion succeed (0), and the
// upload, whose POST brought no Location, ends in the failure it makes up (2, no header lines).
void ExpectEmpty200Outcomes(const std::vector<Outcome>& outcomes) {
  const int statuses[] = {1, 1, 0, 1, 1, 0, 2};
  ASSERT_EQ(outcomes.size(), std::size(statuses));
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    EXPECT_EQ(outcomes[i].status, statuses[i]) << OperationRunner::Name(kAllOperations[i]);
  }
  EXPECT_FALSE(outcomes.back().had_headers) << "the upload's failure is made up";
}

// The witness works: clean requests of every operation arrive whole, with the token where the
// library puts it.
TEST_F(SecurityTest, CleanRequestsReachTheListener) {
  auto listener = Service(RawServer::Answer(200));
  ASSERT_TRUE(listener->ok());
  const std::vector<Outcome> outcomes = RunAll(ClientFor(listener->port()), ServiceTargets());
  ExpectEmpty200Outcomes(outcomes);
  EXPECT_EQ(listener->answered(), 7);
  const std::string wire = listener->received();
  EXPECT_TRUE(WireIsClean(wire));
  std::size_t tokens = 0;
  for (std::size_t at = 0;
       (at = wire.find("\r\nAuthorization: Bearer clean-token\r\n", at)) != std::string::npos;
       ++at) {
    ++tokens;
  }
  EXPECT_EQ(tokens, 6u) << "every request but the user information carries the token";
  EXPECT_NE(wire.find("GET /userinfo/email HTTP/1.1\r\n"), std::string::npos);
  EXPECT_NE(wire.find("DELETE /feeds/default/private/full/d1 HTTP/1.1\r\n"), std::string::npos);
  EXPECT_NE(wire.find("\r\nIf-Match: \"tag\"\r\n"), std::string::npos);
}

TEST_F(SecurityTest, LineBreakOrNulInTheTokenNeverReachesTheWire) {
  for (const QString& token : Hostile(QStringLiteral("token"))) {
    SCOPED_TRACE(token.toUtf8().toPercentEncoding().constData());
    auto listener = Service(RawServer::Answer(200));
    ASSERT_TRUE(listener->ok());
    LibraryClient::Options options = ClientFor(listener->port());
    options.token = token;
    const std::vector<Outcome> outcomes = RunAll(options, ServiceTargets());
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
      SCOPED_TRACE(OperationRunner::Name(kAllOperations[i]));
      if (kAllOperations[i] == Operation::kGetUserEmail) {
        // It carries no token, so it goes out; the empty answer holds no address.
        EXPECT_EQ(outcomes[i].status, 1);
      } else {
        EXPECT_EQ(outcomes[i].status, 2) << "refused before anything was sent";
      }
    }
    EXPECT_EQ(listener->answered(), 1) << "only the user information request";
    EXPECT_EQ(listener->connections(), 1);
    EXPECT_TRUE(WireIsClean(listener->received()));
    EXPECT_EQ(listener->received().find("token"), std::string::npos);
  }
}

TEST_F(SecurityTest, LineBreakOrNulInAHeaderLineNeverReachesTheWire) {
  auto listener = Service(RawServer::Answer(200));
  ASSERT_TRUE(listener->ok());
  auto client = std::make_unique<LibraryClient>(ClientFor(listener->port()));
  const Targets targets = ServiceTargets();
  std::vector<int> statuses;
  int calls = 0;
  // The entity tag becomes the If-Match line; the upload's content type two lines of their own.
  for (const QString& etag : Hostile(QStringLiteral("\"tag\""))) {
    client->docs().DeleteEntry(targets.delete_edit_link, etag, [&](NetworkResponseInfo info) {
      ++calls;
      statuses.push_back(info.status);
    });
  }
  for (const QString& type : Hostile(QStringLiteral("text/plain"))) {
    client->uploads().ResumableUpload(targets.upload_url.toString(), QStringLiteral("<entry/>"),
                                      type, targets.upload_data,
                                      [&](NetworkResponseInfo info, QByteArray) {
                                        ++calls;
                                        statuses.push_back(info.status);
                                      });
  }
  Finish(client.get(), [&] { return calls >= 8; });
  EXPECT_EQ(calls, 8);
  for (int status : statuses) EXPECT_EQ(status, 2);
  client.reset();
  EXPECT_EQ(listener->connections(), 0) << "nothing was sent";
}

TEST_F(SecurityTest, LineBreakOrNulInAUrlNeverReachesTheWire) {
  auto listener = Service(RawServer::Answer(200));
  ASSERT_TRUE(listener->ok());
  // Addresses the host hands in as QUrl: QUrl either refuses them or percent-encodes what does not
  // belong in a URL; either way no raw line break or NUL goes out.
  for (const QString& url : Hostile(QStringLiteral("https://docs.quire.example/d1"))) {
    Targets targets = ServiceTargets();
    targets.content_src = QUrl(url);
    targets.modify_edit_link = QUrl(url);
    targets.delete_edit_link = QUrl(url);
    Run(ClientFor(listener->port()), targets,
        {Operation::kGetEntryContent, Operation::kCreateEntryWithContent,
         Operation::kModifyEntryContent, Operation::kDeleteEntry});
  }
  EXPECT_TRUE(WireIsClean(listener->received()));
  const int before = listener->connections();

  // The upload's address is text as given: it is refused whole.
  auto client = std::make_unique<LibraryClient>(ClientFor(listener->port()));
  std::vector<int> statuses;
  for (const QString& url :
       Hostile(QStringLiteral("https://docs.quire.example/upload/feeds/default/private/full"))) {
    client->uploads().ResumableUpload(
        url, QStringLiteral("<entry/>"), QStringLiteral("text/plain"), QByteArray("data"),
        [&](NetworkResponseInfo info, QByteArray) { statuses.push_back(info.status); });
  }
  Finish(client.get(), [&] { return statuses.size() >= 4; });
  client.reset();
  EXPECT_EQ(statuses, std::vector<int>(4, 2));
  EXPECT_EQ(listener->connections(), before) << "no upload request was sent";
}

// The server's Location becomes the address of the chunks: one holding a line break or NUL must
// not put a PUT on the wire.
TEST_F(SecurityTest, LineBreakOrNulInTheServersLocationNeverReachesTheWire) {
  for (const char* cut : {"\r", "\x00"}) {
    std::string reply = "HTTP/1.1 200 OK\r\nLocation: https://docs.quire.example/s/1";
    reply += std::string(cut, 1) + kInjected + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    auto listener = Service(reply);
    ASSERT_TRUE(listener->ok());
    const std::vector<Outcome> outcomes =
        Run(ClientFor(listener->port()), ServiceTargets(), {Operation::kResumableUpload});
    EXPECT_EQ(outcomes[0].status, 2);
    EXPECT_EQ(listener->answered(), 1) << "the POST only";
    EXPECT_TRUE(WireIsClean(listener->received()));
  }
}

TEST_F(SecurityTest, OnlyHttpAndHttpsAreUsed) {
  RawServer listener(RawServer::Answer(200));
  ASSERT_TRUE(listener.ok());
  WatchedFile secret;
  ASSERT_TRUE(secret.ok());
  const std::string port = std::to_string(listener.port());
  std::vector<QString> urls = {QString::fromStdString("file://" + secret.path()),
                               QString::fromStdString("FILE://" + secret.path())};
  for (const char* scheme : {"ftp",  "ftps",  "sftp",   "scp",  "gopher", "gophers", "dict",
                             "ldap", "ldaps", "telnet", "tftp", "smtp",   "smtps",   "pop3",
                             "imap", "rtsp",  "mqtt",   "smb",  "ws",     "wss",     "unknown"}) {
    urls.push_back(QString::fromStdString(std::string(scheme) + "://127.0.0.1:" + port + "/x"));
  }
  auto client = std::make_unique<LibraryClient>(ClientFor(listener.port()));
  std::vector<int> statuses;
  for (const QString& url : urls) {
    auto done = [&](NetworkResponseInfo info, QByteArray) { statuses.push_back(info.status); };
    client->docs().GetEntryContent(QUrl(url), done);
    client->docs().CreateEntryWithContent(
        QUrl(url), QString(), QString(), QByteArray("x"),
        [&](NetworkResponseInfo info, const kestrel::quire::DocsEntry&) {
          statuses.push_back(info.status);
        });
    client->docs().ModifyEntryContent(
        QUrl(url), QString(), QByteArray("x"),
        [&](NetworkResponseInfo info, const kestrel::quire::DocsEntry&) {
          statuses.push_back(info.status);
        });
    client->docs().DeleteEntry(QUrl(url), QString(),
                               [&](NetworkResponseInfo info) { statuses.push_back(info.status); });
    client->uploads().ResumableUpload(url, QStringLiteral("<entry/>"), QStringLiteral("text/plain"),
                                      QByteArray("x"), done);
  }
  Finish(client.get(), [&] { return statuses.size() >= urls.size() * 5; });
  client.reset();
  EXPECT_EQ(statuses, std::vector<int>(urls.size() * 5, 2));
  EXPECT_EQ(listener.connections(), 0);
  EXPECT_FALSE(secret.Touched()) << "a file: URL was read";
}

// A server cannot send the upload's chunks elsewhere by naming another scheme in Location.
TEST_F(SecurityTest, UploadLocationWithAnotherSchemeIsNotUsed) {
  RawServer elsewhere(RawServer::Answer(200));
  ASSERT_TRUE(elsewhere.ok());
  WatchedFile secret;
  ASSERT_TRUE(secret.ok());
  for (const std::string& location :
       {"ftp://127.0.0.1:" + std::to_string(elsewhere.port()) + "/s", "file://" + secret.path()}) {
    auto listener = Service(RawServer::Answer(200, location));
    ASSERT_TRUE(listener->ok());
    const std::vector<Outcome> outcomes =
        Run(ClientFor(listener->port()), ServiceTargets(), {Operation::kResumableUpload});
    EXPECT_EQ(outcomes[0].status, 2) << location;
    EXPECT_NE(outcomes[0].request_id, outcomes[0].issued_id) << "the refused PUT's id";
  }
  EXPECT_EQ(elsewhere.connections(), 0);
  EXPECT_FALSE(secret.Touched());
}

TEST_F(SecurityTest, RedirectsAreNotFollowed) {
  RawServer target(RawServer::Answer(200));
  ASSERT_TRUE(target.ok());
  const std::string location = "http://127.0.0.1:" + std::to_string(target.port()) + "/stolen";
  // 302 and 308 are handed to the caller as they are; the other redirections are failures.
  const std::pair<int, int> cases[] = {{301, 2}, {302, 302}, {303, 2}, {307, 2}, {308, 308}};
  for (const auto& [code, status] : cases) {
    SCOPED_TRACE(code);
    for (const std::string& where : {location, std::string("/feeds/elsewhere")}) {
      auto listener = Service(RawServer::Answer(code, where));
      ASSERT_TRUE(listener->ok());
      const std::vector<Outcome> outcomes = RunAll(ClientFor(listener->port()), ServiceTargets());
      for (std::size_t i = 0; i < outcomes.size(); ++i) {
        SCOPED_TRACE(OperationRunner::Name(kAllOperations[i]));
        EXPECT_EQ(outcomes[i].status, status);
        EXPECT_EQ(outcomes[i].request_id, outcomes[i].issued_id);
        EXPECT_TRUE(outcomes[i].email.isEmpty());
        EXPECT_EQ(outcomes[i].entries, 0u);
        EXPECT_TRUE(outcomes[i].entry_id.isEmpty());
      }
      EXPECT_EQ(listener->answered(), 7) << "one request per operation, none to the Location";
    }
  }
  EXPECT_EQ(target.connections(), 0);
}

// A server that breaks off its answer inside the header lines (before the blank line that ends
// them) has not answered: whatever status line arrived, every operation fails with status 2.
TEST_F(SecurityTest, AnswerCutInsideItsHeaderIsAFailure) {
  for (const char* cut : {"HTTP/1.1 200 OK\r\nContent-Length: 0\r\nDate: Mon, 01",
                          "HTTP/1.1 200 OK\r\n", "HTTP/1.1 200"}) {
    SCOPED_TRACE(cut);
    auto listener = Service(cut);
    ASSERT_TRUE(listener->ok());
    const std::vector<Outcome> outcomes = RunAll(ClientFor(listener->port()), ServiceTargets());
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
      EXPECT_EQ(outcomes[i].status, 2) << OperationRunner::Name(kAllOperations[i]);
      EXPECT_EQ(outcomes[i].request_id, outcomes[i].issued_id);
    }
    EXPECT_EQ(listener->answered(), 7);
  }
}

TEST_F(SecurityTest, CertificatesThatDoNotVerifyFailWithStatus2) {
  const TestCertificates::Server untrusted =
      certificates_->Make("untrusted", kServiceNames, -3600, 7 * kDay, true);
  const TestCertificates::Server expired =
      certificates_->Make("expired", kServiceNames, -30 * kDay, -kDay, false);
  const TestCertificates::Server not_yet_valid =
      certificates_->Make("future", kServiceNames, kDay, 30 * kDay, false);
  const TestCertificates::Server wrong_host = certificates_->Make(
      "wrong-host", "DNS:elsewhere.quire.example,IP:127.0.0.2", -3600, 7 * kDay, false);
  for (const TestCertificates::Server* server :
       {&untrusted, &expired, &not_yet_valid, &wrong_host}) {
    SCOPED_TRACE(server->certificate_file);
    ASSERT_FALSE(server->certificate_file.empty());
    RawServer listener(RawServer::Answer(200), server->certificate_file, server->key_file);
    ASSERT_TRUE(listener.ok());
    // The client trusts the authority that signed the expired and wrong-host certificates.
    const std::vector<Outcome> outcomes = RunAll(ClientFor(listener.port()), ServiceTargets());
    for (std::size_t i = 0; i < outcomes.size(); ++i) {
      EXPECT_EQ(outcomes[i].status, 2) << OperationRunner::Name(kAllOperations[i]);
    }
    EXPECT_GT(listener.connections(), 0) << "the handshake was tried";
    EXPECT_EQ(listener.answered(), 0);
    EXPECT_TRUE(listener.received().empty()) << "nothing of a request was sent";
  }
}

TEST_F(SecurityTest, ExplicitTrustLetsACertificateThrough) {
  const TestCertificates::Server untrusted =
      certificates_->Make("self-signed", kServiceNames, -3600, 7 * kDay, true);
  const TestCertificates::Server expired =
      certificates_->Make("old", kServiceNames, -30 * kDay, -kDay, false);
  const TestCertificates::Server wrong_host =
      certificates_->Make("other-host", "DNS:elsewhere.quire.example", -3600, 7 * kDay, false);
  struct Case {
    const TestCertificates::Server* server;
    bool trust_the_file;  // the certificate itself is added to the trusted files
    bool insecure;        // verification is turned off by name
  };
  for (const Case& trust : {Case{&untrusted, true, false}, Case{&untrusted, false, true},
                            Case{&expired, false, true}, Case{&wrong_host, false, true}}) {
    SCOPED_TRACE(trust.server->certificate_file);
    RawServer listener(RawServer::Answer(200), trust.server->certificate_file,
                       trust.server->key_file);
    ASSERT_TRUE(listener.ok());
    LibraryClient::Options options = ClientFor(listener.port());
    if (trust.trust_the_file) options.trusted_files = {trust.server->certificate_file};
    options.insecure = trust.insecure;
    ExpectEmpty200Outcomes(RunAll(options, ServiceTargets()));
    EXPECT_EQ(listener.answered(), 7);
  }
}

TEST_F(SecurityTest, XmlExternalEntitiesAreNeverResolved) {
  RawServer probe(RawServer::Answer(200));
  ASSERT_TRUE(probe.ok());
  WatchedFile secret;
  ASSERT_TRUE(secret.ok());
  const std::string url = "http://127.0.0.1:" + std::to_string(probe.port());
  const std::string feed = "<feed xmlns=\"http://www.w3.org/2005/Atom\">";
  const std::string documents[] = {
      "<!DOCTYPE feed [<!ENTITY x SYSTEM \"file://" + secret.path() + "\">]>" + feed +
          "<title>&x;</title></feed>",
      "<!DOCTYPE feed [<!ENTITY x SYSTEM \"" + secret.path() + "\">]>" + feed +
          "<title>&x;</title></feed>",
      "<!DOCTYPE feed [<!ENTITY x SYSTEM \"" + url + "/x\">]>" + feed + "<title>&x;</title></feed>",
      "<!DOCTYPE feed SYSTEM \"" + url + "/feed.dtd\">" + feed + "</feed>",
      "<!DOCTYPE feed [<!ENTITY % p SYSTEM \"" + url + "/p.dtd\"> %p;]>" + feed + "</feed>",
      "<!DOCTYPE entry [<!ENTITY x SYSTEM \"file://" + secret.path() +
          "\">]><entry xmlns=\"http://www.w3.org/2005/Atom\"><id>&x;</id></entry>",
  };
  for (const std::string& document : documents) {
    SCOPED_TRACE(document);
    auto listener = Service(RawServer::AnswerWithBody("application/atom+xml", document));
    ASSERT_TRUE(listener->ok());
    const std::vector<Outcome> outcomes =
        Run(ClientFor(listener->port()), ServiceTargets(),
            {Operation::kGetFeed, Operation::kCreateEntryWithContent,
             Operation::kModifyEntryContent, Operation::kGetEntryContent});
    EXPECT_EQ(outcomes[0].status, 1);
    EXPECT_EQ(outcomes[0].entries, 0u);
    EXPECT_EQ(outcomes[1].status, 1);
    EXPECT_TRUE(outcomes[1].entry_id.isEmpty());
    EXPECT_EQ(outcomes[2].status, 1);
    EXPECT_TRUE(outcomes[2].entry_id.isEmpty());
    // Content is handed on as it came, unread.
    EXPECT_EQ(outcomes[3].status, 0);
    EXPECT_EQ(outcomes[3].body_start.toStdString(), document.substr(0, 256));
  }
  EXPECT_EQ(probe.connections(), 0) << "an entity or a DTD was fetched";
  EXPECT_FALSE(secret.Touched()) << "an entity was read from a file";
}

// A streaming download from a listener that answers `reply`, into a file that already holds
// `prefix` (resumed under the tag "t1" when it is not empty). Returns the outcome; `file` receives
// what the file holds afterwards, `others` the names of any other file in its folder.
kestrel::quire::DownloadResult HostileDownload(int port, const std::string& authority_file,
                                               const QByteArray& prefix, QByteArray* file,
                                               QStringList* others) {
  QTemporaryDir dir;
  EXPECT_TRUE(dir.isValid());
  const QString path = dir.filePath(QStringLiteral("content.part"));
  const int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  EXPECT_GE(fd, 0);
  EXPECT_EQ(::write(fd, prefix.constData(), static_cast<std::size_t>(prefix.size())),
            static_cast<ssize_t>(prefix.size()));
  LibraryClient::Options options;
  options.port = port;
  options.trusted_files = {authority_file};
  options.token = QStringLiteral("clean-token");
  LibraryClient client(options);
  EXPECT_TRUE(client.configured());
  kestrel::net::TransportRegistry::SetDefault(&client.transport());
  auto* download = new kestrel::quire::ContentDownload(&client.docs());
  kestrel::net::TransportRegistry::SetDefault(nullptr);
  kestrel::quire::DownloadOptions settings;
  settings.resume_from = static_cast<std::uint64_t>(prefix.size());
  if (!prefix.isEmpty()) settings.etag = QStringLiteral("\"t1\"");
  settings.retry_policy = kestrel::quire::RetryPolicy::NoRetries();
  kestrel::quire::DownloadResult result;
  bool done = false;
  download->Start(
      QUrl(QStringLiteral("https://docs.quire.example/feeds/default/private/full/d1/content")),
      kestrel::quire::DownloadTarget::ForFileDescriptor(fd), settings,
      [&](const kestrel::quire::DownloadResult& r) {
        result = r;
        done = true;
      });
  EXPECT_TRUE(MainLoop::Default()->RunUntil([&] { return done; }, 60.0));
  EXPECT_TRUE(client.WaitForIdle(60.0));
  delete download;
  ::close(fd);
  QFile read(path);
  EXPECT_TRUE(read.open(QIODevice::ReadOnly));
  *file = read.readAll();
  *others = QDir(dir.path()).entryList(QDir::Files | QDir::Hidden);
  others->removeAll(QStringLiteral("content.part"));
  return result;
}

TEST_F(SecurityTest, StreamingDownloadRefusesAnswersThatContradictTheRequest) {
  using kestrel::quire::DownloadOutcome;
  const std::string letters(100, 'a');
  struct Case {
    const char* name;
    std::string reply;
    bool resume;
    int announced = 0;  // bytes the answer may legitimately bring before it contradicts itself
  };
  const std::vector<Case> cases = {
      // A chunked body longer than the Content-Length that came with it.
      {"more bytes than announced",
       "HTTP/1.1 200 OK\r\nContent-Length: 10\r\nTransfer-Encoding: chunked\r\n"
       "Connection: close\r\n\r\n64\r\n" +
           letters + "\r\n0\r\n\r\n",
       false, 10},
      {"a range other than the one asked for",
       "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 0-99/100\r\nContent-Length: 100\r\n"
       "ETag: \"t1\"\r\nConnection: close\r\n\r\n" +
           letters,
       true},
      {"a range whose length disagrees with Content-Length",
       "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 50-99/100\r\nContent-Length: 100\r\n"
       "ETag: \"t1\"\r\nConnection: close\r\n\r\n" +
           letters,
       true},
      {"an overflowing range",
       "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes 50-18446744073709551615/"
       "18446744073709551616\r\nETag: \"t1\"\r\nConnection: close\r\n\r\n" +
           letters,
       true},
      {"a negative length",
       "HTTP/1.1 200 OK\r\nContent-Length: -100\r\nConnection: close\r\n\r\n" + letters, false},
      {"an overflowing length",
       "HTTP/1.1 200 OK\r\nContent-Length: 99999999999999999999\r\nConnection: close\r\n\r\n" +
           letters,
       false},
  };
  for (const Case& hostile : cases) {
    SCOPED_TRACE(hostile.name);
    auto listener = Service(hostile.reply);
    ASSERT_TRUE(listener->ok());
    const QByteArray prefix = hostile.resume ? QByteArray(50, 'p') : QByteArray();
    QByteArray file;
    QStringList others;
    const kestrel::quire::DownloadResult result =
        HostileDownload(listener->port(), certificates_->authority_file(), prefix, &file, &others);
    EXPECT_NE(result.outcome, DownloadOutcome::kComplete);
    EXPECT_LE(file.size(), prefix.size() + hostile.announced)
        << "bytes beyond the announced end were written";
    EXPECT_EQ(file.left(prefix.size()), prefix) << "the part was changed";
    EXPECT_TRUE(others.isEmpty()) << "files beside the destination: "
                                  << others.join(QLatin1Char(' ')).toStdString();
  }
}

}  // namespace
}  // namespace quire_test::hardening
