// quire get end to end against the emulator: streaming into FILE.part and renaming it, answers cut
// off in the middle of the body, a run killed with SIGKILL and continued, and the local failures
// that must end with one line and leave no stray part file.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/process_runner.h"
#include "tests/tools/quire/cli_end_to_end_fixture.h"

namespace {

using namespace quire_test;  // NOLINT(build/namespaces): the test support

using quire_test::cli::kToken;
using quire_test::cli::LastLine;

QByteArray Sha256(const QByteArray& bytes) {
  return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
}

// The emulator and quire of the end-to-end fixture, with a folder "out" to download into.
class CliDownloadTest : public quire_test::cli::CliEndToEndTest {
 protected:
  void SetUp() override {
    CliEndToEndTest::SetUp();
    QDir().mkpath(Path("out"));
  }

  // The global options that reach the emulator, then `args`.
  std::vector<std::string> Args(const std::vector<std::string>& args) const {
    std::vector<std::string> all = Global();
    all.insert(all.end(), args.begin(), args.end());
    return all;
  }

  // Uploads `content` as a document named `title`, restarts the emulator with slow, small answers
  // and starts "quire get `title` -o `target`"; once `target`.part holds at least `part_bytes` (or
  // after 20 seconds) sends the run `signal_number` and returns how it ended.
  ProcessResult InterruptSlowGet(const char* title, const QByteArray& content,
                                 const QString& target, qint64 part_bytes, int signal_number) {
    Put(title, content);
    StartServer({QStringLiteral("--fault-close-response-after"), QStringLiteral("40000"),
                 QStringLiteral("--fault-delay-ms"), QStringLiteral("40")});
    ProcessRunner::Child child = runner_->Start(Args({"get", title, "-o", target.toStdString()}));
    const QString part = target + QStringLiteral(".part");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (QFileInfo(part).size() < part_bytes && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ::kill(child.pid, signal_number);
    return runner_->Wait(&child, 20);
  }

  // Uploads `bytes` as a document named `title`.
  void Put(const char* title, const QByteArray& bytes) {
    const QString file = Path("source.bin");
    QFile out(file);
    ASSERT_TRUE(out.open(QIODevice::WriteOnly));
    ASSERT_EQ(out.write(bytes), bytes.size());
    out.close();
    const ProcessResult result = Quire({"upload", file.toStdString(), "--title", title});
    ASSERT_EQ(result.exit_code, 0) << result.err;
  }

  static QByteArray Read(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return QByteArray();
    return file.readAll();
  }
};

TEST_F(CliDownloadTest, GetReplacesAnExistingFileOnlyWhenComplete) {
  const QByteArray content = PatternBytes(3 * 1024 * 1024 + 11, 1);
  Put("Doc", content);
  const QString target = Path("out/doc.bin");
  {
    QFile old(target);
    ASSERT_TRUE(old.open(QIODevice::WriteOnly));
    old.write("old content");
  }
  const ProcessResult result = Quire({"get", "Doc", "-o", target.toStdString()});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out.rfind("saved \"Doc\" (3145739 bytes) to ", 0), 0u) << result.out;
  EXPECT_EQ(Read(target), content);
  EXPECT_FALSE(QFile::exists(target + QStringLiteral(".part")));
}

TEST_F(CliDownloadTest, StandardOutputStreamsTheBytes) {
  const QByteArray content = PatternBytes(700 * 1024, 2);
  Put("Streamed", content);
  const ProcessResult result = Quire({"get", "Streamed"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(Sha256(QByteArray::fromStdString(result.out)), Sha256(content));
}

TEST_F(CliDownloadTest, ProgressBarShowsRateAndTimeLeftOnATerminal) {
  Put("Bar", PatternBytes(2 * 1024 * 1024, 3));
  const ProcessResult result =
      Quire({"get", "Bar", "-o", Path("out/bar.bin").toStdString()}, /*terminal=*/true);
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.err.find("2.0 MiB / 2.0 MiB"), std::string::npos) << result.err;
}

// The emulator cuts every answer after N bytes (head included): each request brings a little of
// the body, and the download resumes from what it wrote until the content is whole.
TEST_F(CliDownloadTest, AnswersCutMidBodyAtSeveralOffsetsCompleteWithIdenticalBytes) {
  const QByteArray content = PatternBytes(400 * 1024 + 3, 4);
  Put("Cut", content);
  for (int cut : {6000, 65536, 150001}) {
    SCOPED_TRACE(cut);
    StartServer({QStringLiteral("--fault-close-response-after"), QString::number(cut)});
    const QString target = Path("out/cut.bin");
    const ProcessResult result = Quire({"get", "Cut", "-o", target.toStdString()});
    ASSERT_EQ(result.exit_code, 0) << result.err;
    EXPECT_NE(result.out.find(" requests"), std::string::npos) << result.out;
    EXPECT_EQ(Sha256(Read(target)), Sha256(content));
    EXPECT_FALSE(QFile::exists(target + QStringLiteral(".part")));
  }
}

TEST_F(CliDownloadTest, KilledRunContinuesWithOnlyTheMissingBytes) {
  const QByteArray content = PatternBytes(1024 * 1024, 5);
  const QString target = Path("out/killed.bin");
  const QString part = target + QStringLiteral(".part");
  InterruptSlowGet("Killed", content, target, 100000, SIGKILL);
  const qint64 kept = QFileInfo(part).size();
  ASSERT_GT(kept, 0);
  ASSERT_LT(kept, content.size());
  EXPECT_FALSE(QFile::exists(target));

  StartServer();
  const ProcessResult result = Quire({"get", "Killed", "-o", target.toStdString(), "--continue"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.out.find(", " + std::to_string(kept) + " bytes reused"), std::string::npos)
      << result.out;
  EXPECT_EQ(Sha256(Read(target)), Sha256(content));
  EXPECT_FALSE(QFile::exists(part));
}

TEST_F(CliDownloadTest, CtrlCStopsWithExitCode130AndSaysHowToContinue) {
  const QByteArray content = PatternBytes(1024 * 1024, 10);
  const QString target = Path("out/interrupted.bin");
  const QString part = target + QStringLiteral(".part");
  ProcessResult result = InterruptSlowGet("Interrupted", content, target, 50000, SIGINT);
  EXPECT_EQ(result.exit_code, 130) << result.err;
  EXPECT_NE(LastLine(result.err).find("--continue"), std::string::npos) << result.err;
  EXPECT_GT(QFileInfo(part).size(), 0);
  EXPECT_FALSE(QFile::exists(target));

  StartServer();
  result = Quire({"get", "Interrupted", "-o", target.toStdString(), "--continue"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.out.find(" bytes reused"), std::string::npos) << result.out;
  EXPECT_EQ(Sha256(Read(target)), Sha256(content));
}

TEST_F(CliDownloadTest, ContinueOfAPartOfAChangedDocumentStartsOver) {
  Put("Changing", PatternBytes(300000, 6));
  const QString target = Path("out/changing.bin");
  const QString part = target + QStringLiteral(".part");
  {
    QFile stale(part);
    ASSERT_TRUE(stale.open(QIODevice::WriteOnly));
    stale.write(PatternBytes(100000, 99));
  }
  // The part says it belongs to a version the service no longer has.
  const char kStale[] = "\"stale\"";
  ASSERT_EQ(::setxattr(QFile::encodeName(part).constData(), "user.quire.etag", kStale,
                       sizeof kStale - 1, 0),
            0);
  const ProcessResult result = Quire({"get", "Changing", "-o", target.toStdString(), "--continue"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out.find("reused"), std::string::npos) << result.out;
  EXPECT_EQ(Read(target), PatternBytes(300000, 6));
}

// A disk that fills up (here: a file-size limit, which fails writes the same way): one line, exit
// 1, the part kept for --continue, which then finishes it.
TEST_F(CliDownloadTest, AFullDiskKeepsTheResumablePartAndContinueFinishesIt) {
  const QByteArray content = PatternBytes(3 * 1024 * 1024, 8);
  Put("Big", content);
  const QString target = Path("out/big.bin");
  const QString part = target + QStringLiteral(".part");
  ProcessRunner shell("/bin/bash", Path("scratch").toStdString());
  shell.SetEnv("QUIRE_TOKEN", kToken);
  shell.SetEnv("HOME", Path("home").toStdString());
  std::string command = "trap '' XFSZ; ulimit -f 1024; exec '" + std::string(QUIRE_BINARY) + "'";
  for (const std::string& arg : Args({"get", "Big", "-o", target.toStdString()})) {
    command += " '" + arg + "'";
  }
  ProcessResult result = shell.Run({"-c", command}, 60);
  EXPECT_EQ(result.exit_code, 1) << result.err;
  const std::string last = LastLine(result.err);
  EXPECT_EQ(last.rfind("quire: cannot write " + part.toStdString(), 0), 0u) << result.err;
  EXPECT_NE(last.find("--continue"), std::string::npos) << result.err;
  EXPECT_FALSE(QFile::exists(target));
  const qint64 kept = QFileInfo(part).size();
  EXPECT_GT(kept, 0);
  EXPECT_LE(kept, 1024 * 1024);

  result = Quire({"get", "Big", "-o", target.toStdString(), "--continue"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.out.find(", " + std::to_string(kept) + " bytes reused"), std::string::npos)
      << result.out;
  EXPECT_EQ(Read(target), content);
  EXPECT_FALSE(QFile::exists(part));
}

TEST_F(CliDownloadTest, AFolderAsOutputIsAUsageError) {
  Put("Any", PatternBytes(100, 7));
  const ProcessResult result = Quire({"get", "Any", "-o", Path("out").toStdString()});
  EXPECT_EQ(result.exit_code, 2) << result.err;
  EXPECT_NE(LastLine(result.err).find("names a folder"), std::string::npos) << result.err;
  EXPECT_TRUE(QDir(Path("out")).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).isEmpty());
}

TEST_F(CliDownloadTest, AnUnwritableOrMissingFolderIsALocalFailureWithoutAPartFile) {
  Put("Any", PatternBytes(100, 7));
  ProcessResult result = Quire({"get", "Any", "-o", Path("missing/doc.bin").toStdString()});
  EXPECT_EQ(result.exit_code, 1) << result.err;
  EXPECT_NE(LastLine(result.err).find("does not exist"), std::string::npos) << result.err;
  // Even root may not create files under /sys.
  result = Quire({"get", "Any", "-o", "/sys/quire-doc.bin"});
  EXPECT_EQ(result.exit_code, 1) << result.err;
  EXPECT_NE(LastLine(result.err).find("cannot write /sys/quire-doc.bin.part"), std::string::npos)
      << result.err;
  EXPECT_FALSE(QFile::exists(QStringLiteral("/sys/quire-doc.bin.part")));
}

TEST_F(CliDownloadTest, AnUnknownDocumentLeavesNoPartFile) {
  const QString target = Path("out/none.bin");
  const ProcessResult result = Quire({"get", "NoSuchDocument", "-o", target.toStdString()});
  EXPECT_EQ(result.exit_code, 5) << result.err;
  EXPECT_FALSE(QFile::exists(target + QStringLiteral(".part")));
  EXPECT_FALSE(QFile::exists(target));
}

}  // namespace
