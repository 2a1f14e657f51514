#include "tools/quire/upload_state.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>
#include <cstdlib>

#include "tools/quire/cli_failure.h"

namespace quire_cli {
namespace {

constexpr int kFormatVersion = 1;

[[noreturn]] void Damaged(const QString& path, const std::string& why) {
  throw CliFailure(ExitCode::kLocal, "the upload state file " + path.toStdString() + " " + why +
                                         "; remove it and start the upload again");
}

}  // namespace

QString UploadState::DefaultPath() {
  const char* state_home = std::getenv("XDG_STATE_HOME");
  QString base;
  if (state_home != nullptr && state_home[0] == '/') {
    base = QString::fromLocal8Bit(state_home);
  } else {
    base = QDir::homePath() + QStringLiteral("/.local/state");
  }
  return base + QStringLiteral("/quire/upload.json");
}

bool UploadState::Load(const QString& path) {
  QFile file(path);
  if (!file.exists()) return false;
  if (!file.open(QIODevice::ReadOnly)) {
    Damaged(path, "cannot be read (" + file.errorString().toStdString() + ")");
  }
  QJsonParseError error{};
  const QJsonDocument document = QJsonDocument::fromJson(file.read(1 << 20), &error);
  if (error.error != QJsonParseError::NoError || !document.isObject()) {
    Damaged(path, "is not valid JSON");
  }
  const QJsonObject object = document.object();
  if (object.value(QStringLiteral("version")).toInt() != kFormatVersion) {
    Damaged(path, "has an unknown format");
  }
  session_url = object.value(QStringLiteral("session_url")).toString();
  file_path = object.value(QStringLiteral("file_path")).toString();
  // Numbers travel as decimal text: a JSON number is a double, which is exact only to 2^53.
  bool size_ok = false;
  bool modified_ok = false;
  bool chunk_ok = false;
  file_size = object.value(QStringLiteral("file_size")).toString().toLongLong(&size_ok);
  file_modified_ms =
      object.value(QStringLiteral("file_modified_ms")).toString().toLongLong(&modified_ok);
  chunk_size = object.value(QStringLiteral("chunk_size")).toString().toUInt(&chunk_ok);
  content_type = object.value(QStringLiteral("content_type")).toString();
  title = object.value(QStringLiteral("title")).toString();
  if (session_url.isEmpty() || file_path.isEmpty() || !size_ok || !modified_ok || !chunk_ok) {
    Damaged(path, "lacks a field");
  }
  return true;
}

void UploadState::Save(const QString& path) const {
  const QFileInfo info(path);
  if (!QDir().mkpath(info.absolutePath())) {
    throw CliFailure(ExitCode::kLocal, "cannot create the folder " +
                                           info.absolutePath().toStdString() +
                                           " for the upload state; check its permissions");
  }
  QJsonObject object;
  object.insert(QStringLiteral("version"), kFormatVersion);
  object.insert(QStringLiteral("session_url"), session_url);
  object.insert(QStringLiteral("file_path"), file_path);
  object.insert(QStringLiteral("file_size"), QString::number(file_size));
  object.insert(QStringLiteral("file_modified_ms"), QString::number(file_modified_ms));
  object.insert(QStringLiteral("content_type"), content_type);
  object.insert(QStringLiteral("title"), title);
  object.insert(QStringLiteral("chunk_size"), QString::number(chunk_size));

  QSaveFile file(path);
  if (!file.open(QIODevice::WriteOnly)) {
    throw CliFailure(ExitCode::kLocal, "cannot write the upload state " + path.toStdString() +
                                           " (" + file.errorString().toStdString() +
                                           "); check the folder's permissions");
  }
  file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
  file.write(QJsonDocument(object).toJson(QJsonDocument::Indented));
  if (!file.commit()) {
    throw CliFailure(ExitCode::kLocal, "cannot write the upload state " + path.toStdString() +
                                           " (" + file.errorString().toStdString() +
                                           "); check the free space and permissions");
  }
}

void UploadState::Remove(const QString& path) { QFile::remove(path); }

}  // namespace quire_cli
