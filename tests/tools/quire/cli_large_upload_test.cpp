// quire upload of a file larger than 4 GiB (a sparse file with marked bytes on both sides of every
// 32-bit boundary), checked byte for byte against the content file the emulator keeps.
#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <cstring>
#include <string>
#include <vector>

#include "tests/tools/quire/cli_end_to_end_fixture.h"

namespace {

using namespace quire_test;
using namespace quire_test::cli;

class CliLargeUploadTest : public CliEndToEndTest {};

constexpr std::int64_t kGiB = std::int64_t{1} << 30;

// Whether the two files hold the same bytes, read side by side in 8 MiB pieces.
bool SameBytes(const QString& a, const QString& b, std::string* why) {
  QFile left(a);
  QFile right(b);
  if (!left.open(QIODevice::ReadOnly) || !right.open(QIODevice::ReadOnly)) {
    *why = "cannot open both files";
    return false;
  }
  if (left.size() != right.size()) {
    *why = "sizes " + std::to_string(left.size()) + " and " + std::to_string(right.size());
    return false;
  }
  std::vector<char> one(8 << 20);
  std::vector<char> two(8 << 20);
  for (std::int64_t at = 0; at < left.size();) {
    const qint64 got = left.read(one.data(), static_cast<qint64>(one.size()));
    if (got <= 0 || right.read(two.data(), got) != got) {
      *why = "read failed at " + std::to_string(at);
      return false;
    }
    if (std::memcmp(one.data(), two.data(), static_cast<std::size_t>(got)) != 0) {
      *why = "bytes differ in the piece at " + std::to_string(at);
      return false;
    }
    at += got;
  }
  return true;
}

TEST_F(CliLargeUploadTest, AFileOfFiveGibibytesUploadsWithEveryByteInPlace) {
  const QString path = Path("five.bin");
  {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_TRUE(file.resize(5 * kGiB));
    // Marks at the start, on both sides of 2 GiB and 4 GiB (where 31- and 32-bit counts wrap),
    // and at the end; the rest reads as zeros.
    for (std::int64_t at : {std::int64_t{0}, 2 * kGiB - 3, 4 * kGiB - 3, 5 * kGiB - 6}) {
      ASSERT_TRUE(file.seek(at));
      const QByteArray mark = PatternBytes(6, static_cast<std::uint64_t>(at) + 1);
      ASSERT_EQ(file.write(mark), mark.size());
    }
  }
  const ProcessResult result =
      Quire({"upload", path.toStdString(), "--title", "Five", "--chunk-size", "64MiB"}, false, 900);
  ASSERT_EQ(result.exit_code, 0) << result.err;
  EXPECT_NE(result.out.find("uploaded \"Five\""), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("5368709120 bytes"), std::string::npos) << result.out;

  // The emulator keeps each document's content in a file of its own under DATA/content.
  const QDir content(Path("data") + QStringLiteral("/content"));
  const QStringList files = content.entryList(QDir::Files);
  ASSERT_EQ(files.size(), 1) << files.join(QLatin1Char(' ')).toStdString();
  std::string why;
  EXPECT_TRUE(SameBytes(path, content.filePath(files.front()), &why)) << why;
}

}  // namespace
