#include "tools/quire/mapped_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <QFile>
#include <QTemporaryDir>
#include <cstdint>
#include <fstream>
#include <string>

#include "tests/support/data_pattern.h"
#include "tools/quire/cli_failure.h"

namespace {

using quire_test::PatternBytes;

using quire_cli::CliFailure;
using quire_cli::ExitCode;
using quire_cli::MappedFile;

QString Write(const QTemporaryDir& dir, const QString& name, const QByteArray& bytes) {
  const QString path = dir.filePath(name);
  QFile file(path);
  EXPECT_TRUE(file.open(QIODevice::WriteOnly));
  EXPECT_EQ(file.write(bytes), bytes.size());
  return path;
}

// A sparse file of `size` bytes: no disk space is used.
QString Sparse(const QTemporaryDir& dir, const QString& name, std::int64_t size) {
  const QString path = dir.filePath(name);
  QFile file(path);
  EXPECT_TRUE(file.open(QIODevice::WriteOnly));
  EXPECT_TRUE(file.resize(size));
  return path;
}

// The line of /proc/self/smaps that says how much of the mapping that holds `address` is resident,
// in KiB.
long ResidentKiB(const void* address) {
  std::ifstream smaps("/proc/self/smaps");
  std::string line;
  bool inside = false;
  const auto where = reinterpret_cast<std::uintptr_t>(address);
  while (std::getline(smaps, line)) {
    unsigned long start = 0;
    unsigned long end = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx ", &start, &end) == 2 && line.find(':') > 8) {
      inside = where >= start && where < end;
      continue;
    }
    if (inside && line.rfind("Rss:", 0) == 0) return std::stol(line.substr(4));
  }
  return -1;
}

CliFailure OpenFailure(const QString& path) {
  try {
    MappedFile file(path);
  } catch (const CliFailure& failure) {
    return failure;
  }
  ADD_FAILURE() << "no failure for " << path.toStdString();
  return CliFailure(ExitCode::kOk, "");
}

TEST(MappedFileTest, TheBytesAreTheFilesAndLiveInTheMappingNotTheHeap) {
  QTemporaryDir dir;
  const QByteArray bytes = PatternBytes(3 * 4096 + 17);
  MappedFile file(Write(dir, QStringLiteral("a.bin"), bytes));
  EXPECT_EQ(file.size(), bytes.size());
  EXPECT_EQ(file.data(), bytes);
  // The array's bytes are in a mapping of the file itself.
  std::ifstream maps("/proc/self/maps");
  std::string line;
  bool found = false;
  const auto where = reinterpret_cast<std::uintptr_t>(file.data().constData());
  while (std::getline(maps, line)) {
    unsigned long start = 0;
    unsigned long end = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx", &start, &end) == 2 && where >= start && where < end) {
      found = line.find("a.bin") != std::string::npos;
    }
  }
  EXPECT_TRUE(found) << "the data is not in a mapping of a.bin";
  EXPECT_TRUE(file.path().endsWith(QStringLiteral("/a.bin")));
  EXPECT_GT(file.modified_ms(), 0);
}

TEST(MappedFileTest, CopiesShareTheMapping) {
  QTemporaryDir dir;
  MappedFile file(Write(dir, QStringLiteral("b.bin"), PatternBytes(10000)));
  const QByteArray copy = file.data();
  EXPECT_EQ(copy.constData(), file.data().constData());
}

TEST(MappedFileTest, AnEmptyFileGivesEmptyData) {
  QTemporaryDir dir;
  MappedFile file(Write(dir, QStringLiteral("empty"), QByteArray()));
  EXPECT_EQ(file.size(), 0);
  EXPECT_TRUE(file.data().isEmpty());
}

TEST(MappedFileTest, AMissingFileOrAFolderIsALocalFailureThatNamesIt) {
  QTemporaryDir dir;
  const QString missing = dir.filePath(QStringLiteral("missing.bin"));
  CliFailure failure = OpenFailure(missing);
  EXPECT_EQ(failure.code(), ExitCode::kLocal);
  EXPECT_NE(failure.message().find("missing.bin"), std::string::npos);
  failure = OpenFailure(dir.path());
  EXPECT_EQ(failure.code(), ExitCode::kLocal);
  EXPECT_NE(failure.message().find("folder"), std::string::npos);
}

TEST(MappedFileTest, FourGibibytesOrMoreAreRefusedBecausePositionsAreUnsigned32Bits) {
  QTemporaryDir dir;
  const std::int64_t four_gib = std::int64_t{1} << 32;
  for (std::int64_t size : {four_gib, four_gib + 1, 3 * four_gib}) {
    const CliFailure failure = OpenFailure(Sparse(dir, QStringLiteral("big%1").arg(size), size));
    EXPECT_EQ(failure.code(), ExitCode::kLocal);
    EXPECT_NE(failure.message().find("unsigned 32 bits"), std::string::npos) << failure.message();
    EXPECT_NE(failure.message().find(std::to_string(size)), std::string::npos);
  }
  EXPECT_THROW(MappedFile::CheckUploadable(QStringLiteral("x"), four_gib), CliFailure);
}

TEST(MappedFileTest, TheLargestUploadableSizeDependsOnTheByteArray) {
  const std::int64_t four_gib = std::int64_t{1} << 32;
  using SizeType = decltype(QByteArray().size());
  if (sizeof(SizeType) >= 8) {
    EXPECT_EQ(MappedFile::MaxSize(), four_gib - 1);
    EXPECT_NO_THROW(MappedFile::CheckUploadable(QStringLiteral("x"), four_gib - 1));
  } else {
    EXPECT_EQ(MappedFile::MaxSize(), 0x7fffffff);
    EXPECT_THROW(MappedFile::CheckUploadable(QStringLiteral("x"), std::int64_t{0x80000000}),
                 CliFailure);
  }
}

TEST(MappedFileTest, AFileJustBelowTheLimitIsMappedWhole) {
  QTemporaryDir dir;
  const std::int64_t size = MappedFile::MaxSize();
  MappedFile file(Sparse(dir, QStringLiteral("edge"), size));
  EXPECT_EQ(file.size(), size);
  EXPECT_EQ(static_cast<std::int64_t>(file.data().size()), size);
  EXPECT_EQ(file.data().at(file.data().size() - 1), '\0');
}

TEST(MappedFileTest, ReleasedPagesLeaveTheResidentSetAndStayReadable) {
  QTemporaryDir dir;
  const int size = 32 * 1024 * 1024;
  const QByteArray bytes = PatternBytes(size);
  MappedFile file(Write(dir, QStringLiteral("c.bin"), bytes));
  long sum = 0;
  for (int i = 0; i < size; i += 4096) sum += file.data().at(i);
  const long before = ResidentKiB(file.data().constData());
  ASSERT_GE(before, 30 * 1024) << "touching every page should make the mapping resident";
  file.ReleaseBefore(24 * 1024 * 1024 + 100);
  const long after = ResidentKiB(file.data().constData());
  EXPECT_LE(after, before - 23 * 1024);
  // Released bytes are read again from the file.
  EXPECT_EQ(file.data(), bytes);
  EXPECT_NE(sum, 0);
}

}  // namespace
