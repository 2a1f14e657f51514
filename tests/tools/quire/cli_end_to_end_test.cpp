// The quire program end to end: a real emulator (quire-server) on 127.0.0.1 over HTTPS, and the
// quire program run as a person runs it, exit codes and output included.
#include <gtest/gtest.h>
#include <signal.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QUrl>
#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/tools/quire/cli_end_to_end_fixture.h"

namespace {

using namespace quire_test;
using namespace quire_test::cli;

TEST_F(CliEndToEndTest, WhoamiNamesTheAccount) {
  const ProcessResult result = Quire({"whoami"});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out, std::string(kAccount) + "\n");
}

TEST_F(CliEndToEndTest, HelpAndVersionExitWithZero) {
  ProcessResult result = runner_->Run({"--help"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_NE(result.out.find("Exit codes:"), std::string::npos);
  result = runner_->Run({"--version"});
  EXPECT_EQ(result.exit_code, 0);
  EXPECT_EQ(result.out.rfind("quire ", 0), 0u);
  result = runner_->Run({"frobnicate"});
  Check(result);
  EXPECT_EQ(result.exit_code, 2);
}

TEST_F(CliEndToEndTest, PutListGetReplaceAndRemoveWorkOnTheWire) {
  const QByteArray first = PatternBytes(100 * 1024 + 7, 1);
  ProcessResult result = Quire({"put", Write("first.bin", first)});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out.rfind("created \"Untitled\" (id ", 0), 0u) << result.out;

  QJsonArray docs = List();
  ASSERT_EQ(docs.size(), 1);
  const QJsonObject doc = docs.at(0).toObject();
  const std::string id = doc.value(QStringLiteral("id")).toString().toStdString();
  const QString etag = doc.value(QStringLiteral("etag")).toString();
  EXPECT_EQ(doc.value(QStringLiteral("title")).toString(), QStringLiteral("Untitled"));
  EXPECT_FALSE(etag.isEmpty());
  for (const char* field : {"edit_link", "content_src", "resumable_edit_media_link", "updated"}) {
    EXPECT_FALSE(doc.value(QString::fromLatin1(field)).toString().isEmpty()) << field;
  }
  EXPECT_EQ(Get(id), first);

  // The table names the document with its entity tag.
  result = Quire({"ls"});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.out.find("Untitled"), std::string::npos);
  EXPECT_NE(result.out.find(etag.toStdString()), std::string::npos);

  // Standard output carries the bytes exactly.
  result = Quire({"get", id});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(QByteArray::fromStdString(result.out), first);

  const QByteArray second = PatternBytes(5000, 2);
  result = Quire({"replace", id, Write("second.bin", second)});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(Get(id), second);
  docs = List();
  ASSERT_EQ(docs.size(), 1);
  EXPECT_NE(docs.at(0).toObject().value(QStringLiteral("etag")).toString(), etag);

  // By its edit address this time.
  result = Quire(
      {"rm", docs.at(0).toObject().value(QStringLiteral("edit_link")).toString().toStdString()});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(List().size(), 0);
  EXPECT_EQ(Quire({"ls"}).out, "no documents\n");
}

TEST_F(CliEndToEndTest, UploadCreatesANamedDocumentWithTheExactBytes) {
  const QByteArray bytes = PatternBytes(3 * 1024 * 1024 + 123, 3);
  const ProcessResult result = Quire({"upload", Write("notes.txt", bytes), "--title", "Field notes",
                                      "--type", "text/markdown", "--chunk-size", "1MiB"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.out.find("uploaded \"Field notes\""), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("3145851 bytes in 4 chunks"), std::string::npos) << result.out;
  EXPECT_TRUE(result.err.empty()) << result.err;
  EXPECT_FALSE(QFile::exists(QString::fromStdString(StateFile())));
  const QJsonArray docs = List();
  ASSERT_EQ(docs.size(), 1);
  EXPECT_EQ(docs.at(0).toObject().value(QStringLiteral("title")).toString(),
            QStringLiteral("Field notes"));
  EXPECT_EQ(docs.at(0).toObject().value(QStringLiteral("content_type")).toString(),
            QStringLiteral("text/markdown"));
  EXPECT_EQ(Get("Field notes"), bytes);
}

TEST_F(CliEndToEndTest, UploadToReplacesADocumentsContent) {
  ASSERT_EQ(Quire({"upload", Write("a.txt", PatternBytes(1000, 4)), "--title", "A"}).exit_code, 0);
  const QByteArray bytes = PatternBytes(300 * 1024, 5);
  const ProcessResult result =
      Quire({"upload", Write("b.bin", bytes), "--to", "A", "--chunk-size", "64KiB"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  const QJsonArray docs = List();
  ASSERT_EQ(docs.size(), 1);
  EXPECT_EQ(docs.at(0).toObject().value(QStringLiteral("title")).toString(), QStringLiteral("A"));
  EXPECT_EQ(Get("A"), bytes);
}

TEST_F(CliEndToEndTest, TheProgressBarShowsOnATerminalOnly) {
  const std::string file = Write("p.bin", PatternBytes(2 * 1024 * 1024, 6));
  ProcessResult result = Quire({"upload", file, "--chunk-size", "256KiB"}, true);
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.err.find("\r["), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("2.0 MiB / 2.0 MiB"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("/s"), std::string::npos) << result.err;
  result = Quire({"upload", file, "--title", "again", "--chunk-size", "256KiB"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_TRUE(result.err.empty()) << result.err;
}

TEST_F(CliEndToEndTest, AWrongTokenIsRefusedWithExitCodeFour) {
  runner_->SetEnv("QUIRE_TOKEN", "not-the-token");
  const ProcessResult result = Quire({"ls"});
  EXPECT_EQ(result.exit_code, 4) << result.err;
  EXPECT_NE(result.err.find("refused the token (HTTP 401)"), std::string::npos) << result.err;
  EXPECT_EQ(result.err.find("not-the-token"), std::string::npos);
}

TEST_F(CliEndToEndTest, TheTokenComesFromAFileOrTheEnvironmentNeverTheCommandLine) {
  runner_->UnsetEnv("QUIRE_TOKEN");
  ProcessResult result = Quire({"ls"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_NE(result.err.find("QUIRE_TOKEN"), std::string::npos);
  result = Quire({"--token-file", Write("token", QByteArray(kToken) + "\n"), "ls"});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  result = Quire({"--token", kToken, "ls"});
  EXPECT_EQ(result.exit_code, 2);
}

TEST_F(CliEndToEndTest, AnUnknownDocumentIsNotFound) {
  ProcessResult result = Quire({"get", "No such thing"});
  EXPECT_EQ(result.exit_code, 5);
  EXPECT_NE(result.err.find("\"No such thing\""), std::string::npos);
  result = Quire({"rm", "No such thing"});
  EXPECT_EQ(result.exit_code, 5);
}

TEST_F(CliEndToEndTest, AnAmbiguousTitleListsTheCandidates) {
  ASSERT_EQ(Quire({"put", Write("x", "one")}).exit_code, 0);
  ASSERT_EQ(Quire({"put", Write("y", "two")}).exit_code, 0);
  const QJsonArray docs = List();
  ASSERT_EQ(docs.size(), 2);
  const ProcessResult result = Quire({"get", "Untitled"});
  EXPECT_EQ(result.exit_code, 2);
  for (const QJsonValue& doc : docs) {
    EXPECT_NE(result.err.find(doc.toObject().value(QStringLiteral("id")).toString().toStdString()),
              std::string::npos)
        << result.err;
  }
}

TEST_F(CliEndToEndTest, AStaleEntityTagIsRefusedWithExitCodeSix) {
  ASSERT_EQ(Quire({"upload", Write("s.txt", "version one"), "--title", "S"}).exit_code, 0);
  const QString old_etag = List().at(0).toObject().value(QStringLiteral("etag")).toString();
  ASSERT_EQ(Quire({"replace", "S", Write("s2.txt", "version two")}).exit_code, 0);
  ProcessResult result = Quire({"rm", "S", "--if-match", old_etag.toStdString()});
  EXPECT_EQ(result.exit_code, 6) << result.err;
  EXPECT_NE(result.err.find("changed since it was listed"), std::string::npos) << result.err;
  EXPECT_EQ(List().size(), 1) << "nothing is deleted under a stale entity tag";
  result = Quire({"rm", "S"});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(List().size(), 0);
}

TEST_F(CliEndToEndTest, RmForceDeletesWhateverTheDocumentHolds) {
  ASSERT_EQ(Quire({"upload", Write("f.txt", "content"), "--title", "F"}).exit_code, 0);
  // The feed as it is now, then the document changes: from here on that feed is a stale listing.
  const std::string stale_feed = FetchFeed();
  ASSERT_FALSE(stale_feed.empty());
  ASSERT_EQ(Quire({"replace", "F", Write("f2.txt", "other content")}).exit_code, 0);
  // quire lists the documents and deletes in one run; an emulator that answers every listing with
  // the stale feed puts the change between the two.
  StartServer(
      {QStringLiteral("--fault-body"),
       QString::fromStdString(Write("stale-feed.xml", QByteArray::fromStdString(stale_feed)))});
  // A plain rm sends the entity tag it listed and is refused...
  ProcessResult result = Quire({"rm", "F"});
  EXPECT_EQ(result.exit_code, 6) << result.err;
  EXPECT_NE(result.err.find("changed since it was listed"), std::string::npos) << result.err;
  // ...rm --force sends none and deletes what the document holds now.
  result = Quire({"rm", "F", "--force"});
  EXPECT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.out.find("deleted \"F\""), std::string::npos) << result.out;
  StartServer();
  EXPECT_EQ(List().size(), 0);
}

TEST_F(CliEndToEndTest, AServerThatIsDownIsANetworkFailure) {
  const std::vector<std::string> global = Global();
  server_->Stop();
  std::vector<std::string> args = global;
  // Retried, a refused connection stays refused; one retry is enough to show it.
  for (const char* arg : {"--retries", "1", "ls"}) args.push_back(arg);
  const ProcessResult result = runner_->Run(args);
  Check(result);
  EXPECT_EQ(result.exit_code, 3) << result.err;
  EXPECT_NE(result.err.find("connection refused"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("(1 retry made)"), std::string::npos) << result.err;
}

TEST_F(CliEndToEndTest, AnUntrustedCertificateIsRefusedUnlessInsecureIsSpelledOut) {
  ProcessResult result = runner_->Run({"--server", server_->url().toStdString(), "ls"});
  Check(result);
  EXPECT_EQ(result.exit_code, 3) << result.err;
  EXPECT_NE(result.err.find("--cacert"), std::string::npos) << result.err;
  EXPECT_EQ(result.err.find(" made)"), std::string::npos)
      << "a refused certificate would be refused again: no retry\n"
      << result.err;
  result = runner_->Run({"--server", server_->url().toStdString(), "--insecure", "ls"});
  Check(result);
  EXPECT_EQ(result.exit_code, 0) << result.err;
}

TEST_F(CliEndToEndTest, EmulatorFaultsEndInTheirClasses) {
  // One failure of each kind, without retries (CliRetryTest has them).
  StartServer({QStringLiteral("--fault-fail-every"), QStringLiteral("1")});
  ProcessResult result = Quire({"--retries", "0", "ls"});
  EXPECT_EQ(result.exit_code, 7) << result.err;
  EXPECT_NE(result.err.find("HTTP 503"), std::string::npos) << result.err;

  // The answer's head arrives, its body is cut short.
  StartServer({QStringLiteral("--fault-close-response-after"), QStringLiteral("400")});
  result = Quire({"--retries", "0", "ls"});
  EXPECT_EQ(result.exit_code, 3) << result.err;
  EXPECT_NE(result.err.find("broke while listing the documents"), std::string::npos) << result.err;

  StartServer({QStringLiteral("--fault-delay-ms"), QStringLiteral("3000")});
  result = Quire({"--retries", "0", "--timeout", "1", "ls"});
  EXPECT_EQ(result.exit_code, 3) << result.err;
  EXPECT_NE(result.err.find("--timeout"), std::string::npos) << result.err;
  EXPECT_LT(result.seconds, 2.9);

  StartServer({QStringLiteral("--fault-308-without-range")});
  result = Quire({"upload", Write("r.bin", PatternBytes(100000, 7)), "--chunk-size", "40000"});
  EXPECT_EQ(result.exit_code, 8) << result.err;
  EXPECT_NE(result.err.find("HTTP 308"), std::string::npos) << result.err;
}

TEST_F(CliEndToEndTest, AnUploadCutByTheServerFinishesWithResumeByteExact) {
  const QByteArray bytes = PatternBytes(5 * 1024 * 1024 + 17, 8);
  const std::string file = Write("cut.bin", bytes);
  // Every request that carries more than 1.5 MiB is cut off: the second chunk never arrives.
  StartServer({QStringLiteral("--fault-close-request-after"), QString::number(1536 * 1024)});
  // Without retries the upload stops at the first cut (with them it goes on by itself:
  // CliRetryTest).
  ProcessResult result =
      Quire({"--retries", "0", "upload", file, "--title", "Cut", "--chunk-size", "2MiB"});
  EXPECT_EQ(result.exit_code, 3) << result.err;
  EXPECT_NE(result.err.find("quire upload --resume"), std::string::npos) << result.err;
  ASSERT_TRUE(QFile::exists(QString::fromStdString(StateFile())));

  StartServer();
  result = Quire({"upload", "--resume"});
  // The bytes of the cut request that did arrive count: the upload goes on from there.
  CheckResumed(result, "Cut", bytes, "cut upload");
  if (HasFatalFailure()) return;
  EXPECT_FALSE(QFile::exists(QString::fromStdString(StateFile())));
  EXPECT_EQ(Get("Cut"), bytes);
  EXPECT_EQ(List().size(), 1);
}

TEST_F(CliEndToEndTest, AnUploadStoppedWithCtrlCFinishesWithResumeByteExact) {
  const QByteArray bytes = PatternBytes(4 * 1024 * 1024, 9);
  const std::string file = Write("slow.bin", bytes);
  StartServer({QStringLiteral("--fault-delay-ms"), QStringLiteral("150")});
  std::vector<std::string> args = Global();
  for (const char* arg : {"upload", "--title", "Slow", "--chunk-size", "256KiB"})
    args.push_back(arg);
  args.push_back(file);
  ProcessRunner::Child child = runner_->Start(args);
  // Wait until the session is open (the state file is written), then press Ctrl-C.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!QFile::exists(QString::fromStdString(StateFile())) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  ::kill(child.pid, SIGINT);
  ProcessResult result = runner_->Wait(&child, 20);
  EXPECT_EQ(result.exit_code, 130) << result.err;
  EXPECT_NE(result.err.find("quire upload --resume"), std::string::npos) << result.err;
  ASSERT_TRUE(QFile::exists(QString::fromStdString(StateFile())));

  StartServer();
  result = Quire({"upload", "--resume"});
  // The chunks sent before Ctrl-C count: the upload goes on from there.
  CheckResumed(result, "Slow", bytes, "interrupted upload");
  if (HasFatalFailure()) return;
  EXPECT_EQ(Get("Slow"), bytes);
}

// put sends the whole file in one request; upload takes files of any size (CliLargeUploadTest).
TEST_F(CliEndToEndTest, AFileOfFourGibibytesIsRefusedByPutBeforeAnythingIsSent) {
  const QString path = Path("huge.bin");
  QFile file(path);
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  ASSERT_TRUE(file.resize(std::int64_t{1} << 32));
  file.close();
  for (const char* command : {"put"}) {
    const ProcessResult result = Quire({command, path.toStdString()});
    EXPECT_EQ(result.exit_code, 1) << result.err;
    EXPECT_NE(result.err.find("unsigned 32 bits"), std::string::npos) << result.err;
  }
  EXPECT_EQ(List().size(), 0);
  EXPECT_FALSE(QFile::exists(QString::fromStdString(StateFile())));
}

TEST_F(CliEndToEndTest, TheDemoWalksTheWholeStoryInUnderThirtySeconds) {
  server_->Stop();
  const ProcessResult result = runner_->Run({"demo", "--server-binary", QUIRE_SERVER_BINARY}, 60);
  Check(result);
  EXPECT_EQ(result.exit_code, 0) << result.out << result.err;
  EXPECT_LT(result.seconds, 30.0);
  for (int step = 1; step <= 10; ++step) {
    EXPECT_NE(result.out.find("[" + std::to_string(step) + "/10] "), std::string::npos) << step;
  }
  for (const char* text : {"signed in as demo@quire.example", "20971520 bytes in", "identical",
                           "HTTP 412", "deleted", "stopped", "demo finished in"}) {
    EXPECT_NE(result.out.find(text), std::string::npos) << text << "\n" << result.out;
  }
  EXPECT_EQ(result.out.find("FAILED"), std::string::npos) << result.out;
}

TEST_F(CliEndToEndTest, ADemoWhoseEmulatorCannotStartFailsWithItsStep) {
  const ProcessResult result =
      runner_->Run({"demo", "--server-binary", Write("fake-server", "#!/bin/sh\nexit 3\n")}, 60);
  // The file is not executable: refused before any step.
  Check(result);
  EXPECT_EQ(result.exit_code, 1) << result.err;
  QFile::setPermissions(Path("fake-server"), QFileDevice::ReadOwner | QFileDevice::ExeOwner);
  const ProcessResult started =
      runner_->Run({"demo", "--server-binary", Path("fake-server").toStdString()}, 60);
  Check(started);
  EXPECT_EQ(started.exit_code, 1) << started.err;
  EXPECT_NE(started.err.find("demo step 1 (start quire-server) failed"), std::string::npos)
      << started.err;
}

}  // namespace
