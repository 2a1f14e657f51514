// The commands in-process, over the scripted transport: what each sends, what it prints, and the
// exit code of every class of failure.
#include "tools/quire/command_line.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <deque>
#include <sstream>
#include <string>
#include <vector>

#include "kestrel/net/network_status.h"
#include "quire/model/link_relations.h"
#include "tests/support/data_pattern.h"
#include "tests/support/test_support.h"
#include "tests/tools/quire/in_process_quire.h"
#include "tools/quire/cli_failure.h"
#include "tools/quire/upload_state.h"

namespace {

using namespace quire_test;  // NOLINT(build/namespaces): the test support

using kestrel::net::HttpRequest;
using kestrel::net::ScriptedTransport;
using quire_cli::ClientOptions;
using quire_cli::CommandLine;
using quire_cli::HostEnvironment;

constexpr char kToken[] = "tok-5ecret-value";
const QString kFeedUrl = QStringLiteral("https://docs.quire.example/feeds/default/private/full");
const QString kCreateUrl =
    QStringLiteral("https://docs.quire.example/upload/create-session/default/private/full");
const QString kSession = QStringLiteral("https://docs.quire.example/upload/session/5e55104");

struct FakeDoc {
  QString id;
  QString title;
  QString etag;
  QString type = QStringLiteral("text/plain");
  bool starred = false;
  bool removed = false;
};

QByteArray Declarations() {
  const QByteArray ns(kestrel::quire::SchemaNamespace);
  return "xmlns=\"http://www.w3.org/2005/Atom\" xmlns:qr=\"" + ns + "/g/2005\" xmlns:docs=\"" + ns +
         "/docs/2007\" xmlns:openSearch=\"" + ns + "/opensearch/1.1/\"";
}

QByteArray Escaped(const QString& text) { return text.toHtmlEscaped().toUtf8(); }

QByteArray EntryBody(const FakeDoc& doc) {
  const QByteArray ns(kestrel::quire::SchemaNamespace);
  const QByteArray id = doc.id.toUtf8();
  QByteArray body = "<id>" + id + "</id><updated>2024-05-06T07:08:09.010Z</updated><title>" +
                    Escaped(doc.title) + "</title><content type=\"" + doc.type.toUtf8() +
                    "\" src=\"https://docs.quire.example/content/" + id +
                    "\"/><link rel=\"edit\" href=\"" + kFeedUrl.toUtf8() + "/" + id +
                    "\"/><link rel=\"" + ns + "/g/2005#resumable-edit-media\" href=\"" +
                    kCreateUrl.toUtf8() + "/" + id + "\"/><qr:feedLink rel=\"" + ns +
                    "/acl/2007#accessControlList\" href=\"" + kFeedUrl.toUtf8() + "/" + id +
                    "/acl\"/><qr:feedLink rel=\"" + ns + "/docs/2007/revisions\" href=\"" +
                    kFeedUrl.toUtf8() + "/" + id + "/revisions\"/>";
  if (doc.starred) {
    body += "<category scheme=\"" + ns + "/g/2005/labels\" term=\"" + ns +
            "/g/2005/labels#starred\" label=\"starred\"/>";
  }
  if (doc.removed) body += "<docs:removed/>";
  return body;
}

QByteArray Entry(const FakeDoc& doc) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><entry " + Declarations() + " qr:etag=\"" +
         Escaped(doc.etag) + "\">" + EntryBody(doc) + "</entry>";
}

QByteArray Feed(const std::vector<FakeDoc>& docs) {
  const QByteArray ns(kestrel::quire::SchemaNamespace);
  QByteArray feed = "<?xml version=\"1.0\" encoding=\"UTF-8\"?><feed " + Declarations() +
                    " qr:etag=\"W/&quot;f1&quot;\"><id>" + kFeedUrl.toUtf8() +
                    "</id><updated>2024-05-06T07:08:09.010Z</updated><title>Documents</title>"
                    "<link rel=\"" +
                    ns + "/g/2005#feed\" href=\"" + kFeedUrl.toUtf8() + "\"/><link rel=\"" + ns +
                    "/g/2005#post\" href=\"" + kFeedUrl.toUtf8() + "\"/><link rel=\"" + ns +
                    "/g/2005#resumable-create-media\" href=\"" + kCreateUrl.toUtf8() +
                    "\"/><openSearch:startIndex>1</openSearch:startIndex>";
  for (const FakeDoc& doc : docs) {
    feed += "<entry qr:etag=\"" + Escaped(doc.etag) + "\">" + EntryBody(doc) + "</entry>";
  }
  return feed + "</feed>";
}

std::vector<FakeDoc> TwoDocs() {
  FakeDoc notes{QStringLiteral("d1"), QStringLiteral("Notes"), QStringLiteral("\"e1\"")};
  notes.starred = true;
  FakeDoc photo{QStringLiteral("d2"), QStringLiteral("Photo"), QStringLiteral("\"e2\""),
                QStringLiteral("image/png")};
  photo.removed = true;
  return {notes, photo};
}

QString LineValue(const ScriptedTransport::Seen& seen, const QString& name) {
  for (const QString& line : quire_test::Lines(seen)) {
    if (line.startsWith(name + QStringLiteral(": "))) return line.mid(name.size() + 2);
  }
  return QString();
}

bool HasLine(const ScriptedTransport::Seen& seen, const QString& name) {
  for (const QString& line : quire_test::Lines(seen)) {
    if (line.startsWith(name + QStringLiteral(": "))) return true;
  }
  return false;
}

std::string LastLine(const std::string& text) {
  std::string trimmed = text;
  while (!trimmed.empty() && trimmed.back() == '\n') trimmed.pop_back();
  const std::size_t at = trimmed.rfind('\n');
  return at == std::string::npos ? trimmed : trimmed.substr(at + 1);
}

class CommandLineTest : public quire_test::ScriptedTest {
 protected:
  // Answers come from a queue of the fixture, and every request body is copied as it arrives:
  // bodies of files are views of a mapping that is gone once the command has ended.
  void SetUp() override {
    quire_test::ScriptedTest::SetUp();
    transport_.SetResponder([this](const ScriptedTransport::Seen& seen) {
      bodies_.push_back(QByteArray(seen.body.constData(), seen.body.size()));
      if (answers_.empty()) {
        ADD_FAILURE() << "unexpected request to " << seen.url.toStdString();
        ScriptedTransport::Answer failure;
        failure.code = kestrel::net::status::kErrorUnknown;
        return failure;
      }
      ScriptedTransport::Answer answer = answers_.front();
      answers_.pop_front();
      return answer;
    });
  }

  void TearDown() override {
    EXPECT_TRUE(answers_.empty()) << answers_.size() << " scripted answers were not asked for";
    quire_test::ScriptedTest::TearDown();
  }

  void Enqueue(std::uint32_t code, const QByteArray& body = QByteArray(),
               std::vector<QString> headers = {}) {
    ScriptedTransport::Answer answer;
    answer.code = code;
    answer.body = body;
    answer.headers = std::move(headers);
    answers_.push_back(answer);
  }

  using Result = quire_test::QuireRun;

  Result Run(std::vector<std::string> args, const QString& token = QString::fromLatin1(kToken)) {
    HostEnvironment host;
    host.err_is_terminal = terminal_;
    host.token_variable = token;
    const Result result = quire_test::RunQuireInProcess(
        host, &transport_,
        [this](const ClientOptions& options) {
          ++transports_made_;
          options_ = options;
        },
        std::move(args));
    // Every failure ends with exactly one line that starts with "quire: ", and nothing shows the
    // token.
    if (result.code != 0) {
      EXPECT_EQ(LastLine(result.err).rfind("quire: ", 0), 0u) << result.err;
      EXPECT_NE(LastLine(result.err).find("; "), std::string::npos) << result.err;
    }
    EXPECT_EQ(result.out.find(kToken), std::string::npos);
    EXPECT_EQ(result.err.find(kToken), std::string::npos);
    return result;
  }

  QString Write(const QString& name, const QByteArray& bytes) {
    const QString path = dir_.filePath(name);
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    EXPECT_EQ(file.write(bytes), bytes.size());
    return path;
  }

  std::string StateFile() const {
    return dir_.filePath(QStringLiteral("upload.json")).toStdString();
  }

  // Writes StateFile() as an upload of `file` to kSession that was cut off would have left it,
  // saying the file had `size` bytes when the upload started.
  void SaveState(const QString& file, std::int64_t size, std::uint32_t chunk_size,
                 const QString& content_type = QString()) const {
    quire_cli::UploadState state;
    state.session_url = kSession;
    state.file_path = file;
    state.file_size = size;
    state.file_modified_ms = QFileInfo(file).lastModified().toMSecsSinceEpoch();
    state.content_type = content_type;
    state.chunk_size = chunk_size;
    state.Save(QString::fromStdString(StateFile()));
  }

  std::deque<ScriptedTransport::Answer> answers_;
  std::vector<QByteArray> bodies_;
  QTemporaryDir dir_;
  bool terminal_ = false;
  int transports_made_ = 0;
  ClientOptions options_;
};

TEST_F(CommandLineTest, HelpListsTheCommandsTheTokenRuleAndTheExitCodes) {
  const Result result = Run({"--help"});
  EXPECT_EQ(result.code, 0);
  for (const char* text :
       {"whoami", "ls", "get", "put", "replace", "rm", "upload", "demo", "--server", "--cacert",
        "--insecure", "--timeout", "--token-file", "QUIRE_TOKEN", "never taken on the command line",
        "Exit codes:", "token refused", "entity tag changed", "unreadable answer"}) {
    EXPECT_NE(result.out.find(text), std::string::npos) << text;
  }
  const Result upload = Run({"upload", "--help"});
  EXPECT_EQ(upload.code, 0);
  for (const char* text : {"--title", "--type", "--chunk-size", "--to", "--resume"}) {
    EXPECT_NE(upload.out.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(transport_.requests().size(), 0u);
}

TEST_F(CommandLineTest, UsageMistakesExitWithTwoAndSendNothing) {
  const std::vector<std::vector<std::string>> mistakes = {
      {},
      {"frobnicate"},
      {"get"},
      {"ls", "--bogus"},
      {"replace", "Notes"},
      {"rm"},
      {"upload"},
      {"upload", "--resume", "file.bin"},
      {"upload", "--resume", "--title", "x"},
      {"upload", "--to", "Notes", "--title", "x", "f"},
      {"--timeout", "-1", "ls"},
      {"--timeout", "soon", "ls"},
      {"--server", "http://127.0.0.1:8080", "ls"},
      {"--server", "https://127.0.0.1:8443/some/path", "ls"},
      {"--server", "not a url", "ls"},
  };
  for (const auto& args : mistakes) {
    const Result result = Run(args);
    std::string joined;
    for (const auto& arg : args) joined += arg + " ";
    EXPECT_EQ(result.code, 2) << joined << "\n" << result.err;
  }
  EXPECT_EQ(transport_.requests().size(), 0u);
}

TEST_F(CommandLineTest, ATokenOnTheCommandLineIsRefusedWithoutEchoingIt) {
  for (const auto& args :
       std::vector<std::vector<std::string>>{{"--token", kToken, "ls"},
                                             {"ls", "--token", kToken},
                                             {"--token=" + std::string(kToken), "ls"}}) {
    const Result result = Run(args);
    EXPECT_EQ(result.code, 2);
    EXPECT_NE(result.err.find("QUIRE_TOKEN"), std::string::npos) << result.err;
  }
  EXPECT_EQ(transport_.requests().size(), 0u);
}

TEST_F(CommandLineTest, ACommandThatNeedsATokenSaysWhereToPutItWhenThereIsNone) {
  const Result result = Run({"ls"}, QString());
  EXPECT_EQ(result.code, 2);
  EXPECT_NE(result.err.find("no token"), std::string::npos);
  EXPECT_EQ(transport_.requests().size(), 0u);
}

TEST_F(CommandLineTest, TheTokenFileWinsOverTheEnvironment) {
  const QString file = Write(QStringLiteral("token"), "from-file-token\n");
  Enqueue(Http(200), Feed({}));
  const Result result = Run({"--token-file", file.toStdString(), "ls"});
  EXPECT_EQ(result.code, 0) << result.err;
  ASSERT_EQ(transport_.requests().size(), 1u);
  EXPECT_EQ(LineValue(transport_.requests()[0], QStringLiteral("Authorization")),
            QStringLiteral("Bearer from-file-token"));
}

TEST_F(CommandLineTest, WhoamiPrintsTheAddressAndSendsNoToken) {
  Enqueue(Http(200), QByteArray("email=ana@quire.example&isVerified=true"));
  const Result result = Run({"whoami"});
  EXPECT_EQ(result.code, 0) << result.err;
  EXPECT_EQ(result.out, "ana@quire.example\n");
  ASSERT_EQ(transport_.requests().size(), 1u);
  EXPECT_EQ(transport_.requests()[0].url,
            QStringLiteral("https://api.quire.example/userinfo/email"));
  EXPECT_FALSE(HasLine(transport_.requests()[0], QStringLiteral("Authorization")));
  EXPECT_EQ(LineValue(transport_.requests()[0], QStringLiteral("Quire-Version")),
            QStringLiteral("3.0"));
}

TEST_F(CommandLineTest, WhoamiWithAnAnswerWithoutAnAddressIsAnUnreadableAnswer) {
  Enqueue(Http(200), QByteArray("nothing here"));
  EXPECT_EQ(Run({"whoami"}).code, 8);
}

TEST_F(CommandLineTest, LsPrintsATableOfEveryDocument) {
  Enqueue(Http(200), Feed(TwoDocs()));
  const Result result = Run({"ls"});
  EXPECT_EQ(result.code, 0) << result.err;
  std::istringstream lines(result.out);
  std::string heading, notes, photo, extra;
  ASSERT_TRUE(std::getline(lines, heading));
  ASSERT_TRUE(std::getline(lines, notes));
  ASSERT_TRUE(std::getline(lines, photo));
  EXPECT_FALSE(std::getline(lines, extra));
  EXPECT_EQ(heading.rfind("TITLE", 0), 0u);
  EXPECT_EQ(notes.rfind("Notes", 0), 0u);
  EXPECT_NE(notes.find("text/plain"), std::string::npos);
  EXPECT_NE(notes.find("2024-05-06T07:08:09.010Z"), std::string::npos);
  EXPECT_NE(notes.find("\"e1\""), std::string::npos);
  EXPECT_EQ(photo.rfind("Photo", 0), 0u);
  EXPECT_NE(photo.find("image/png"), std::string::npos);
  // STARRED and REMOVED columns.
  EXPECT_EQ(notes.substr(heading.find("STARRED"), 3), "yes");
  EXPECT_EQ(notes.substr(heading.find("REMOVED"), 2), "no");
  EXPECT_EQ(photo.substr(heading.find("STARRED"), 2), "no");
  EXPECT_EQ(photo.substr(heading.find("REMOVED"), 3), "yes");
  ASSERT_EQ(transport_.requests().size(), 1u);
  EXPECT_EQ(transport_.requests()[0].url, kFeedUrl);
  EXPECT_EQ(LineValue(transport_.requests()[0], QStringLiteral("Authorization")),
            QStringLiteral("Bearer ") + kToken);
}

TEST_F(CommandLineTest, LsJsonParsesBackIntoEveryFieldOfEveryEntry) {
  Enqueue(Http(200), Feed(TwoDocs()));
  const Result result = Run({"ls", "--json"});
  EXPECT_EQ(result.code, 0) << result.err;
  QJsonParseError error{};
  const QJsonDocument parsed =
      QJsonDocument::fromJson(QByteArray::fromStdString(result.out), &error);
  ASSERT_EQ(error.error, QJsonParseError::NoError) << result.out;
  const QJsonArray docs = parsed.array();
  ASSERT_EQ(docs.size(), 2);
  const QJsonObject notes = docs.at(0).toObject();
  EXPECT_EQ(notes.value(QStringLiteral("id")).toString(), QStringLiteral("d1"));
  EXPECT_EQ(notes.value(QStringLiteral("title")).toString(), QStringLiteral("Notes"));
  EXPECT_EQ(notes.value(QStringLiteral("etag")).toString(), QStringLiteral("\"e1\""));
  EXPECT_EQ(notes.value(QStringLiteral("content_type")).toString(), QStringLiteral("text/plain"));
  EXPECT_EQ(notes.value(QStringLiteral("content_src")).toString(),
            QStringLiteral("https://docs.quire.example/content/d1"));
  EXPECT_EQ(notes.value(QStringLiteral("edit_link")).toString(), kFeedUrl + QStringLiteral("/d1"));
  EXPECT_EQ(notes.value(QStringLiteral("resumable_edit_media_link")).toString(),
            kCreateUrl + QStringLiteral("/d1"));
  EXPECT_EQ(notes.value(QStringLiteral("acl_feed_link")).toString(),
            kFeedUrl + QStringLiteral("/d1/acl"));
  EXPECT_EQ(notes.value(QStringLiteral("revisions_feed_link")).toString(),
            kFeedUrl + QStringLiteral("/d1/revisions"));
  EXPECT_EQ(notes.value(QStringLiteral("updated")).toString(),
            QStringLiteral("2024-05-06T07:08:09.010Z"));
  EXPECT_TRUE(notes.value(QStringLiteral("starred")).toBool());
  EXPECT_FALSE(notes.value(QStringLiteral("removed")).toBool());
  EXPECT_TRUE(notes.value(QStringLiteral("reserved_strings")).isArray());
  const QJsonObject photo = docs.at(1).toObject();
  EXPECT_FALSE(photo.value(QStringLiteral("starred")).toBool());
  EXPECT_TRUE(photo.value(QStringLiteral("removed")).toBool());
  EXPECT_EQ(photo.size(), 13);
}

TEST_F(CommandLineTest, EachFailureClassHasItsExitCode) {
  struct Case {
    std::uint32_t code;
    QByteArray body;
    int exit;
    const char* says;
  };
  const Case cases[] = {
      {Http(401), "<errors/>", 4, "refused the token (HTTP 401)"},
      {Http(403), "<errors/>", 4, "refused the token (HTTP 403)"},
      {Http(404), "", 5, "HTTP 404"},
      {Http(500), "", 7, "the service failed (HTTP 500)"},
      {Http(503), "", 7, "HTTP 503"},
      {Http(400), "", 7, "HTTP 400"},
      {Http(429), "", 7, "HTTP 429"},
      {Http(200), "this is not xml", 8, "could not be read"},
      {Http(200), "<?xml version=\"1.0\"?><entry/>", 8, "could not be read"},
      {kestrel::net::status::kErrorConnectionRefused, "", 3, "connection refused"},
      {kestrel::net::status::kErrorTls, "", 3, "--cacert"},
      {kestrel::net::status::kErrorCertificate, "", 3, "its certificate is not trusted"},
      {kestrel::net::status::kErrorTimedOut, "", 3, "--timeout"},
      {kestrel::net::status::kErrorNameNotResolved, "", 3, "could not be resolved"},
  };
  for (const Case& c : cases) {
    Enqueue(c.code, c.body);
    const Result result = Run({"--retries", "0", "ls"});
    EXPECT_EQ(result.code, c.exit) << c.says << "\n" << result.err;
    EXPECT_NE(result.err.find(c.says), std::string::npos) << result.err;
    EXPECT_TRUE(result.out.empty());
  }
}

TEST_F(CommandLineTest, GetWritesTheExactBytesToStandardOutputOrAFile) {
  const QByteArray content("binary\0with\xff\x00zeros\n", 20);
  Enqueue(Http(200), Feed(TwoDocs()));
  Enqueue(Http(200), content);
  Result result = Run({"get", "Notes"});
  EXPECT_EQ(result.code, 0) << result.err;
  EXPECT_EQ(QByteArray::fromStdString(result.out), content);
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_EQ(transport_.requests()[1].url, QStringLiteral("https://docs.quire.example/content/d1"));
  EXPECT_EQ(LineValue(transport_.requests()[1], QStringLiteral("Authorization")),
            QStringLiteral("Bearer ") + kToken);

  const QString target = dir_.filePath(QStringLiteral("out.bin"));
  Enqueue(Http(200), Feed(TwoDocs()));
  Enqueue(Http(200), content);
  result = Run({"get", "d2", "-o", target.toStdString()});
  EXPECT_EQ(result.code, 0) << result.err;
  QFile file(target);
  ASSERT_TRUE(file.open(QIODevice::ReadOnly));
  EXPECT_EQ(file.readAll(), content);
  EXPECT_NE(result.out.find("saved \"Photo\" (20 bytes)"), std::string::npos) << result.out;
  EXPECT_EQ(transport_.requests()[3].url, QStringLiteral("https://docs.quire.example/content/d2"));
}

TEST_F(CommandLineTest, GetOfAnUnknownOrAmbiguousDocumentAsksNothingMore) {
  Enqueue(Http(200), Feed(TwoDocs()));
  Result result = Run({"get", "Budget"});
  EXPECT_EQ(result.code, 5);
  EXPECT_NE(result.err.find("\"Budget\""), std::string::npos);

  std::vector<FakeDoc> twins = TwoDocs();
  twins[1].title = QStringLiteral("Notes");
  Enqueue(Http(200), Feed(twins));
  result = Run({"get", "Notes"});
  EXPECT_EQ(result.code, 2);
  EXPECT_NE(result.err.find("d1 (updated"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("d2 (updated"), std::string::npos) << result.err;
  EXPECT_EQ(transport_.requests().size(), 2u);
}

TEST_F(CommandLineTest, GetOfContentThatIsGoneIsNotFound) {
  Enqueue(Http(200), Feed(TwoDocs()));
  Enqueue(Http(404), QByteArray("<error>gone</error>"));
  const QString target = dir_.filePath(QStringLiteral("never.bin"));
  const Result result = Run({"get", "Notes", "-o", target.toStdString()});
  EXPECT_EQ(result.code, 5);
  EXPECT_TRUE(result.out.empty());
  EXPECT_FALSE(QFile::exists(target)) << "a failed download must not leave a file";
}

TEST_F(CommandLineTest, PutPostsTheFileToTheFeed) {
  const QByteArray bytes("hello, quire\n");
  const QString file = Write(QStringLiteral("hello.txt"), bytes);
  Enqueue(Http(200), Feed({}));
  Enqueue(Http(201),
          Entry({QStringLiteral("d9"), QStringLiteral("Untitled"), QStringLiteral("\"e9\"")}));
  const Result result = Run({"put", file.toStdString()});
  EXPECT_EQ(result.code, 0) << result.err;
  EXPECT_NE(result.out.find("created \"Untitled\" (id d9, entity tag \"e9\"), 13 bytes"),
            std::string::npos)
      << result.out;
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_EQ(transport_.requests()[1].method, HttpRequest::kPost);
  EXPECT_EQ(transport_.requests()[1].url, kFeedUrl);
  EXPECT_EQ(bodies_[1], bytes);
}

TEST_F(CommandLineTest, PutOfAMissingFileSendsNothing) {
  const Result result = Run({"put", dir_.filePath(QStringLiteral("absent")).toStdString()});
  EXPECT_EQ(result.code, 1);
  EXPECT_EQ(transport_.requests().size(), 0u);
}

TEST_F(CommandLineTest, ReplacePutsTheFileToTheDocumentsEditAddress) {
  const QByteArray bytes("second version");
  const QString file = Write(QStringLiteral("v2.txt"), bytes);
  Enqueue(Http(200), Feed(TwoDocs()));
  Enqueue(Http(200),
          Entry({QStringLiteral("d1"), QStringLiteral("Notes"), QStringLiteral("\"e1b\"")}));
  const Result result = Run({"replace", "Notes", file.toStdString()});
  EXPECT_EQ(result.code, 0) << result.err;
  EXPECT_NE(result.out.find("entity tag \"e1b\""), std::string::npos) << result.out;
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_EQ(transport_.requests()[1].method, HttpRequest::kPut);
  EXPECT_EQ(transport_.requests()[1].url, kFeedUrl + QStringLiteral("/d1"));
  EXPECT_EQ(bodies_[1], bytes);
  EXPECT_FALSE(HasLine(transport_.requests()[1], QStringLiteral("If-Match")));
}

TEST_F(CommandLineTest, RmDeletesUnderTheListedEntityTag) {
  Enqueue(Http(200), Feed(TwoDocs()));
  Enqueue(Http(200));
  const Result result = Run({"rm", "Notes"});
  EXPECT_EQ(result.code, 0) << result.err;
  EXPECT_NE(result.out.find("deleted \"Notes\""), std::string::npos);
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_EQ(transport_.requests()[1].method, HttpRequest::kDelete);
  EXPECT_EQ(transport_.requests()[1].url, kFeedUrl + QStringLiteral("/d1"));
  EXPECT_EQ(LineValue(transport_.requests()[1], QStringLiteral("If-Match")),
            QStringLiteral("\"e1\""));
}

TEST_F(CommandLineTest, RmOfADocumentThatChangedSaysSoAndExitsWithSix) {
  Enqueue(Http(200), Feed(TwoDocs()));
  Enqueue(Http(412), QByteArray("<error/>"));
  const Result result = Run({"rm", "Notes"});
  EXPECT_EQ(result.code, 6);
  EXPECT_NE(result.err.find("changed since it was listed"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("--force"), std::string::npos) << result.err;
}

TEST_F(CommandLineTest, RmForceDeletesWithoutAnEntityTag) {
  Enqueue(Http(200), Feed(TwoDocs()));
  Enqueue(Http(200));
  const Result result = Run({"rm", "d2", "--force"});
  EXPECT_EQ(result.code, 0) << result.err;
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_FALSE(HasLine(transport_.requests()[1], QStringLiteral("If-Match")));
  EXPECT_EQ(transport_.requests()[1].url, kFeedUrl + QStringLiteral("/d2"));
}

TEST_F(CommandLineTest, RmIfMatchSendsTheGivenEntityTag) {
  Enqueue(Http(200), Feed(TwoDocs()));
  Enqueue(Http(412));
  const Result result = Run({"rm", "Notes", "--if-match", "\"old\""});
  EXPECT_EQ(result.code, 6);
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_EQ(LineValue(transport_.requests()[1], QStringLiteral("If-Match")),
            QStringLiteral("\"old\""));
  EXPECT_EQ(Run({"rm", "Notes", "--if-match", "x", "--force"}).code, 2);
  EXPECT_EQ(transport_.requests().size(), 2u);
}

TEST_F(CommandLineTest, RmOfADocumentThatIsGoneIsNotFound) {
  Enqueue(Http(200), Feed(TwoDocs()));
  Enqueue(Http(404));
  EXPECT_EQ(Run({"rm", "Notes"}).code, 5);
}

TEST_F(CommandLineTest, UploadSendsTheFileInChunksAndForgetsItsStateWhenDone) {
  const QByteArray bytes = PatternBytes(25);
  const QString file = Write(QStringLiteral("notes.txt"), bytes);
  Enqueue(Http(200), Feed({}));
  Enqueue(Http(200), QByteArray(), {QStringLiteral("Location: ") + kSession});
  Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-9")});
  Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-19")});
  Enqueue(Http(201),
          Entry({QStringLiteral("d7"), QStringLiteral("My notes"), QStringLiteral("\"e7\"")}));
  const Result result = Run({"upload", file.toStdString(), "--title", "My notes", "--chunk-size",
                             "10", "--state-file", StateFile()});
  EXPECT_EQ(result.code, 0) << result.err;
  EXPECT_EQ(result.out, "uploaded \"My notes\" (id d7, entity tag \"e7\"): 25 bytes in 3 chunks\n");
  EXPECT_TRUE(result.err.empty()) << "off a terminal only the result is printed: " << result.err;
  EXPECT_FALSE(QFile::exists(QString::fromStdString(StateFile())));

  const auto& sent = transport_.requests();
  ASSERT_EQ(sent.size(), 5u);
  EXPECT_EQ(sent[1].method, HttpRequest::kPost);
  EXPECT_EQ(sent[1].url, kCreateUrl);
  EXPECT_NE(bodies_[1].indexOf("<title>My notes</title>"), -1) << bodies_[1].constData();
  EXPECT_EQ(LineValue(sent[1], QStringLiteral("X-Upload-Content-Type")),
            QStringLiteral("text/plain"));
  EXPECT_EQ(LineValue(sent[1], QStringLiteral("X-Upload-Content-Length")), QStringLiteral("25"));
  EXPECT_EQ(LineValue(sent[1], QStringLiteral("Authorization")),
            QStringLiteral("Bearer ") + kToken);
  EXPECT_EQ(LineValue(sent[2], QStringLiteral("Content-Range")), QStringLiteral("bytes 0-9/25"));
  // Each chunk starts right after the last byte the service holds.
  EXPECT_EQ(LineValue(sent[3], QStringLiteral("Content-Range")), QStringLiteral("bytes 10-19/25"));
  EXPECT_EQ(LineValue(sent[4], QStringLiteral("Content-Range")), QStringLiteral("bytes 20-24/25"));
  EXPECT_EQ(bodies_[4], bytes.mid(20));
  for (std::size_t i = 2; i < 5; ++i) EXPECT_EQ(sent[i].url, kSession);
}

TEST_F(CommandLineTest, OnATerminalUploadShowsProgress) {
  terminal_ = true;
  const QString file = Write(QStringLiteral("p.bin"), PatternBytes(25));
  Enqueue(Http(200), Feed({}));
  Enqueue(Http(200), QByteArray(), {QStringLiteral("Location: ") + kSession});
  Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-9")});
  Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-19")});
  Enqueue(Http(201),
          Entry({QStringLiteral("d8"), QStringLiteral("p.bin"), QStringLiteral("\"e8\"")}));
  const Result result =
      Run({"upload", file.toStdString(), "--chunk-size", "10", "--state-file", StateFile()});
  EXPECT_EQ(result.code, 0) << result.err;
  EXPECT_NE(result.err.find("\r["), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("25 B / 25 B"), std::string::npos) << result.err;
  EXPECT_EQ(result.err.back(), '\n');
  // The default title is the file's name and the type follows its extension.
  EXPECT_NE(bodies_[1].indexOf("<title>p.bin</title>"), -1);
  EXPECT_EQ(LineValue(transport_.requests()[1], QStringLiteral("X-Upload-Content-Type")),
            QStringLiteral("application/octet-stream"));
}

TEST_F(CommandLineTest, AnInterruptedUploadKeepsItsStateAndContinuesWithResume) {
  const QByteArray bytes = PatternBytes(25);
  const QString file = Write(QStringLiteral("big.bin"), bytes);
  Enqueue(Http(200), Feed({}));
  Enqueue(Http(200), QByteArray(), {QStringLiteral("Location: ") + kSession});
  Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-9")});
  Enqueue(kestrel::net::status::kErrorConnectionReset);
  Result result = Run({"--retries", "0", "upload", file.toStdString(), "--type",
                       "application/x-test", "--chunk-size", "10", "--state-file", StateFile()});
  EXPECT_EQ(result.code, 3) << result.err;
  EXPECT_NE(result.err.find("the service holds 10 of 25 bytes"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("quire upload --resume --state-file " + StateFile()), std::string::npos)
      << result.err;
  quire_cli::UploadState state;
  ASSERT_TRUE(state.Load(QString::fromStdString(StateFile())));
  EXPECT_EQ(state.session_url, kSession);
  EXPECT_EQ(state.file_size, 25);
  EXPECT_EQ(state.content_type, QStringLiteral("application/x-test"));
  EXPECT_EQ(state.chunk_size, 10u);
  EXPECT_TRUE(state.file_path.endsWith(QStringLiteral("/big.bin")));

  const std::size_t before = transport_.requests().size();
  Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-9")});
  Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-19")});
  Enqueue(Http(201),
          Entry({QStringLiteral("d3"), QStringLiteral("big.bin"), QStringLiteral("\"e3\"")}));
  result = Run({"upload", "--resume", "--state-file", StateFile()});
  EXPECT_EQ(result.code, 0) << result.err;
  EXPECT_NE(
      result.out.find("uploaded \"big.bin\" (id d3, entity tag \"e3\"): continued at byte 10"),
      std::string::npos)
      << result.out;
  EXPECT_FALSE(QFile::exists(QString::fromStdString(StateFile())));

  const auto& sent = transport_.requests();
  ASSERT_EQ(sent.size(), before + 3);
  // The status query: a PUT without data that names only the total.
  EXPECT_EQ(sent[before].method, HttpRequest::kPut);
  EXPECT_EQ(sent[before].url, kSession);
  EXPECT_TRUE(bodies_[before].isEmpty());
  EXPECT_EQ(LineValue(sent[before], QStringLiteral("Content-Range")), QStringLiteral("bytes */25"));
  EXPECT_EQ(LineValue(sent[before + 1], QStringLiteral("Content-Range")),
            QStringLiteral("bytes 10-19/25"));
  EXPECT_EQ(LineValue(sent[before + 1], QStringLiteral("Content-Type")),
            QStringLiteral("application/x-test"));
  EXPECT_EQ(bodies_[before + 1], bytes.mid(10, 10));
  EXPECT_EQ(LineValue(sent[before + 2], QStringLiteral("Content-Range")),
            QStringLiteral("bytes 20-24/25"));
}

TEST_F(CommandLineTest, ResumeOfASessionThatHoldsNothingStartsAtZero) {
  const QString file = Write(QStringLiteral("z.bin"), PatternBytes(5));
  SaveState(file, 5, 100, QStringLiteral("text/plain"));
  Enqueue(Http(308));
  Enqueue(Http(201), Entry({QStringLiteral("d4"), QStringLiteral("z"), QStringLiteral("\"e4\"")}));
  const Result result = Run({"upload", "--resume", "--state-file", StateFile()});
  EXPECT_EQ(result.code, 0) << result.err;
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_EQ(LineValue(transport_.requests()[1], QStringLiteral("Content-Range")),
            QStringLiteral("bytes 0-4/5"));
}

TEST_F(CommandLineTest, ResumeOfAnUploadThatHadFinishedReportsTheDocument) {
  const QString file = Write(QStringLiteral("done.bin"), PatternBytes(5));
  SaveState(file, 5, 100);
  Enqueue(Http(201),
          Entry({QStringLiteral("d5"), QStringLiteral("done"), QStringLiteral("\"e5\"")}));
  const Result result = Run({"upload", "--resume", "--state-file", StateFile()});
  EXPECT_EQ(result.code, 0) << result.err;
  EXPECT_NE(result.out.find("id d5"), std::string::npos);
  EXPECT_EQ(transport_.requests().size(), 1u);
  EXPECT_FALSE(QFile::exists(QString::fromStdString(StateFile())));
}

TEST_F(CommandLineTest, ResumeRefusesAFileThatChangedAndForgetsTheState) {
  const QString file = Write(QStringLiteral("c.bin"), PatternBytes(25));
  SaveState(file, 24, 10);  // the file has grown since
  const Result result = Run({"upload", "--resume", "--state-file", StateFile()});
  EXPECT_EQ(result.code, 1);
  EXPECT_NE(result.err.find("changed since its upload started"), std::string::npos) << result.err;
  EXPECT_EQ(transport_.requests().size(), 0u);
  EXPECT_FALSE(QFile::exists(QString::fromStdString(StateFile())));
}

TEST_F(CommandLineTest, ResumeWithoutAnInterruptedUploadIsAUsageFailure) {
  const Result result = Run({"upload", "--resume", "--state-file", StateFile()});
  EXPECT_EQ(result.code, 2);
  EXPECT_NE(result.err.find("no interrupted upload"), std::string::npos);
}

TEST_F(CommandLineTest, ResumeOfASessionThatIsGoneIsNotFoundAndForgetsTheState) {
  const QString file = Write(QStringLiteral("g.bin"), PatternBytes(5));
  SaveState(file, 5, 10);
  Enqueue(Http(404));
  const Result result = Run({"upload", "--resume", "--state-file", StateFile()});
  EXPECT_EQ(result.code, 5);
  EXPECT_NE(result.err.find("session"), std::string::npos);
  EXPECT_FALSE(QFile::exists(QString::fromStdString(StateFile())));
}

TEST_F(CommandLineTest, AnUploadAnswerWithARangeBeyondTheDataIsUnreadable) {
  const QString file = Write(QStringLiteral("r.bin"), PatternBytes(25));
  Enqueue(Http(200), Feed({}));
  Enqueue(Http(200), QByteArray(), {QStringLiteral("Location: ") + kSession});
  Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-9")});
  Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-99")});
  const Result result =
      Run({"upload", file.toStdString(), "--chunk-size", "10", "--state-file", StateFile()});
  EXPECT_EQ(result.code, 8) << result.err;
  EXPECT_NE(result.err.find("HTTP 308"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("--resume"), std::string::npos) << result.err;
}

TEST_F(CommandLineTest, UploadToADocumentStartsAtItsResumableEditAddress) {
  const QString file = Write(QStringLiteral("n.txt"), PatternBytes(5));
  Enqueue(Http(200), Feed(TwoDocs()));
  Enqueue(Http(200), QByteArray(), {QStringLiteral("Location: ") + kSession});
  Enqueue(Http(200),
          Entry({QStringLiteral("d1"), QStringLiteral("Notes"), QStringLiteral("\"e1c\"")}));
  const Result result =
      Run({"upload", file.toStdString(), "--to", "Notes", "--state-file", StateFile()});
  EXPECT_EQ(result.code, 0) << result.err;
  ASSERT_EQ(transport_.requests().size(), 3u);
  EXPECT_EQ(transport_.requests()[1].url, kCreateUrl + QStringLiteral("/d1"));
  EXPECT_TRUE(bodies_[1].isEmpty());
}

TEST_F(CommandLineTest, AnUploadOfFiveGibibytesAnnouncesItsWholeLength) {
  const QString path = dir_.filePath(QStringLiteral("huge.bin"));
  QFile file(path);
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  ASSERT_TRUE(file.resize(std::int64_t{5} << 30));
  file.close();
  Enqueue(Http(200), Feed({}));
  Enqueue(Http(403));
  const Result result =
      Run({"--retries", "0", "upload", path.toStdString(), "--state-file", StateFile()});
  EXPECT_EQ(result.code, 4) << result.err;
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_EQ(LineValue(transport_.requests()[1], QStringLiteral("X-Upload-Content-Length")),
            QStringLiteral("5368709120"));
}

TEST_F(CommandLineTest, PassingFailuresAreRetriedAndTheErrorStreamSaysSo) {
  Enqueue(Http(503), QByteArray(), {QStringLiteral("Retry-After: 0")});
  Enqueue(kestrel::net::status::kErrorConnectionReset);
  Enqueue(Http(200), Feed(TwoDocs()));
  Result result = Run({"ls"});
  EXPECT_EQ(result.code, 0) << result.err;
  EXPECT_NE(result.out.find("Notes"), std::string::npos) << result.out;
  EXPECT_EQ(result.err, "quire: 2 retries after passing failures; all recovered\n");
  EXPECT_EQ(transport_.requests().size(), 3u);

  // A failure that does not pass is not retried.
  Enqueue(Http(404));
  result = Run({"ls"});
  EXPECT_EQ(result.code, 5) << result.err;
  EXPECT_EQ(result.err.find("retries made"), std::string::npos) << result.err;

  // Retries that run out say how many were made.
  for (int i = 0; i < 3; ++i) Enqueue(Http(503), QByteArray(), {QStringLiteral("Retry-After: 0")});
  result = Run({"--retries", "2", "ls"});
  EXPECT_EQ(result.code, 7) << result.err;
  EXPECT_NE(result.err.find("HTTP 503"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("(2 retries made)\n"), std::string::npos) << result.err;
}

TEST_F(CommandLineTest, RetriesMustBeACountFromZeroToAHundred) {
  for (const char* bad : {"-1", "101", "many"}) {
    const Result result = Run({"--retries", bad, "ls"});
    EXPECT_EQ(result.code, 2) << bad;
    EXPECT_NE(result.err.find("--retries"), std::string::npos) << result.err;
  }
}

TEST_F(CommandLineTest, AnUploadGoesOnByItselfAfterAChunkFailedAndItsLastLineSaysSo) {
  const QByteArray bytes = PatternBytes(25);
  const QString file = Write(QStringLiteral("retry.bin"), bytes);
  Enqueue(Http(200), Feed({}));
  Enqueue(Http(200), QByteArray(), {QStringLiteral("Location: ") + kSession});
  Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-9")});
  // The second chunk meets a reset connection, then a 503: each time the session is asked where
  // it stands and the chunk goes again.
  Enqueue(kestrel::net::status::kErrorConnectionReset);
  Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-9")});
  Enqueue(Http(503), QByteArray(), {QStringLiteral("Retry-After: 0")});
  Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-9")});
  Enqueue(Http(308), QByteArray(), {QStringLiteral("Range: bytes=0-19")});
  Enqueue(Http(201),
          Entry({QStringLiteral("d8"), QStringLiteral("retry.bin"), QStringLiteral("\"e8\"")}));
  const Result result =
      Run({"upload", file.toStdString(), "--chunk-size", "10", "--state-file", StateFile()});
  EXPECT_EQ(result.code, 0) << result.err;
  EXPECT_EQ(result.out,
            "uploaded \"retry.bin\" (id d8, entity tag \"e8\"): 25 bytes in 3 chunks, after 2 "
            "retries\n");
  const auto& sent = transport_.requests();
  ASSERT_EQ(sent.size(), 9u);
  EXPECT_EQ(LineValue(sent[4], QStringLiteral("Content-Range")), QStringLiteral("bytes */25"));
  EXPECT_TRUE(bodies_[4].isEmpty());
  for (std::size_t i : {3u, 5u, 7u}) EXPECT_EQ(bodies_[i], bytes.mid(10, 10)) << i;
  EXPECT_EQ(bodies_[8], bytes.mid(20));
  EXPECT_FALSE(QFile::exists(QString::fromStdString(StateFile())));
}

TEST_F(CommandLineTest, UploadOfAnEmptyFileIsRefused) {
  const QString file = Write(QStringLiteral("empty"), QByteArray());
  Enqueue(Http(200), Feed({}));
  const Result result = Run({"upload", file.toStdString(), "--state-file", StateFile()});
  EXPECT_EQ(result.code, 1);
  EXPECT_NE(result.err.find("quire put"), std::string::npos);
}

TEST_F(CommandLineTest, AnUploadThatFailsBeforeItsSessionOpensLeavesNoState) {
  const QString file = Write(QStringLiteral("s.bin"), PatternBytes(5));
  Enqueue(Http(200), Feed({}));
  Enqueue(Http(503));
  const Result result =
      Run({"--retries", "0", "upload", file.toStdString(), "--state-file", StateFile()});
  EXPECT_EQ(result.code, 7);
  EXPECT_NE(result.err.find("start the upload again"), std::string::npos) << result.err;
  EXPECT_FALSE(QFile::exists(QString::fromStdString(StateFile())));
}

TEST_F(CommandLineTest, TheGlobalOptionsReachTheTransport) {
  const QString cacert = Write(QStringLiteral("ca.pem"), "-----BEGIN CERTIFICATE-----\n");
  Enqueue(Http(200), Feed({}));
  const Result result = Run({"--server", "https://127.0.0.1:8443", "--cacert", cacert.toStdString(),
                             "--insecure", "--timeout", "2.5", "ls"});
  EXPECT_EQ(result.code, 0) << result.err;
  EXPECT_EQ(options_.server, QStringLiteral("https://127.0.0.1:8443"));
  EXPECT_EQ(options_.cacert, cacert);
  EXPECT_TRUE(options_.insecure);
  EXPECT_EQ(options_.timeout_seconds, 2.5);
  ASSERT_EQ(transport_.requests().size(), 1u);
  EXPECT_EQ(transport_.requests()[0].options.stall_timeout_seconds, 2.5);
  // Global options may also follow the command.
  Enqueue(Http(200), Feed({}));
  EXPECT_EQ(Run({"ls", "--timeout", "4"}).code, 0);
  EXPECT_EQ(options_.timeout_seconds, 4);
  EXPECT_FALSE(options_.insecure);
}

TEST_F(CommandLineTest, AnUnreadableCertificateFileIsAUsageFailure) {
  const Result result =
      Run({"--cacert", dir_.filePath(QStringLiteral("none.pem")).toStdString(), "ls"});
  EXPECT_EQ(result.code, 2);
  EXPECT_NE(result.err.find("--cacert"), std::string::npos);
}

TEST_F(CommandLineTest, ChunkSizesAcceptBinaryUnits) {
  EXPECT_EQ(CommandLine::ParseChunkSize("10"), 10u);
  EXPECT_EQ(CommandLine::ParseChunkSize("64K"), 64u * 1024);
  EXPECT_EQ(CommandLine::ParseChunkSize("8MiB"), 8u << 20);
  EXPECT_EQ(CommandLine::ParseChunkSize("1GiB"), 1u << 30);
  for (const char* bad : {"", "1", "0", "2GiB", "8 MiB", "8MB", "-5", "x", "99999999999"}) {
    EXPECT_THROW(CommandLine::ParseChunkSize(bad), quire_cli::CliFailure) << bad;
  }
}

}  // namespace
