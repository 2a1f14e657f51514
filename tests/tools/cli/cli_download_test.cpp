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

#include "tests/tools/cli/process_runner.h"
#include "tools/quire/server_process.h"

namespace {

using quire_cli::ServerProcess;
using quire_cli_test::ProcessResult;
using quire_cli_test::ProcessRunner;

constexpr char kAccount[] = "get@quire.example";
constexpr char kToken[] = "get-token-5a69788796a5b4c3d2e1f00f1e2d3c4b";

QByteArray Pattern(std::int64_t size, std::uint64_t seed) {
  QByteArray bytes(static_cast<int>(size), Qt::Uninitialized);
  std::uint64_t state = seed | 1;
  for (std::int64_t i = 0; i < size; ++i) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    bytes[static_cast<int>(i)] = static_cast<char>(state);
  }
  return bytes;
}

QByteArray Sha256(const QByteArray& bytes) {
  return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex();
}

std::string LastLine(const std::string& text) {
  std::string trimmed = text;
  while (!trimmed.empty() && (trimmed.back() == '\n' || trimmed.back() == '\r')) trimmed.pop_back();
  const std::size_t at = trimmed.rfind('\n');
  return at == std::string::npos ? trimmed : trimmed.substr(at + 1);
}

class CliDownloadTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    QDir().mkpath(Path("scratch"));
    QDir().mkpath(Path("out"));
    runner_.reset(new ProcessRunner(QUIRE_BINARY, Path("scratch").toStdString()));
    runner_->SetEnv("QUIRE_TOKEN", kToken);
    runner_->SetEnv("HOME", Path("home").toStdString());
    runner_->SetEnv("XDG_STATE_HOME", Path("state").toStdString());
    StartServer();
  }
  void TearDown() override {
    if (server_) server_->Stop();
  }

  QString Path(const char* name) const { return dir_.filePath(QString::fromLatin1(name)); }

  void StartServer(const QStringList& extra = {}) {
    if (server_) server_->Stop();
    ServerProcess::Settings settings;
    settings.program = QStringLiteral(QUIRE_SERVER_BINARY);
    settings.data_dir = Path("data");
    settings.log_file = Path("server.log");
    settings.account = QString::fromLatin1(kAccount);
    settings.token = QString::fromLatin1(kToken);
    settings.extra_arguments = extra;
    server_.reset(new ServerProcess(settings));
    server_->Start();
  }

  std::vector<std::string> Args(const std::vector<std::string>& args) const {
    std::vector<std::string> all = {"--server", server_->url().toStdString(), "--cacert",
                                    server_->certificate().toStdString()};
    all.insert(all.end(), args.begin(), args.end());
    return all;
  }

  ProcessResult Quire(const std::vector<std::string>& args, bool terminal = false) {
    ProcessResult result = runner_->Run(Args(args), 60, terminal);
    EXPECT_FALSE(result.timed_out);
    if (result.exit_code != 0) {
      const std::string last = LastLine(result.err);
      EXPECT_EQ(last.rfind("quire: ", 0), 0u) << result.err;
      EXPECT_NE(last.find("; "), std::string::npos) << result.err;
    }
    return result;
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

  QTemporaryDir dir_;
  std::unique_ptr<ProcessRunner> runner_;
  std::unique_ptr<ServerProcess> server_;
};

TEST_F(CliDownloadTest, GetReplacesAnExistingFileOnlyWhenComplete) {
  const QByteArray content = Pattern(3 * 1024 * 1024 + 11, 1);
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
  const QByteArray content = Pattern(700 * 1024, 2);
  Put("Streamed", content);
  const ProcessResult result = Quire({"get", "Streamed"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(Sha256(QByteArray::fromStdString(result.out)), Sha256(content));
}

TEST_F(CliDownloadTest, ProgressBarShowsRateAndTimeLeftOnATerminal) {
  Put("Bar", Pattern(2 * 1024 * 1024, 3));
  const ProcessResult result =
      Quire({"get", "Bar", "-o", Path("out/bar.bin").toStdString()}, /*terminal=*/true);
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.err.find("2.0 MiB / 2.0 MiB"), std::string::npos) << result.err;
}

// The emulator cuts every answer after N bytes (head included): each request brings a little of
// the body, and the download resumes from what it wrote until the content is whole.
TEST_F(CliDownloadTest, AnswersCutMidBodyAtSeveralOffsetsCompleteWithIdenticalBytes) {
  const QByteArray content = Pattern(400 * 1024 + 3, 4);
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
  const QByteArray content = Pattern(1024 * 1024, 5);
  Put("Killed", content);
  // Slow, small answers, so that the run can be killed in the middle.
  StartServer({QStringLiteral("--fault-close-response-after"), QStringLiteral("40000"),
               QStringLiteral("--fault-delay-ms"), QStringLiteral("40")});
  const QString target = Path("out/killed.bin");
  const QString part = target + QStringLiteral(".part");
  ProcessRunner::Child child = runner_->Start(Args({"get", "Killed", "-o", target.toStdString()}));
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (QFileInfo(part).size() < 100000 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ::kill(child.pid, SIGKILL);
  runner_->Wait(&child, 20);
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

TEST_F(CliDownloadTest, ContinueOfAPartOfAChangedDocumentStartsOver) {
  Put("Changing", Pattern(300000, 6));
  const QString target = Path("out/changing.bin");
  const QString part = target + QStringLiteral(".part");
  {
    QFile stale(part);
    ASSERT_TRUE(stale.open(QIODevice::WriteOnly));
    stale.write(Pattern(100000, 99));
  }
  // The part says it belongs to a version the service no longer has.
  const char kStale[] = "\"stale\"";
  ASSERT_EQ(::setxattr(QFile::encodeName(part).constData(), "user.quire.etag", kStale,
                       sizeof kStale - 1, 0),
            0);
  const ProcessResult result = Quire({"get", "Changing", "-o", target.toStdString(), "--continue"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out.find("reused"), std::string::npos) << result.out;
  EXPECT_EQ(Read(target), Pattern(300000, 6));
}

TEST_F(CliDownloadTest, AFolderAsOutputIsAUsageError) {
  Put("Any", Pattern(100, 7));
  const ProcessResult result = Quire({"get", "Any", "-o", Path("out").toStdString()});
  EXPECT_EQ(result.exit_code, 2) << result.err;
  EXPECT_NE(LastLine(result.err).find("names a folder"), std::string::npos) << result.err;
  EXPECT_TRUE(QDir(Path("out")).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).isEmpty());
}

TEST_F(CliDownloadTest, AnUnwritableOrMissingFolderIsALocalFailureWithoutAPartFile) {
  Put("Any", Pattern(100, 7));
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
