// The quire program against an emulator that fails at random: every command retries what failed
// for a passing reason, an upload goes on by itself, Ctrl-C stops an upload so that --resume
// finishes it, and --retries 0 turns retrying off.
#include <gtest/gtest.h>
#include <signal.h>

#include <QFile>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/tools/quire/cli_end_to_end_fixture.h"

namespace {

using namespace quire_test;
using namespace quire_test::cli;

class CliRetryTest : public CliEndToEndTest {};

QStringList RandomFaults(const char* fail_percent, const char* cut_percent, const char* seed) {
  return {QStringLiteral("--fault-fail-percent"), QString::fromLatin1(fail_percent),
          QStringLiteral("--fault-cut-percent"),  QString::fromLatin1(cut_percent),
          QStringLiteral("--fault-seed"),         QString::fromLatin1(seed),
          QStringLiteral("--fault-retry-after"),  QStringLiteral("0")};
}

TEST_F(CliRetryTest, AFiftyMegabyteUploadUnderOneFailureInFourFinishesUnattended) {
  const QByteArray bytes = PatternBytes(50 * 1000 * 1000, 41);
  const std::string file = Write("fifty.bin", bytes);
  StartServer(RandomFaults("25", "0", "13"));
  const ProcessResult result =
      Quire({"upload", file, "--title", "Fifty", "--chunk-size", "4MiB"}, false, 120);
  ASSERT_EQ(result.exit_code, 0) << result.err;
  // The last line says that requests were retried, and how often.
  EXPECT_NE(result.out.find("uploaded \"Fifty\""), std::string::npos) << result.out;
  EXPECT_NE(result.out.find(" retr"), std::string::npos) << result.out;
  EXPECT_FALSE(QFile::exists(QString::fromStdString(StateFile())));
  StartServer();
  EXPECT_EQ(Get("Fifty"), bytes);
  EXPECT_EQ(List().size(), 1);
}

TEST_F(CliRetryTest, AnUploadWhoseConnectionsAreCutGoesOnFromWhatTheServiceHolds) {
  const QByteArray bytes = PatternBytes(12 * 1024 * 1024 + 5, 42);
  const std::string file = Write("cut.bin", bytes);
  StartServer(RandomFaults("0", "30", "5"));
  const ProcessResult result =
      Quire({"upload", file, "--title", "Cut", "--chunk-size", "1MiB"}, false, 120);
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.out.find(" retr"), std::string::npos) << result.out;
  StartServer();
  EXPECT_EQ(Get("Cut"), bytes);
}

TEST_F(CliRetryTest, EveryCommandRetriesAndSaysSo) {
  // Seeded: the first requests of this run meet 503s, and every command still succeeds.
  const QByteArray bytes = PatternBytes(70000, 43);
  ProcessResult result = Quire({"put", Write("small.bin", bytes)});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  StartServer(RandomFaults("50", "0", "21"));
  int retried = 0;
  for (int i = 0; i < 4; ++i) {
    result = Quire({"ls"});
    ASSERT_EQ(result.exit_code, 0) << result.err;
    EXPECT_NE(result.out.find("Untitled"), std::string::npos) << result.out;
    if (result.err.find("all recovered") != std::string::npos) ++retried;
    // Retries never change what goes to standard output.
    EXPECT_EQ(result.out.find("retr"), std::string::npos) << result.out;
  }
  result = Quire({"get", "Untitled"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(QByteArray::fromStdString(result.out), bytes);
  if (result.err.find("all recovered") != std::string::npos) ++retried;
  // At 50%, five commands of two requests each without a single retry would be a broken seed.
  EXPECT_GT(retried, 0);
}

TEST_F(CliRetryTest, RetriesZeroGivesUpAtTheFirstFailureAndBoundedRetriesSayHowMany) {
  StartServer({QStringLiteral("--fault-fail-every"), QStringLiteral("1"),
               QStringLiteral("--fault-retry-after"), QStringLiteral("0")});
  ProcessResult result = Quire({"--retries", "0", "ls"});
  EXPECT_EQ(result.exit_code, 7) << result.err;
  EXPECT_EQ(result.err.find("retries made"), std::string::npos) << result.err;
  result = Quire({"--retries", "2", "ls"});
  EXPECT_EQ(result.exit_code, 7) << result.err;
  EXPECT_NE(result.err.find("HTTP 503"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("(2 retries made)"), std::string::npos) << result.err;
  result = Quire({"--retries", "-1", "ls"});
  EXPECT_EQ(result.exit_code, 2) << result.err;
  EXPECT_NE(result.err.find("--retries"), std::string::npos) << result.err;
}

TEST_F(CliRetryTest, CtrlCInTheMiddleOfAnUploadCancelsItAndResumeCompletesIt) {
  const QByteArray bytes = PatternBytes(6 * 1024 * 1024, 44);
  const std::string file = Write("stopped.bin", bytes);
  // Slow answers keep the upload going long enough to be interrupted in the middle.
  StartServer({QStringLiteral("--fault-delay-ms"), QStringLiteral("150")});
  std::vector<std::string> args = Global();
  for (const char* arg : {"upload", "--title", "Stopped", "--chunk-size", "256KiB"})
    args.push_back(arg);
  args.push_back(file);
  ProcessRunner::Child child = runner_->Start(args, /*stderr_on_terminal=*/true);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!QFile::exists(QString::fromStdString(StateFile())) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  const auto interrupted = std::chrono::steady_clock::now();
  ::kill(child.pid, SIGINT);
  ProcessResult result = runner_->Wait(&child, 20);
  const double stop_seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - interrupted).count();
  Check(result);
  EXPECT_EQ(result.exit_code, 130) << result.err;
  EXPECT_NE(result.err.find("quire upload --resume"), std::string::npos) << result.err;
  // The transfer is stopped at once, not after the request in flight has had its answer.
  EXPECT_LT(stop_seconds, 2.0);
  // The progress line had shown bytes moving before the interruption.
  EXPECT_NE(result.err.find("KiB/s"), std::string::npos) << result.err;
  ASSERT_TRUE(QFile::exists(QString::fromStdString(StateFile())));

  StartServer();
  result = Quire({"upload", "--resume"});
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_EQ(result.out.find("continued at byte 0,"), std::string::npos) << result.out;
  EXPECT_FALSE(QFile::exists(QString::fromStdString(StateFile())));
  EXPECT_EQ(Get("Stopped"), bytes);
}

}  // namespace
