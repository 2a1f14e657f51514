// Bad input gets a 4xx with an error document and changes nothing: not the documents, not their
// tags, not the upload sessions, and nothing outside the data folder.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "quire/model/link_relations.h"
#include "tests/tools/quire-server/raw_connection.h"
#include "tests/tools/quire-server/server_test.h"

namespace quire_test::server {
namespace {

namespace q = kestrel::quire;

class BadInputTest : public ServerTest {
 protected:
  // A document and a session that holds its first 1000 bytes, to check that they stay as they
  // are.
  void Prepare(const std::vector<std::string>& args = {}, bool http = false) {
    Start(args, http);
    document_ = Create("original", "doc", "text/plain");
    data_ = RandomBytes(4000, 11);
    session_ = OpenUpload(Feed().links[q::kResumableCreateMediaRel], data_.size());
    ASSERT_EQ(PutChunk(session_, 0, data_.substr(0, 1000), data_.size()).status, 308);
    feed_etag_ = Feed().etag;
  }

  void ExpectUnchanged() {
    FeedView feed = Feed();
    EXPECT_EQ(feed.etag, feed_etag_);
    ASSERT_EQ(feed.entries.size(), 1u);
    EXPECT_EQ(feed.entries[0].etag, document_.etag);
    EXPECT_EQ(Content(document_), "original");
    HttpResult status = StatusQuery(session_, data_.size());
    EXPECT_EQ(status.status, 308);
    EXPECT_EQ(status.Header("Range"), "bytes=0-999");
  }

  // Finishing the upload gives exactly the intended bytes (nothing stray was written).
  void ExpectUploadCompletes() {
    HttpResult done = PutChunk(session_, 999, data_.substr(999), data_.size());
    ASSERT_EQ(done.status, 201) << done.body;
    EXPECT_EQ(Sha256Hex(Content(AtomView::ParseEntry(done.body))), Sha256Hex(data_));
  }

  HttpResult PutWithRange(const std::string& range, const std::string& body) {
    return Call("PUT", session_, {"Content-Range: " + range}, &body, false);
  }

  EntryView document_;
  std::string data_;
  std::string session_;
  std::string feed_etag_;
};

TEST_F(BadInputTest, MalformedContentRangeIs400) {
  Prepare();
  std::string ten(10, 'z');
  for (const char* range :
       {"bytes 1000-1009", "bytes 1000-1009/", "bytes 1009-1000/4000", "bytes 1000-4000/4000",
        "items 1000-1009/4000", "bytes a-1009/4000", "bytes -1000-1009/4000", "bytes 1000-1009/*",
        "bytes=1000-1009/4000", "bytes 1000 - 1009/4000", "1000-1009/4000", "bytes */",
        "bytes 1000-/4000", "bytes 99999999999999999999-1009/4000", ""}) {
    EXPECT_TRUE(IsError(PutWithRange(range, ten), 400)) << "'" << range << "'";
  }
  ExpectUnchanged();
  ExpectUploadCompletes();
}

TEST_F(BadInputTest, MissingOrRepeatedContentRangeIs400) {
  Prepare();
  std::string ten(10, 'z');
  EXPECT_TRUE(IsError(Call("PUT", session_, {}, &ten, false), 400));
  EXPECT_TRUE(IsError(
      Call("PUT", session_,
           {"Content-Range: bytes 1000-1009/4000", "Content-Range: bytes 0-9/4000"}, &ten, false),
      400));
  ExpectUnchanged();
}

TEST_F(BadInputTest, TotalThatDiffersFromTheAnnouncedLengthIs400) {
  Prepare();
  EXPECT_TRUE(IsError(PutChunk(session_, 999, data_.substr(999), 4001), 400));
  EXPECT_TRUE(IsError(PutChunk(session_, 999, data_.substr(999, 100), 3999), 400));
  EXPECT_TRUE(IsError(StatusQuery(session_, 5000), 400));
  ExpectUnchanged();
  ExpectUploadCompletes();
}

TEST_F(BadInputTest, BodyLengthThatDiffersFromTheRangeIs400) {
  Prepare();
  std::string bytes(500, 'x');
  EXPECT_TRUE(IsError(PutWithRange("bytes 999-1998/4000", bytes), 400));     // shorter
  EXPECT_TRUE(IsError(PutWithRange("bytes 999-1098/4000", bytes), 400));     // longer
  EXPECT_TRUE(IsError(PutWithRange("bytes */4000", bytes), 400));            // query with a body
  EXPECT_TRUE(IsError(PutWithRange("bytes 0-0/4000", std::string()), 400));  // no body
  ExpectUnchanged();
  ExpectUploadCompletes();
}

TEST_F(BadInputTest, ChunkedSessionPutIsRefused) {
  Prepare({}, /*http=*/true);
  RawConnection raw(server_->port());
  ASSERT_TRUE(raw.connected());
  std::string path = session_.substr(session_.find("/upload/"));
  ASSERT_TRUE(raw.Send("PUT " + path +
                       " HTTP/1.1\r\nHost: docs.quire.example\r\nQuire-Version: 3.0\r\n"
                       "Content-Range: bytes 1000-1009/4000\r\nTransfer-Encoding: chunked\r\n\r\n"
                       "a\r\n0123456789\r\n0\r\n\r\n"));
  std::string answer = raw.ReadAnswer();
  EXPECT_EQ(StatusOf(answer), 411) << answer;
  EXPECT_TRUE(AtomView::ParseError(BodyOf(answer)).parsed);
  ExpectUnchanged();
  ExpectUploadCompletes();
}

TEST_F(BadInputTest, DeclaredLengthAboveTheLimitIs413) {
  Prepare({"--max-upload-bytes", "5000"});
  std::string url = Feed().links[q::kResumableCreateMediaRel];
  std::string metadata;
  HttpResult result =
      Call("POST", url, {"Content-Type: application/atom+xml", "X-Upload-Content-Length: 5001"},
           &metadata);
  EXPECT_TRUE(IsError(result, 413));
  EXPECT_FALSE(result.Has("Location"));
  std::string big(5001, 'b');
  EXPECT_TRUE(IsError(Call("POST", FeedUrl(), {}, &big), 413));
  EXPECT_TRUE(IsError(Call("PUT", document_.edit, {}, &big), 413));
  EXPECT_TRUE(IsError(
      Call("POST", document_.resumable_edit,
           {"Content-Type: application/atom+xml", "X-Upload-Content-Length: 6000"}, &metadata),
      413));
  ExpectUnchanged();
  // Exactly the limit is fine.
  std::string limit(5000, 'l');
  EXPECT_EQ(Call("POST", FeedUrl(), {}, &limit).status, 201);
}

TEST_F(BadInputTest, ChunkedCreateGrowingBeyondTheLimitIs413) {
  Prepare({"--max-upload-bytes", "5000"}, /*http=*/true);
  RawConnection raw(server_->port());
  std::string chunk(4000, 'c');
  std::string request =
      "POST /feeds/default/private/full HTTP/1.1\r\nHost: docs.quire.example\r\n"
      "Quire-Version: 3.0\r\nAuthorization: Bearer quire-demo-token\r\n"
      "Transfer-Encoding: chunked\r\n\r\nfa0\r\n" +
      chunk + "\r\nfa0\r\n" + chunk + "\r\n0\r\n\r\n";
  ASSERT_TRUE(raw.Send(request));
  std::string answer = raw.ReadAnswer();
  EXPECT_EQ(StatusOf(answer), 413) << answer;
  EXPECT_TRUE(AtomView::ParseError(BodyOf(answer)).parsed);
  ExpectUnchanged();
  EXPECT_TRUE(std::filesystem::is_empty(data() + "/tmp"));
}

TEST_F(BadInputTest, UnknownSessionsAndDocumentsAre404) {
  Prepare();
  std::string other = session_.substr(0, session_.rfind('/') + 1) + std::string(48, 'a');
  EXPECT_TRUE(IsError(StatusQuery(other, 4000), 404));
  EXPECT_TRUE(IsError(PutChunk(other, 0, "abc", 4000), 404));
  std::string unknown = FeedUrl() + "/ffffffffffffffffffffffff";
  std::string body = "new";
  EXPECT_TRUE(IsError(Call("GET", unknown + "/content"), 404));
  EXPECT_TRUE(IsError(Call("PUT", unknown, {}, &body), 404));
  EXPECT_TRUE(IsError(Call("DELETE", unknown), 404));
  EXPECT_TRUE(IsError(Call("DELETE", unknown, {"If-Match: *"}), 404));
  ExpectUnchanged();
}

TEST_F(BadInputTest, IdentifiersThatTryToLeaveTheDataFolderAre400) {
  Prepare();
  // Something outside the data folder that a path could name.
  std::ofstream(data() + "/../outside-" + std::to_string(::getpid())) << "secret";
  std::string body = "overwrite";
  const std::string feed = FeedUrl();
  for (const std::string& url :
       {feed + "/../../../etc/passwd", feed + "/..%2F..%2Fquire.db/content",
        feed + "/%2e%2e/content", feed + "/../quire.db", feed + "/.", feed + "/a%00b",
        feed + "/" + std::string(200, 'a'), feed + "/a.b/content",
        DocsUrl("/upload/sessions/..%2Fquire.db"), DocsUrl("/upload/sessions/../../quire.db"),
        DocsUrl("/upload/feeds/default/private/full/..%2F..")}) {
    HttpResult get = Call("GET", url);
    EXPECT_TRUE(IsError(get, 400)) << url;
    EXPECT_TRUE(IsError(Call("PUT", url, {"Content-Range: bytes 0-8/9"}, &body), 400)) << url;
    EXPECT_TRUE(IsError(Call("DELETE", url), 400)) << url;
  }
  ExpectUnchanged();
  EXPECT_TRUE(std::filesystem::exists(data() + "/quire.db"));
  std::ifstream outside(data() + "/../outside-" + std::to_string(::getpid()));
  std::string text;
  outside >> text;
  EXPECT_EQ(text, "secret");
  std::filesystem::remove(data() + "/../outside-" + std::to_string(::getpid()));
}

TEST_F(BadInputTest, BadTitlesTypesAndMetadataAre400) {
  Prepare();
  std::string body = "x";
  EXPECT_TRUE(IsError(Call("POST", FeedUrl(), {"Slug: broken%zz"}, &body), 400));
  EXPECT_TRUE(IsError(Call("POST", FeedUrl(), {"Slug: bad%FFutf8"}, &body), 400));
  EXPECT_TRUE(IsError(Call("POST", FeedUrl(), {"Slug: control%01char"}, &body), 400));
  EXPECT_TRUE(IsError(Call("POST", FeedUrl(), {"Content-Type: notatype"}, &body), 400));
  std::string url = Feed().links[q::kResumableCreateMediaRel];
  for (const std::string& metadata :
       {std::string("<entry><title>unclosed</entry>"), std::string("not xml at all"),
        std::string("<feed xmlns=\"http://www.w3.org/2005/Atom\"/>")}) {
    HttpResult result =
        Call("POST", url, {"Content-Type: application/atom+xml", "X-Upload-Content-Length: 3"},
             &metadata);
    EXPECT_TRUE(IsError(result, 400)) << metadata;
    EXPECT_FALSE(result.Has("Location"));
  }
  EXPECT_TRUE(IsError(Call("POST", url,
                           {"Content-Type: application/atom+xml", "X-Upload-Content-Length: 3",
                            "X-Upload-Content-Type: nonsense"},
                           &body),
                      400));
  ExpectUnchanged();
  // Only the prepared session has a file.
  std::size_t sessions = 0;
  for (const auto& item : std::filesystem::directory_iterator(data() + "/uploads")) {
    (void)item;
    ++sessions;
  }
  EXPECT_EQ(sessions, 1u);
}

TEST_F(BadInputTest, StaleTagsAre412AndChangeNothing) {
  Prepare();
  std::string body = "changed";
  EXPECT_TRUE(IsError(Call("PUT", document_.edit, {"If-Match: \"stale\""}, &body), 412));
  EXPECT_TRUE(IsError(Call("DELETE", document_.edit, {"If-Match: \"stale\""}), 412));
  std::string metadata;
  EXPECT_TRUE(IsError(Call("POST", document_.resumable_edit,
                           {"X-Upload-Content-Length: 3", "If-Match: \"stale\""}, &metadata),
                      412));
  ExpectUnchanged();
}

TEST_F(BadInputTest, MalformedHttpIs400WithAnErrorDocument) {
  Prepare({}, /*http=*/true);
  for (const std::string& request :
       {std::string("GARBAGE\r\n\r\n"),
        std::string("GET /feeds/default/private/full HTTP/1.1\r\nBad Header Line\r\n\r\n"),
        std::string("POST /feeds/default/private/full HTTP/1.1\r\nHost: x\r\n"
                    "Quire-Version: 3.0\r\nAuthorization: Bearer quire-demo-token\r\n"
                    "Content-Length: 5\r\nContent-Length: 6\r\n\r\nhello!"),
        std::string("POST /feeds/default/private/full HTTP/1.1\r\nHost: x\r\n"
                    "Quire-Version: 3.0\r\nAuthorization: Bearer quire-demo-token\r\n"
                    "Transfer-Encoding: chunked\r\n\r\nzz\r\nhello\r\n0\r\n\r\n")}) {
    RawConnection raw(server_->port());
    ASSERT_TRUE(raw.Send(request));
    std::string answer = raw.ReadAnswer();
    EXPECT_EQ(StatusOf(answer), 400) << request << "\n" << answer;
    EXPECT_NE(answer.find("Content-Type: application/xml"), std::string::npos);
    EXPECT_TRUE(AtomView::ParseError(BodyOf(answer)).parsed);
  }
  ExpectUnchanged();
  EXPECT_TRUE(std::filesystem::is_empty(data() + "/tmp"));
}

}  // namespace
}  // namespace quire_test::server
