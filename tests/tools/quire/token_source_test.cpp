#include "tools/quire/token_source.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

#include "tools/quire/cli_failure.h"

namespace {

using quire_cli::CliFailure;
using quire_cli::ExitCode;
using quire_cli::TokenSource;

constexpr char kSecret[] = "s3cr3t-Token_value.42";

QString WriteFile(const QTemporaryDir& dir, const QByteArray& contents) {
  const QString path = dir.filePath(QStringLiteral("token"));
  QFile file(path);
  EXPECT_TRUE(file.open(QIODevice::WriteOnly));
  file.write(contents);
  return path;
}

// Runs `read` and returns the failure it throws; fails the test when it does not throw.
CliFailure Failure(const std::function<void()>& read) {
  try {
    read();
  } catch (const CliFailure& failure) {
    return failure;
  }
  ADD_FAILURE() << "no failure thrown";
  return CliFailure(ExitCode::kOk, "");
}

TEST(TokenSourceTest, TheEnvironmentValueIsTheToken) {
  EXPECT_EQ(TokenSource::Read(QString(), QString::fromLatin1(kSecret)), QLatin1String(kSecret));
}

TEST(TokenSourceTest, SurroundingBlanksAreRemoved) {
  EXPECT_EQ(TokenSource::Read(QString(), QStringLiteral("  abc\n")), QStringLiteral("abc"));
}

TEST(TokenSourceTest, TheFileWinsOverTheEnvironmentAndLosesItsLineBreak) {
  QTemporaryDir dir;
  const QString path = WriteFile(dir, QByteArray(kSecret) + "\n");
  EXPECT_EQ(TokenSource::Read(path, QStringLiteral("from-environment")), QLatin1String(kSecret));
}

TEST(TokenSourceTest, NoTokenAnywhereIsAUsageFailureThatSaysWhereToPutIt) {
  const CliFailure failure = Failure([] { TokenSource::Read(QString(), QString()); });
  EXPECT_EQ(failure.code(), ExitCode::kUsage);
  EXPECT_NE(failure.message().find("QUIRE_TOKEN"), std::string::npos);
  EXPECT_NE(failure.message().find("--token-file"), std::string::npos);
}

TEST(TokenSourceTest, AMissingFileIsAUsageFailureThatNamesIt) {
  QTemporaryDir dir;
  const QString path = dir.filePath(QStringLiteral("absent"));
  const CliFailure failure = Failure([&] { TokenSource::Read(path, QStringLiteral("env")); });
  EXPECT_EQ(failure.code(), ExitCode::kUsage);
  EXPECT_NE(failure.message().find(path.toStdString()), std::string::npos);
}

TEST(TokenSourceTest, AnEmptyFileIsAUsageFailure) {
  QTemporaryDir dir;
  const QString path = WriteFile(dir, "\n  \n");
  const CliFailure failure = Failure([&] { TokenSource::Read(path, QStringLiteral("env")); });
  EXPECT_EQ(failure.code(), ExitCode::kUsage);
  EXPECT_NE(failure.message().find("empty"), std::string::npos);
}

TEST(TokenSourceTest, ATokenThatCouldBreakItsHeaderLineIsRefusedWithoutShowingIt) {
  for (const QString& bad : {QStringLiteral("abc\r\nX-Evil: 1"), QStringLiteral("two words"),
                             QStringLiteral("tab\there"), QString::fromUtf8("caf\xc3\xa9")}) {
    const CliFailure failure = Failure([&] { TokenSource::Read(QString(), bad); });
    EXPECT_EQ(failure.code(), ExitCode::kUsage) << bad.toStdString();
    EXPECT_EQ(failure.message().find("abc"), std::string::npos);
    EXPECT_EQ(failure.message().find("words"), std::string::npos);
  }
}

TEST(TokenSourceTest, FailureMessagesNeverHoldTheToken) {
  QTemporaryDir dir;
  const QString path = WriteFile(dir, QByteArray(kSecret) + " with a blank");
  const CliFailure failure = Failure([&] { TokenSource::Read(path, QString()); });
  EXPECT_EQ(failure.message().find(kSecret), std::string::npos) << failure.message();
  EXPECT_EQ(failure.message().find('\n'), std::string::npos);
}

}  // namespace
