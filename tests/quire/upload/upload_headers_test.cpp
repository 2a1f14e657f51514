// The header helpers of ConnectionUtils: building the POST and PUT lines of the resumable protocol
// and reading "Location" and "Range" out of response header lists.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <ostream>
#include <type_traits>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "quire/quire.h"
#include "tests/support/test_support.h"

namespace {

using kestrel::quire::ConnectionUtils;
using kestrel::quire::IConnection;
using Lines = std::vector<QString>;

QString S(const char* text) { return QString::fromUtf8(text); }

class UploadHeadersTest : public quire_test::ScriptedTest {
 protected:
  ConnectionUtils utils_{524288, nullptr};
};

// --- GetHeaderValue

TEST_F(UploadHeadersTest, NullListGivesAnEmptyNonNullString) {
  const QString value = utils_.GetHeaderValue(nullptr, S("Location"));
  EXPECT_TRUE(value.isEmpty());
  EXPECT_FALSE(value.isNull()) << "empty, not null";
}

TEST_F(UploadHeadersTest, MissingHeaderGivesAnEmptyNonNullString) {
  const Lines lines = {S("Content-Type: text/plain"), S("X-Location: https://a.example/")};
  const QString value = utils_.GetHeaderValue(&lines, S("Location"));
  EXPECT_TRUE(value.isEmpty());
  EXPECT_FALSE(value.isNull());
  const Lines empty;
  EXPECT_TRUE(utils_.GetHeaderValue(&empty, S("Location")).isEmpty());
  EXPECT_FALSE(utils_.GetHeaderValue(&empty, S("Location")).isNull());
}

TEST_F(UploadHeadersTest, ReturnsTheRestOfTheMatchingLine) {
  const Lines lines = {S("Content-Type: text/plain"), S("Location: https://up.example/u?id=7"),
                       S("Range: bytes=0-9")};
  EXPECT_EQ(utils_.GetHeaderValue(&lines, S("Location")), S("https://up.example/u?id=7"));
  EXPECT_EQ(utils_.GetHeaderValue(&lines, S("Range")), S("bytes=0-9"));
  EXPECT_EQ(utils_.GetHeaderValue(&lines, S("Content-Type")), S("text/plain"));
}

TEST_F(UploadHeadersTest, FirstOfTwoLinesWithTheSameNameWins) {
  const Lines lines = {S("Location: https://first.example/"),
                       S("Location: https://second.example/")};
  EXPECT_EQ(utils_.GetHeaderValue(&lines, S("Location")), S("https://first.example/"));
}

TEST_F(UploadHeadersTest, ValueHoldingColonBlankIsReturnedWhole) {
  const Lines lines = {S("Location: https://up.example:8443/upload?note=a: b")};
  EXPECT_EQ(utils_.GetHeaderValue(&lines, S("Location")),
            S("https://up.example:8443/upload?note=a: b"));
}

TEST_F(UploadHeadersTest, MatchIsExactAndCaseSensitive) {
  const Lines lower = {S("location: https://up.example/")};
  EXPECT_TRUE(utils_.GetHeaderValue(&lower, S("Location")).isEmpty());
  const Lines upper = {S("LOCATION: https://up.example/")};
  EXPECT_TRUE(utils_.GetHeaderValue(&upper, S("Location")).isEmpty());
  const Lines no_blank = {S("Location:https://up.example/")};
  EXPECT_TRUE(utils_.GetHeaderValue(&no_blank, S("Location")).isEmpty());
  const Lines blank_before_colon = {S("Location : https://up.example/")};
  EXPECT_TRUE(utils_.GetHeaderValue(&blank_before_colon, S("Location")).isEmpty());
  const Lines longer_name = {S("Range-Unit: bytes"), S("Range: bytes=0-3")};
  EXPECT_EQ(utils_.GetHeaderValue(&longer_name, S("Range")), S("bytes=0-3"));
  // A lower-case line before a correctly written one is skipped; the later one is found.
  const Lines mixed = {S("location: https://lower.example/"),
                       S("Location: https://right.example/")};
  EXPECT_EQ(utils_.GetHeaderValue(&mixed, S("Location")), S("https://right.example/"));
}

TEST_F(UploadHeadersTest, ValueIsNotTrimmed) {
  const Lines two_blanks = {S("Location:  https://up.example/ ")};
  EXPECT_EQ(utils_.GetHeaderValue(&two_blanks, S("Location")), S(" https://up.example/ "));
}

TEST_F(UploadHeadersTest, EmptyValueLooksLikeAnAbsentHeader) {
  const Lines lines = {S("Location: "), S("Location: https://later.example/")};
  const QString value = utils_.GetHeaderValue(&lines, S("Location"));
  EXPECT_TRUE(value.isEmpty()) << "the first line wins even when its value is empty";
  EXPECT_FALSE(value.isNull());
}

// --- GetResumableStartPos

constexpr std::uint32_t kUntouched = 0xDEADBEEFu;

// What GetResumableStartPos gave: whether it read a position, and the position it left.
struct StartPos {
  bool ok;
  std::uint32_t position;
  bool operator==(const StartPos& other) const {
    return ok == other.ok && position == other.position;
  }
};

void PrintTo(const StartPos& start, std::ostream* out) {
  *out << (start.ok ? "found, " : "not found, ") << start.position;
}

// A position that was found, and one that was not (with what was left in its place).
constexpr StartPos Found(std::uint32_t position) { return {true, position}; }
constexpr StartPos NotFound(std::uint32_t position) { return {false, position}; }

StartPos ReadStart(const ConnectionUtils& utils, const Lines* lines) {
  std::uint32_t position = kUntouched;
  const bool ok = utils.GetResumableStartPos(lines, &position);
  return {ok, position};
}

StartPos ReadRange(const ConnectionUtils& utils, const char* range_value) {
  const Lines lines = {S("Content-Length: 0"), S("Range: ") + S(range_value)};
  return ReadStart(utils, &lines);
}

TEST_F(UploadHeadersTest, StartPosFromNullListIsFalseAndUntouched) {
  EXPECT_EQ(ReadStart(utils_, nullptr), NotFound(kUntouched));
}

TEST_F(UploadHeadersTest, StartPosWithoutRangeIsFalseAndUntouched) {
  const Lines lines = {S("Location: https://up.example/")};
  EXPECT_EQ(ReadStart(utils_, &lines), NotFound(kUntouched));
  const Lines lower = {S("range: bytes=0-99")};
  EXPECT_EQ(ReadStart(utils_, &lower), NotFound(kUntouched));
  EXPECT_EQ(ReadRange(utils_, ""), NotFound(kUntouched));
}

TEST_F(UploadHeadersTest, StartPosIsTheLastHeldByteNotIncremented) {
  EXPECT_EQ(ReadRange(utils_, "bytes=0-524287"), Found(524287u));
}

TEST_F(UploadHeadersTest, StartPosZeroZero) {
  EXPECT_EQ(ReadRange(utils_, "bytes=0-0"), Found(0u));
}

TEST_F(UploadHeadersTest, StartPosWithNothingAfterTheDashWritesZeroAndFails) {
  EXPECT_EQ(ReadRange(utils_, "bytes=0-"), NotFound(0u)) << "the failed conversion's 0 is written";
}

TEST_F(UploadHeadersTest, StartPosWithoutADashIsFalseAndUntouched) {
  EXPECT_EQ(ReadRange(utils_, "bytes=10"), NotFound(kUntouched));
}

TEST_F(UploadHeadersTest, StartPosReadsOnlyAfterTheFirstDash) {
  EXPECT_EQ(ReadRange(utils_, "a-b-7"), NotFound(0u)) << "the text b-7 is not a number";
  EXPECT_EQ(ReadRange(utils_, "x-1-2"), NotFound(0u)) << "the text 1-2 is not a number";
}

TEST_F(UploadHeadersTest, StartPosIgnoresWhatComesBeforeTheDash) {
  EXPECT_EQ(ReadRange(utils_, "anything at all=77-4096"), Found(4096u));
}

TEST_F(UploadHeadersTest, StartPosIsUnsigned32Bit) {
  EXPECT_EQ(ReadRange(utils_, "bytes=0-4294967295"), Found(4294967295u));
  EXPECT_EQ(ReadRange(utils_, "bytes=0-4294967296"), NotFound(0u));
  EXPECT_EQ(ReadRange(utils_, "bytes=0--1"), NotFound(0u));
  EXPECT_EQ(ReadRange(utils_, "bytes=0-0x10"), NotFound(0u)) << "decimal only";
}

TEST_F(UploadHeadersTest, StartPosUsesTheFirstRangeLine) {
  const Lines lines = {S("Range: bytes=0-5"), S("Range: bytes=0-9")};
  EXPECT_EQ(ReadStart(utils_, &lines), Found(5u));
}

// --- GetResumablePostExtraHeaders

TEST_F(UploadHeadersTest, PostLinesInOrder) {
  const QByteArray data(1000000, 'x');
  EXPECT_EQ(
      utils_.GetResumablePostExtraHeaders(S("application/pdf"), data),
      (Lines{S("Content-Type: application/atom+xml"), S("X-Upload-Content-Type: application/pdf"),
             S("X-Upload-Content-Length: 1000000")}));
}

TEST_F(UploadHeadersTest, PostLinesForEmptyDataCarryZero) {
  EXPECT_EQ(utils_.GetResumablePostExtraHeaders(S("text/plain"), QByteArray()),
            (Lines{S("Content-Type: application/atom+xml"), S("X-Upload-Content-Type: text/plain"),
                   S("X-Upload-Content-Length: 0")}));
  EXPECT_EQ(utils_.GetResumablePostExtraHeaders(S("text/plain"), QByteArray("")),
            (Lines{S("Content-Type: application/atom+xml"), S("X-Upload-Content-Type: text/plain"),
                   S("X-Upload-Content-Length: 0")}));
}

TEST_F(UploadHeadersTest, PostContentTypeIsTakenAsItStands) {
  EXPECT_EQ(utils_.GetResumablePostExtraHeaders(QString(), QByteArray("abc"))[1],
            S("X-Upload-Content-Type: "));
  EXPECT_EQ(utils_.GetResumablePostExtraHeaders(S("text/plain; charset=\"utf-8\" %2"),
                                                QByteArray("a"))[1],
            S("X-Upload-Content-Type: text/plain; charset=\"utf-8\" %2"));
}

TEST_F(UploadHeadersTest, PostLengthHasNoSeparators) {
  const QByteArray data(1234567, '\0');
  EXPECT_EQ(utils_.GetResumablePostExtraHeaders(S("a/b"), data)[2],
            S("X-Upload-Content-Length: 1234567"));
}

// --- GetResumablePutExtraHeaders

TEST_F(UploadHeadersTest, PutLinesInOrder) {
  EXPECT_EQ(utils_.GetResumablePutExtraHeaders(S("application/pdf"), 0, 524288, 1000000),
            (Lines{S("Content-Length: 524288"), S("Content-Type: application/pdf"),
                   S("Content-Range: bytes 0-524287/1000000")}));
  EXPECT_EQ(utils_.GetResumablePutExtraHeaders(S("application/pdf"), 524287, 475713, 1000000),
            (Lines{S("Content-Length: 475713"), S("Content-Type: application/pdf"),
                   S("Content-Range: bytes 524287-999999/1000000")}));
}

TEST_F(UploadHeadersTest, PutZeroLengthWrapsTheRangeEnd) {
  EXPECT_EQ(utils_.GetResumablePutExtraHeaders(S("t/t"), 0, 0, 10),
            (Lines{S("Content-Length: 0"), S("Content-Type: t/t"),
                   S("Content-Range: bytes 0-4294967295/10")}));
  EXPECT_EQ(utils_.GetResumablePutExtraHeaders(S("t/t"), 5, 0, 10)[2],
            S("Content-Range: bytes 5-4/10"));
}

TEST_F(UploadHeadersTest, PutSumIsUnsigned32Bit) {
  EXPECT_EQ(utils_.GetResumablePutExtraHeaders(S("t/t"), 4294967295u, 2, 4294967295u)[2],
            S("Content-Range: bytes 4294967295-0/4294967295"));
  EXPECT_EQ(utils_.GetResumablePutExtraHeaders(S("t/t"), 4000000000u, 294967295u, 4294967295u),
            (Lines{S("Content-Length: 294967295"), S("Content-Type: t/t"),
                   S("Content-Range: bytes 4000000000-4294967294/4294967295")}));
}

TEST_F(UploadHeadersTest, PutOneByteAtTheEnd) {
  EXPECT_EQ(utils_.GetResumablePutExtraHeaders(S("t/t"), 999, 1, 1000)[2],
            S("Content-Range: bytes 999-999/1000"));
}

// --- The class itself

class CountingConnection : public IConnection {
 public:
  explicit CountingConnection(int* destroyed) : destroyed_(destroyed) {}
  ~CountingConnection() override { ++*destroyed_; }
  void Init(const std::vector<QString>&) override {}
  unsigned int Request(const kestrel::quire::ConnectionParams&,
                       kestrel::quire::ResponseCallback) override {
    return 1;
  }
  void Cancel(unsigned int) override {}

 private:
  int* destroyed_;
};

TEST_F(UploadHeadersTest, PolymorphicManagedAndLeavesTheConnectionAlone) {
  static_assert(std::is_polymorphic<ConnectionUtils>::value, "hosts may derive from it");
  static_assert(std::has_virtual_destructor<ConnectionUtils>::value, "deletable through a base");
  int destroyed = 0;
  CountingConnection connection(&destroyed);
  const long before = kestrel::MemoryManager::Default()->live_allocations();
  ConnectionUtils* utils = new ConnectionUtils(4096, &connection);
  EXPECT_EQ(kestrel::MemoryManager::Default()->live_allocations(), before + 1)
      << "allocated through the memory manager";
  EXPECT_EQ(utils->chunk_size(), 4096u);
  EXPECT_EQ(utils->connection(), &connection);
  kestrel::doDelete(utils);
  EXPECT_EQ(destroyed, 0) << "the connection is not owned";
  EXPECT_EQ(kestrel::MemoryManager::Default()->live_allocations(), before);
}

}  // namespace
