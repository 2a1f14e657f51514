// The header lines the transport writes for a request and reads from a response, checked without
// a socket: the pure functions between the caller's records and libcurl.
#include "kestrel/net/internal/header_lines.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace kestrel {
namespace net {
namespace internal {
namespace {

RequestHeader Line(const QString& whole) { return RequestHeader{0, whole, QString()}; }
RequestHeader Field(const QString& name, const QString& value) {
  return RequestHeader{0, name, value};
}

// The lines written for `headers`, or {"<refused>"} when the request must not be sent.
std::vector<std::string> Write(RequestHeaderList headers,
                               NetworkRequest::Info::DefaultHeaders defaults,
                               HttpRequest::MethodType method = HttpRequest::kGet,
                               bool keep_alive = true) {
  std::vector<QByteArray> lines;
  if (!WriteRequestHeaderLines(headers, defaults, method, keep_alive, &lines)) return {"<refused>"};
  std::vector<std::string> out;
  for (const QByteArray& line : lines) out.push_back(line.toStdString());
  return out;
}

using Lines = std::vector<std::string>;

TEST(HeaderLinesWriteTest, CallerRecordsGoOutAsWholeLinesInOrder) {
  EXPECT_EQ(Write({Line("X-One: 1"), Field("X-Two", "two words")}, NetworkRequest::Info::kStandard),
            (Lines{"X-One: 1", "X-Two: two words", "Expect:"}));
}

TEST(HeaderLinesWriteTest, EmptyValueIsWrittenWithASemicolon) {
  EXPECT_EQ(Write({Field("X-Empty", ""), Line("X-Blank:   ")}, NetworkRequest::Info::kStandard),
            (Lines{"X-Empty;", "X-Blank;", "Expect:"}));
}

TEST(HeaderLinesWriteTest, StandardSetLeavesAcceptToLibcurlOthersSuppressIt) {
  EXPECT_EQ(Write({}, NetworkRequest::Info::kStandard), (Lines{"Expect:"}));
  EXPECT_EQ(Write({}, NetworkRequest::Info::kUserAgent), (Lines{"Accept:", "Expect:"}));
  EXPECT_EQ(Write({}, NetworkRequest::Info::kNoDefaultHeaders), (Lines{"Accept:", "Expect:"}));
}

TEST(HeaderLinesWriteTest, PostSuppressesTheFormContentTypeAndCloseAddsConnection) {
  EXPECT_EQ(Write({}, NetworkRequest::Info::kStandard, HttpRequest::kPost, false),
            (Lines{"Expect:", "Content-Type:", "Connection: close"}));
  EXPECT_EQ(Write({}, NetworkRequest::Info::kStandard, HttpRequest::kPut, false),
            (Lines{"Expect:", "Connection: close"}));
}

TEST(HeaderLinesWriteTest, CallersOwnLinesOfAnyCaseReplaceTheTransportsOnes) {
  EXPECT_EQ(Write({Line("ACCEPT: text/xml"), Line("expect: 100-continue"),
                   Field("Content-TYPE", "application/atom+xml"), Line("connection : keep-alive")},
                  NetworkRequest::Info::kNoDefaultHeaders, HttpRequest::kPost, false),
            (Lines{"ACCEPT: text/xml", "expect: 100-continue", "Content-TYPE: application/atom+xml",
                   "connection : keep-alive"}));
}

TEST(HeaderLinesWriteTest, LinesThatCouldSplitTheRequestAreRefused) {
  const Lines refused{"<refused>"};
  const auto defaults = NetworkRequest::Info::kStandard;
  EXPECT_EQ(Write({Line("X-A: 1\r\nX-Injected: 2")}, defaults), refused);
  EXPECT_EQ(Write({Field("X-A", "1\nX-Injected: 2")}, defaults), refused);
  EXPECT_EQ(Write({Field("X-A", QString::fromLatin1("a\0b", 3))}, defaults), refused);
  EXPECT_EQ(Write({Line(" X-Continued: 1")}, defaults), refused);
  EXPECT_EQ(Write({Line("\tX-Continued: 1")}, defaults), refused);
  EXPECT_EQ(Write({Line("NoColonHere")}, defaults), refused);
  EXPECT_EQ(Write({Line(": no name")}, defaults), refused);
  EXPECT_EQ(Write({Line("   : no name")}, defaults), refused);
  EXPECT_EQ(Write({Line("")}, defaults), refused);
  EXPECT_EQ(Write({RequestHeader{1, "X-Reserved: 1", QString()}}, defaults), refused);
  // One bad record refuses the whole request, wherever it stands.
  EXPECT_EQ(Write({Line("X-Good: 1"), Line("X-Bad\r: 2")}, defaults), refused);
}

ResponseHeaderLine Read(const char* text, bool want_text = true) {
  return ReadResponseHeaderLine(text, std::strlen(text), want_text);
}

TEST(HeaderLinesReadTest, BlankLineEndsTheBlock) {
  EXPECT_EQ(Read("\r\n").kind, ResponseHeaderLine::kEnd);
  EXPECT_EQ(Read("\n").kind, ResponseHeaderLine::kEnd);
}

TEST(HeaderLinesReadTest, StatusLineGivesTheNumber) {
  const ResponseHeaderLine ok = Read("HTTP/1.1 200 OK\r\n");
  EXPECT_EQ(ok.kind, ResponseHeaderLine::kStatusLine);
  EXPECT_EQ(ok.status_code, 200);
  EXPECT_EQ(Read("HTTP/1.1 100 Continue\r\n").status_code, 100);
  EXPECT_EQ(Read("HTTP/1.0 404\r\n").status_code, 404);
  const ResponseHeaderLine broken = Read("HTTP/1.1\r\n");
  EXPECT_EQ(broken.kind, ResponseHeaderLine::kStatusLine);
  EXPECT_EQ(broken.status_code, 0);
}

TEST(HeaderLinesReadTest, FieldIsTrimmedAroundNameEndAndValue) {
  const ResponseHeaderLine line = Read("X-Spaced \t:  \t value with  inner  blanks \t\r\n");
  EXPECT_EQ(line.kind, ResponseHeaderLine::kField);
  EXPECT_EQ(line.text, QStringLiteral("X-Spaced: value with  inner  blanks"));
  EXPECT_FALSE(line.is_content_length);
  EXPECT_EQ(Read("X-Empty:\r\n").text, QStringLiteral("X-Empty: "));
}

TEST(HeaderLinesReadTest, NameKeepsItsSpellingAndBytesAreLatin1) {
  EXPECT_EQ(Read("eTaG: \"v1\"\r\n").text, QStringLiteral("eTaG: \"v1\""));
  EXPECT_EQ(Read("X-Bytes: caf\xe9\r\n").text, QString::fromLatin1("X-Bytes: caf\xe9"));
}

TEST(HeaderLinesReadTest, ContentLengthIsReadInAnyCase) {
  const ResponseHeaderLine line = Read("content-LENGTH:  1048576 \r\n");
  EXPECT_TRUE(line.is_content_length);
  EXPECT_EQ(line.content_length, 1048576);
  EXPECT_EQ(Read("Content-Length: 0\r\n").content_length, 0);
  EXPECT_EQ(Read("Content-Length: 999999999999999999\r\n").content_length, 999999999999999999);
}

TEST(HeaderLinesReadTest, ContentLengthThatIsNotPlainDigitsIsUnknown) {
  for (const char* bad :
       {"Content-Length:\r\n", "Content-Length: 12a\r\n", "Content-Length: -5\r\n",
        "Content-Length: 1 2\r\n", "Content-Length: 1000000000000000000\r\n"}) {
    const ResponseHeaderLine line = Read(bad);
    EXPECT_TRUE(line.is_content_length) << bad;
    EXPECT_EQ(line.content_length, -1) << bad;
  }
}

TEST(HeaderLinesReadTest, ContinuationGivesTheTextAfterItsBlanks) {
  const ResponseHeaderLine line = Read(" \t more text \r\n");
  EXPECT_EQ(line.kind, ResponseHeaderLine::kContinuation);
  EXPECT_EQ(line.text, QStringLiteral("more text "));
  const ResponseHeaderLine blank = Read("   \r\n");
  EXPECT_EQ(blank.kind, ResponseHeaderLine::kContinuation);
  EXPECT_TRUE(blank.text.isNull());
}

TEST(HeaderLinesReadTest, LineWithoutColonIsKeptWhole) {
  const ResponseHeaderLine line = Read("Not a field \r\n");
  EXPECT_EQ(line.kind, ResponseHeaderLine::kOther);
  EXPECT_EQ(line.text, QStringLiteral("Not a field "));
}

TEST(HeaderLinesReadTest, WithoutWantTextNoTextIsMadeButContentLengthIsRead) {
  const ResponseHeaderLine field = Read("Content-Length: 42\r\n", false);
  EXPECT_EQ(field.kind, ResponseHeaderLine::kField);
  EXPECT_TRUE(field.text.isNull());
  EXPECT_EQ(field.content_length, 42);
  EXPECT_TRUE(Read("Not a field\r\n", false).text.isNull());
  EXPECT_TRUE(Read(" continued\r\n", false).text.isNull());
}

}  // namespace
}  // namespace internal
}  // namespace net
}  // namespace kestrel
