// The fixture of the quire program's end-to-end tests: a real emulator (quire-server) on 127.0.0.1
// over HTTPS with a data folder of its own, and the quire program run as a person runs it.
#pragma once

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QUrl>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "quire/services/endpoints.h"
#include "tests/support/data_pattern.h"
#include "tests/support/http_client.h"
#include "tests/support/process_runner.h"
#include "tools/quire/server_process.h"

namespace quire_test::cli {

using quire_cli::ServerProcess;

inline constexpr char kAccount[] = "e2e@quire.example";
inline constexpr char kToken[] = "e2e-token-0f1e2d3c4b5a69788796a5b4c3d2e1f0";

// The settings of an emulator for the quire program's tests: the emulator this build made, its data
// folder and log in `folder`, serving `account` with the bearer token `token`.
inline ServerProcess::Settings EmulatorSettings(const QString& folder, const char* account,
                                                const char* token) {
  ServerProcess::Settings settings;
  settings.program = QStringLiteral(QUIRE_SERVER_BINARY);
  settings.data_dir = QDir(folder).filePath(QStringLiteral("data"));
  settings.log_file = QDir(folder).filePath(QStringLiteral("server.log"));
  settings.account = QString::fromLatin1(account);
  settings.token = QString::fromLatin1(token);
  return settings;
}

inline QJsonArray ParseList(const ProcessResult& result) {
  QJsonParseError error{};
  const QJsonDocument parsed =
      QJsonDocument::fromJson(QByteArray::fromStdString(result.out), &error);
  EXPECT_EQ(error.error, QJsonParseError::NoError) << result.out;
  EXPECT_TRUE(parsed.isArray()) << result.out;
  return parsed.array();
}

inline std::string LastLine(const std::string& text) {
  std::string trimmed = text;
  while (!trimmed.empty() && (trimmed.back() == '\n' || trimmed.back() == '\r')) trimmed.pop_back();
  const std::size_t at = trimmed.rfind('\n');
  return at == std::string::npos ? trimmed : trimmed.substr(at + 1);
}

// The byte that "quire upload --resume" says it continued at ("...: continued at byte N, ..."), or
// -1 when its output has no such line.
inline long long ContinuedAt(const std::string& out) {
  const std::string key = ": continued at byte ";
  const std::size_t at = out.find(key);
  if (at == std::string::npos) return -1;
  std::size_t end = at + key.size();
  while (end < out.size() && out[end] >= '0' && out[end] <= '9') ++end;
  if (end == at + key.size() || end >= out.size() || out[end] != ',') return -1;
  return std::stoll(out.substr(at + key.size(), end - at - key.size()));
}

// Checks what "quire upload --resume" printed after the upload of `bytes` titled `title` had
// stopped part way: that it ended well, having continued after the start and before the end, and
// held every byte. Prints its output after `label`. A fatal failure ends the check at once.
inline void CheckResumed(const ProcessResult& result, const std::string& title,
                         const QByteArray& bytes, const char* label) {
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.out.find("uploaded \"" + title + "\""), std::string::npos) << result.out;
  const long long continued = ContinuedAt(result.out);
  EXPECT_GT(continued, 0) << result.out;
  EXPECT_LT(continued, bytes.size()) << result.out;
  EXPECT_NE(result.out.find(", " + std::to_string(bytes.size()) + " bytes held after "),
            std::string::npos)
      << result.out;
  std::cout << label << ": " << result.out;
}

class CliEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(dir_.isValid());
    QDir().mkpath(Path("scratch"));
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
  std::string StateFile() const { return Path("state").toStdString() + "/quire/upload.json"; }

  // (Re)starts the emulator on the same data folder, with `extra` arguments (faults).
  void StartServer(const QStringList& extra = {}) {
    if (server_) server_->Stop();
    ServerProcess::Settings settings = EmulatorSettings(dir_.path(), kAccount, kToken);
    settings.extra_arguments = extra;
    server_.reset(new ServerProcess(settings));
    server_->Start();
  }

  std::vector<std::string> Global() const {
    return {"--server", server_->url().toStdString(), "--cacert",
            server_->certificate().toStdString()};
  }

  // Runs quire with the global options that reach the emulator, then `args`.
  ProcessResult Quire(const std::vector<std::string>& args, bool terminal = false,
                      double timeout = 60) {
    std::vector<std::string> all = Global();
    all.insert(all.end(), args.begin(), args.end());
    ProcessResult result = runner_->Run(all, timeout, terminal);
    Check(result);
    return result;
  }

  // What holds for every run: a failure ends with one line "quire: ...; ...", nothing shows the
  // token.
  static void Check(const ProcessResult& result) {
    EXPECT_FALSE(result.timed_out);
    if (result.exit_code != 0) {
      const std::string last = LastLine(result.err);
      EXPECT_EQ(last.rfind("quire: ", 0), 0u) << result.err;
      EXPECT_NE(last.find("; "), std::string::npos) << result.err;
    }
    EXPECT_EQ(result.out.find(kToken), std::string::npos);
    EXPECT_EQ(result.err.find(kToken), std::string::npos);
  }

  std::string Write(const char* name, const QByteArray& bytes) {
    const QString path = Path(name);
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly));
    EXPECT_EQ(file.write(bytes), bytes.size());
    return path.toStdString();
  }

  // The documents feed's bytes as the emulator sends them to the library, fetched without quire.
  std::string FetchFeed() {
    quire_test::HttpClient client(QUrl(server_->url()).port(),
                                  server_->certificate().toStdString());
    const quire_test::HttpResult result =
        client.Send("GET", kestrel::quire::DocsFeedUrl,
                    {std::string("Quire-Version: ") + kestrel::quire::kProtocolVersion,
                     std::string("Authorization: Bearer ") + kToken});
    EXPECT_TRUE(result.ok());
    EXPECT_EQ(result.status, 200) << result.body;
    return result.body;
  }

  QJsonArray List() {
    const ProcessResult result = Quire({"ls", "--json"});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    return ParseList(result);
  }

  QByteArray Get(const std::string& doc) {
    const std::string target = Path("got.bin").toStdString();
    QFile::remove(QString::fromStdString(target));
    const ProcessResult result = Quire({"get", doc, "-o", target});
    EXPECT_EQ(result.exit_code, 0) << result.err;
    QFile file(QString::fromStdString(target));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    return file.readAll();
  }

  QTemporaryDir dir_;
  std::unique_ptr<ProcessRunner> runner_;
  std::unique_ptr<ServerProcess> server_;
};

}  // namespace quire_test::cli
