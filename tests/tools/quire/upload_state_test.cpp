#include "tools/quire/upload_state.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QFile>
#include <QTemporaryDir>

#include "tools/quire/cli_failure.h"

namespace {

using quire_cli::CliFailure;
using quire_cli::ExitCode;
using quire_cli::UploadState;

UploadState Sample() {
  UploadState state;
  state.session_url = QStringLiteral("https://docs.quire.example/upload/session/ab12cd34ef56");
  state.file_path = QStringLiteral("/data/films/holiday.mkv");
  state.file_size = 4294967295LL;
  // Beyond 2^53: a JSON number could not carry it exactly.
  state.file_modified_ms = 9007199254740993LL;
  state.content_type = QStringLiteral("video/x-matroska");
  state.title = QString::fromUtf8("Holiday \xe2\x80\x94 day 1");
  state.chunk_size = 8u << 20;
  return state;
}

TEST(UploadStateTest, WhatIsSavedIsLoadedBackExactly) {
  QTemporaryDir dir;
  const QString path = dir.filePath(QStringLiteral("nested/folder/upload.json"));
  Sample().Save(path);
  UploadState loaded;
  ASSERT_TRUE(loaded.Load(path));
  const UploadState expected = Sample();
  EXPECT_EQ(loaded.session_url, expected.session_url);
  EXPECT_EQ(loaded.file_path, expected.file_path);
  EXPECT_EQ(loaded.file_size, expected.file_size);
  EXPECT_EQ(loaded.file_modified_ms, expected.file_modified_ms);
  EXPECT_EQ(loaded.content_type, expected.content_type);
  EXPECT_EQ(loaded.title, expected.title);
  EXPECT_EQ(loaded.chunk_size, expected.chunk_size);
}

TEST(UploadStateTest, OnlyItsOwnerMayReadIt) {
  QTemporaryDir dir;
  const QString path = dir.filePath(QStringLiteral("upload.json"));
  Sample().Save(path);
  struct stat info {};
  ASSERT_EQ(::stat(path.toLocal8Bit().constData(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST(UploadStateTest, NoFileMeansNoState) {
  QTemporaryDir dir;
  UploadState state;
  EXPECT_FALSE(state.Load(dir.filePath(QStringLiteral("none.json"))));
}

TEST(UploadStateTest, RemoveDeletesTheFile) {
  QTemporaryDir dir;
  const QString path = dir.filePath(QStringLiteral("upload.json"));
  Sample().Save(path);
  ASSERT_TRUE(QFile::exists(path));
  UploadState::Remove(path);
  EXPECT_FALSE(QFile::exists(path));
  UploadState::Remove(path);  // nothing to remove: no harm
}

TEST(UploadStateTest, ADamagedFileIsALocalFailureThatSaysWhatToDo) {
  QTemporaryDir dir;
  const QString path = dir.filePath(QStringLiteral("upload.json"));
  for (const QByteArray& contents :
       {QByteArray("not json"), QByteArray("[1,2]"), QByteArray("{\"version\":7}"),
        QByteArray("{\"version\":1,\"session_url\":\"https://x\"}")}) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(contents);
    file.close();
    UploadState state;
    try {
      state.Load(path);
      ADD_FAILURE() << "accepted " << contents.constData();
    } catch (const CliFailure& failure) {
      EXPECT_EQ(failure.code(), ExitCode::kLocal);
      EXPECT_NE(failure.message().find("remove it"), std::string::npos);
    }
  }
}

TEST(UploadStateTest, TheDefaultPathFollowsXdgStateHome) {
  const QByteArray saved = qgetenv("XDG_STATE_HOME");
  qputenv("XDG_STATE_HOME", "/srv/state");
  EXPECT_EQ(UploadState::DefaultPath(), QStringLiteral("/srv/state/quire/upload.json"));
  qunsetenv("XDG_STATE_HOME");
  EXPECT_TRUE(
      UploadState::DefaultPath().endsWith(QStringLiteral("/.local/state/quire/upload.json")));
  if (!saved.isNull()) qputenv("XDG_STATE_HOME", saved);
}

}  // namespace
