// The quire program's profiles, verbose mode and bash completion end to end: a real emulator on
// 127.0.0.1 over HTTPS, the program run as a person runs it, and the completion script sourced in
// a real bash that asks the program for the document titles.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/process_runner.h"
#include "tests/tools/quire/cli_end_to_end_fixture.h"
#include "tools/quire/server_process.h"

namespace {

using quire_cli::ServerProcess;
using namespace quire_test;  // NOLINT(build/namespaces): the test support

constexpr char kToken[] = "e2e-settings-token-8a7b6c5d4e3f";

class CliSettingsEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    QDir().mkpath(QPath("scratch"));
    QDir().mkpath(QPath("config/quire"));
    server_.reset(new ServerProcess(
        quire_test::cli::EmulatorSettings(dir_.path(), "settings@quire.example", kToken)));
    server_->Start();
    ASSERT_FALSE(server_->url().isEmpty());
    runner_.reset(new ProcessRunner(QUIRE_BINARY, Path("scratch")));
    runner_->SetEnv("HOME", Path("home"));
    runner_->SetEnv("XDG_CONFIG_HOME", Path("config"));
    runner_->SetEnv("XDG_STATE_HOME", Path("state"));
    runner_->UnsetEnv("QUIRE_TOKEN");
    runner_->UnsetEnv("QUIRE_PROFILE");
  }

  void TearDown() override {
    if (server_) server_->Stop();
  }

  QString QPath(const char* name) const { return dir_.filePath(QString::fromLatin1(name)); }
  std::string Path(const char* name) const {
    return dir_.filePath(QString::fromLatin1(name)).toStdString();
  }

  void Write(const std::string& path, const std::string& text, int mode) {
    QFile file(QString::fromStdString(path));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(text.data(), static_cast<qint64>(text.size()));
    file.close();
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
  }

  ProcessResult Quire(const std::vector<std::string>& args) {
    ProcessResult result = runner_->Run(args, 60);
    EXPECT_FALSE(result.timed_out);
    EXPECT_EQ(result.out.find(kToken), std::string::npos) << result.out;
    EXPECT_EQ(result.err.find(kToken), std::string::npos) << result.err;
    return result;
  }

  QTemporaryDir dir_;
  std::unique_ptr<ServerProcess> server_;
  std::unique_ptr<ProcessRunner> runner_;
};

TEST_F(CliSettingsEndToEndTest, AProfileReachesTheEmulatorAndVerboseShowsTheRequests) {
  // Everything from the profile: server, CA file, the token in the file itself (owner only).
  Write(Path("config/quire/config"),
        "[local]\nserver = " + server_->url().toStdString() +
            "\ncacert = " + server_->certificate().toStdString() + "\ntoken = " + kToken + "\n",
        0600);
  Write(Path("scratch/a.txt"), "alpha", 0644);
  ProcessResult result =
      Quire({"--profile", "local", "upload", "--title", "Quarterly report", Path("scratch/a.txt")});
  ASSERT_EQ(result.exit_code, 0) << result.err;

  runner_->SetEnv("QUIRE_PROFILE", "local");
  result = Quire({"-v", "ls", "--titles"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out, "Quarterly report\n");
  // One line for the listing, over real HTTPS, the status and sizes as they were.
  EXPECT_EQ(result.err.rfind("GET https://docs.quire.example/feeds/default/private/full -> 200, "
                             "sent 0 bytes, received ",
                             0),
            0u)
      << result.err;
  EXPECT_NE(result.err.find(" s, attempt 1\n"), std::string::npos) << result.err;

  result = Quire({"-vv", "ls", "--titles"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.err.find("> Authorization: Bearer <masked>\n"), std::string::npos) << result.err;

  // Readable by others: the token in it is refused, before anything is sent.
  ASSERT_EQ(::chmod(Path("config/quire/config").c_str(), 0644), 0);
  result = Quire({"ls"});
  EXPECT_EQ(result.exit_code, 2);
  EXPECT_NE(result.err.find("chmod 600"), std::string::npos) << result.err;
}

TEST_F(CliSettingsEndToEndTest, CompletionOffersTheTitlesOfTheDocuments) {
  runner_->SetEnv("QUIRE_TOKEN", kToken);
  const std::vector<std::string> global = {"--server", server_->url().toStdString(), "--cacert",
                                           server_->certificate().toStdString()};
  for (const char* title : {"Quarterly report", "Quarterly plan", "notes"}) {
    Write(Path("scratch/doc.txt"), title, 0644);
    std::vector<std::string> args = global;
    for (const char* arg : {"upload", "--title", title}) args.push_back(arg);
    args.push_back(Path("scratch/doc.txt"));
    const ProcessResult result = Quire(args);
    ASSERT_EQ(result.exit_code, 0) << result.err;
  }
  ProcessRunner bash("/bin/bash", Path("scratch"));
  bash.SetEnv("QUIRE_TOKEN", kToken);
  bash.SetEnv("QUIRE_COMPLETION_SERVER", server_->url().toStdString());
  bash.SetEnv("QUIRE_COMPLETION_CACERT", server_->certificate().toStdString());
  const ProcessResult result =
      bash.Run({QUIRE_COMPLETION_CHECK, QUIRE_COMPLETION_SCRIPT, QUIRE_BINARY}, 120);
  EXPECT_EQ(result.exit_code, 0) << result.out << result.err;
  EXPECT_NE(result.out.find("and document titles complete as expected"), std::string::npos)
      << result.out << result.err;
  EXPECT_EQ(result.out.find(kToken), std::string::npos);
  EXPECT_EQ(result.err.find(kToken), std::string::npos);
}

}  // namespace
