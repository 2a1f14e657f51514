// The emulator's range answers on content downloads: 206 with Content-Range, 416 with the length,
// If-Range against the strong entity tag, and the whole content for what is not one byte range.
#include <gtest/gtest.h>

#include <string>

#include "tests/tools/quire-server/server_test.h"

namespace quire_test::server {
namespace {

class RangeTest : public ServerTest {
 protected:
  void SetUp() override {
    Start();
    bytes_ = RandomBytes(300000, 14);
    entry_ = Create(bytes_, "ranged", "application/octet-stream");
  }
  HttpResult Get(std::vector<std::string> headers) {
    return Call("GET", entry_.content_src, std::move(headers));
  }
  // Asks for the content with `range` and checks the 206 answer: bytes [first, last] of the
  // content, with the Content-Range that says so.
  HttpResult ExpectPart(const std::string& range, std::size_t first, std::size_t last) {
    HttpResult part = Get({range});
    EXPECT_EQ(part.status, 206);
    EXPECT_EQ(part.Header("Content-Range"),
              "bytes " + std::to_string(first) + "-" + std::to_string(last) + "/300000");
    EXPECT_EQ(part.body, bytes_.substr(first, last - first + 1));
    return part;
  }

  std::string bytes_;
  EntryView entry_;
};

TEST_F(RangeTest, WholeContentAnnouncesRangesAndTheStrongTag) {
  HttpResult whole = Get({});
  EXPECT_EQ(whole.status, 200);
  EXPECT_EQ(whole.Header("Accept-Ranges"), "bytes");
  EXPECT_EQ(whole.Header("ETag"), entry_.etag);
  EXPECT_FALSE(whole.Has("Content-Range"));
  EXPECT_EQ(whole.body, bytes_);
}

TEST_F(RangeTest, ClosedRangeAnswers206WithThoseBytes) {
  HttpResult part = ExpectPart("Range: bytes=1000-1999", 1000, 1999);
  EXPECT_EQ(part.Header("Content-Length"), "1000");
  EXPECT_EQ(part.Header("ETag"), entry_.etag);
}

TEST_F(RangeTest, OpenRangeRunsToTheEnd) {
  ExpectPart("Range: bytes=299990-", 299990, 299999);
  ExpectPart("Range: bytes=299999-", 299999, 299999);
}

TEST_F(RangeTest, EndBeyondTheContentIsCutToItsLastByte) {
  ExpectPart("Range: bytes=299000-999999999", 299000, 299999);
}

TEST_F(RangeTest, SuffixRangeAnswersTheLastBytes) {
  ExpectPart("Range: bytes=-500", 299500, 299999);
  ExpectPart("Range: bytes=-900000", 0, 299999);
}

TEST_F(RangeTest, RangeAtOrBeyondTheEndAnswers416WithTheLength) {
  for (const char* range :
       {"Range: bytes=300000-", "Range: bytes=300000-300010", "Range: bytes=18446744073709551615-",
        "Range: bytes=99999999999999999999999-", "Range: bytes=-0"}) {
    SCOPED_TRACE(range);
    HttpResult refused = Get({range});
    EXPECT_TRUE(IsError(refused, 416));
    EXPECT_EQ(refused.Header("Content-Range"), "bytes */300000");
  }
}

TEST_F(RangeTest, EmptyContentRefusesEveryRange) {
  EntryView empty = Create("", "empty");
  HttpResult refused = Call("GET", empty.content_src, {"Range: bytes=0-"});
  EXPECT_TRUE(IsError(refused, 416));
  EXPECT_EQ(refused.Header("Content-Range"), "bytes */0");
  EXPECT_TRUE(IsError(Call("GET", empty.content_src, {"Range: bytes=-10"}), 416));
}

TEST_F(RangeTest, SeveralOrMalformedRangesGetTheWholeContent) {
  for (const char* range : {"Range: bytes=0-9,20-29", "Range: bytes=9-0", "Range: bytes=a-",
                            "Range: bytes=-", "Range: items=0-9", "Range: bytes 0-9",
                            "Range: bytes=+1-9", "Range: bytes=1 0-9", "Range: bytes=0-9-"}) {
    SCOPED_TRACE(range);
    HttpResult whole = Get({range});
    EXPECT_EQ(whole.status, 200);
    EXPECT_FALSE(whole.Has("Content-Range"));
    EXPECT_EQ(whole.body.size(), bytes_.size());
  }
  HttpResult two_fields = Get({"Range: bytes=0-9", "Range: bytes=10-19"});
  EXPECT_EQ(two_fields.status, 200);
  EXPECT_EQ(two_fields.body, bytes_);
}

TEST_F(RangeTest, IfRangeWithTheCurrentTagHonoursTheRange) {
  HttpResult part = Get({"Range: bytes=100-", "If-Range: " + entry_.etag});
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(part.body, bytes_.substr(100));
}

TEST_F(RangeTest, IfRangeWithAnyOtherValueGetsTheWholeContent) {
  for (std::string value : {std::string("\"another\""), "W/" + entry_.etag,
                            std::string("Mon, 23 Nov 2026 06:00:00 GMT"), std::string("*")}) {
    SCOPED_TRACE(value);
    HttpResult whole = Get({"Range: bytes=100-", "If-Range: " + value});
    EXPECT_EQ(whole.status, 200);
    EXPECT_EQ(whole.body, bytes_);
  }
}

TEST_F(RangeTest, IfRangeAfterAReplaceGetsTheNewContentWhole) {
  std::string newer = RandomBytes(1000, 15);
  HttpResult replaced =
      Call("PUT", entry_.edit, {"Content-Type: application/octet-stream"}, &newer);
  ASSERT_EQ(replaced.status, 200);
  HttpResult whole = Get({"Range: bytes=100-", "If-Range: " + entry_.etag});
  EXPECT_EQ(whole.status, 200);
  EXPECT_NE(whole.Header("ETag"), entry_.etag);
  EXPECT_EQ(whole.body, newer);
}

TEST_F(RangeTest, HeadWithARangeAnnouncesThePartsLength) {
  HttpResult head = Call("HEAD", entry_.content_src, {"Range: bytes=10-19"});
  EXPECT_EQ(head.status, 206);
  EXPECT_EQ(head.Header("Content-Length"), "10");
  EXPECT_EQ(head.Header("Content-Range"), "bytes 10-19/300000");
  EXPECT_TRUE(head.body.empty());
}

TEST_F(RangeTest, RangeOfALargeDocumentIsStreamedFromItsFile) {
  std::string big = RandomBytes(6 << 20, 16);
  EntryView large = Create(big, "large");
  HttpResult part = Call("GET", large.content_src, {"Range: bytes=3000001-"});
  EXPECT_EQ(part.status, 206);
  EXPECT_EQ(Sha256Hex(part.body), Sha256Hex(big.substr(3000001)));
}

}  // namespace
}  // namespace quire_test::server
