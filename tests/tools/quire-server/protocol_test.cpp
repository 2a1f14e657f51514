// The emulator's answers to every request of the service's protocol, through a plain HTTP client
// over HTTPS (or plain HTTP where a test says so).
#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <thread>

#include "quire/model/link_relations.h"
#include "quire/services/endpoints.h"
#include "tests/tools/quire-server/raw_connection.h"
#include "tests/tools/quire-server/server_test.h"

namespace quire_test::server {
namespace {

namespace q = kestrel::quire;

// RFC 3339 with milliseconds and "Z": 2024-05-01T12:34:56.789Z.
bool IsTimestamp(const std::string& text) {
  const std::string form = "dddd-dd-ddTdd:dd:dd.dddZ";
  if (text.size() != form.size()) return false;
  for (std::size_t i = 0; i < form.size(); ++i) {
    bool ok = form[i] == 'd' ? (text[i] >= '0' && text[i] <= '9') : text[i] == form[i];
    if (!ok) return false;
  }
  return true;
}

bool IsQuotedTag(const std::string& text) {
  return text.size() > 2 && text.front() == '"' && text.back() == '"' &&
         text.find('"', 1) == text.size() - 1;
}

class ProtocolTest : public ServerTest {};

// --- Headers every request carries ---

TEST_F(ProtocolTest, RequestWithoutVersionGets400) {
  Start();
  HttpResult result =
      client_->Send("GET", FeedUrl(), {std::string("Authorization: Bearer ") + kToken});
  EXPECT_TRUE(IsError(result, 400));
  EXPECT_EQ(AtomView::ParseError(result.body).code, "missingVersion");
  // Also for the user information, which needs no token.
  EXPECT_TRUE(IsError(client_->Send("GET", UserInfoUrl(), {}), 400));
}

TEST_F(ProtocolTest, RequestWithAnotherVersionGets400) {
  Start();
  for (const char* version : {"2.0", "3", "3.0.1", ""}) {
    HttpResult result = client_->Send(
        "GET", FeedUrl(),
        {std::string("Quire-Version: ") + version, std::string("Authorization: Bearer ") + kToken});
    EXPECT_TRUE(IsError(result, 400)) << version;
  }
}

TEST_F(ProtocolTest, MissingTokenGets401WithBearerChallenge) {
  Start();
  HttpResult result = Call("GET", FeedUrl(), {}, nullptr, /*auth=*/false);
  EXPECT_TRUE(IsError(result, 401));
  EXPECT_EQ(result.Header("WWW-Authenticate").rfind("Bearer", 0), 0u)
      << result.Header("WWW-Authenticate");
}

TEST_F(ProtocolTest, UnknownTokenGets401) {
  Start();
  for (const char* line : {"Authorization: Bearer not-the-token", "Authorization: Basic abc",
                           "Authorization: Bearer", "Authorization: quire-demo-token"}) {
    HttpResult result = client_->Send("GET", FeedUrl(), {"Quire-Version: 3.0", line});
    EXPECT_TRUE(IsError(result, 401)) << line;
    EXPECT_EQ(result.Header("WWW-Authenticate").rfind("Bearer", 0), 0u) << line;
  }
}

TEST_F(ProtocolTest, EveryTokenGivenOnTheCommandLineIsAccepted) {
  Start({"--token", "first-token", "--token", "second-token"});
  for (const char* token : {"first-token", "second-token"}) {
    HttpResult result = client_->Send(
        "GET", FeedUrl(), {"Quire-Version: 3.0", std::string("Authorization: Bearer ") + token});
    EXPECT_EQ(result.status, 200) << token;
  }
  // The default token is not accepted once tokens are given.
  EXPECT_TRUE(IsError(Call("GET", FeedUrl()), 401));
}

TEST_F(ProtocolTest, TokenIsRequiredOnEveryDocumentRequest) {
  Start();
  EntryView entry = Create("x");
  std::string body = "y";
  EXPECT_TRUE(IsError(Call("GET", entry.content_src, {}, nullptr, false), 401));
  EXPECT_TRUE(IsError(Call("POST", FeedUrl(), {}, &body, false), 401));
  EXPECT_TRUE(IsError(Call("PUT", entry.edit, {}, &body, false), 401));
  EXPECT_TRUE(IsError(Call("DELETE", entry.edit, {}, nullptr, false), 401));
  EXPECT_TRUE(IsError(Call("POST", Feed().links[q::kResumableCreateMediaRel],
                           {"X-Upload-Content-Length: 1"}, &body, false),
                      401));
  EXPECT_EQ(Content(entry), "x");
}

// --- User information ---

TEST_F(ProtocolTest, UserInfoAnswersTheAccountWithoutToken) {
  Start();
  HttpResult result = Call("GET", UserInfoUrl(), {}, nullptr, /*auth=*/false);
  EXPECT_EQ(result.status, 200);
  EXPECT_EQ(result.Header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(result.body, std::string("email=") + kAccount + "&isVerified=true");
}

TEST_F(ProtocolTest, UserInfoAnswersTheConfiguredAccount) {
  Start({"--account", "someone@example.org"});
  HttpResult result = Call("GET", UserInfoUrl(), {}, nullptr, false);
  EXPECT_EQ(result.body, "email=someone@example.org&isVerified=true");
}

// --- The document feed ---

TEST_F(ProtocolTest, EmptyFeedCarriesItsLinksPrefixesAndPaging) {
  Start();
  HttpResult result = Call("GET", FeedUrl());
  ASSERT_EQ(result.status, 200);
  EXPECT_EQ(result.Header("Content-Type"), "application/atom+xml");
  FeedView feed = AtomView::ParseFeed(result.body);
  ASSERT_TRUE(feed.parsed) << result.body;
  EXPECT_EQ(feed.namespaces[""], "http://www.w3.org/2005/Atom");
  EXPECT_EQ(feed.namespaces.count("qr"), 1u);
  EXPECT_EQ(feed.namespaces.count("docs"), 1u);
  EXPECT_EQ(feed.namespaces.count("openSearch"), 1u);
  EXPECT_TRUE(feed.has_etag);
  EXPECT_FALSE(feed.etag.empty());
  EXPECT_EQ(feed.id, q::DocsFeedUrl);
  EXPECT_TRUE(IsTimestamp(feed.updated)) << feed.updated;
  EXPECT_FALSE(feed.title.empty());
  EXPECT_EQ(feed.links[q::kFeedRel], q::DocsFeedUrl);
  EXPECT_EQ(feed.links[q::kPostRel], q::DocsFeedUrl);
  EXPECT_EQ(feed.links[q::kBatchRel].rfind("https://docs.quire.example/", 0), 0u);
  EXPECT_EQ(feed.links[q::kResumableCreateMediaRel].rfind("https://docs.quire.example/", 0), 0u);
  EXPECT_EQ(feed.total_results, "0");
  EXPECT_EQ(feed.start_index, "1");
  EXPECT_EQ(feed.items_per_page, "0");
  EXPECT_TRUE(feed.entries.empty());
}

TEST_F(ProtocolTest, FeedListsEveryDocumentWithAllItsLinks) {
  Start();
  std::set<std::string> ids;
  for (int i = 0; i < 3; ++i) {
    ids.insert(AtomView::IdOf(
        Create("content " + std::to_string(i), "doc" + std::to_string(i), "text/plain")));
  }
  FeedView feed = Feed();
  EXPECT_EQ(feed.total_results, "3");
  EXPECT_EQ(feed.items_per_page, "3");
  EXPECT_EQ(feed.start_index, "1");
  ASSERT_EQ(feed.entries.size(), 3u);
  std::set<std::string> seen;
  for (const EntryView& entry : feed.entries) {
    std::string id = AtomView::IdOf(entry);
    seen.insert(id);
    EXPECT_TRUE(IsQuotedTag(entry.etag)) << entry.etag;
    EXPECT_EQ(entry.edit, std::string(q::DocsFeedUrl) + "/" + id);
    EXPECT_FALSE(entry.id.empty());
    EXPECT_TRUE(IsTimestamp(entry.updated)) << entry.updated;
    EXPECT_EQ(entry.title.rfind("doc", 0), 0u);
    EXPECT_EQ(entry.content_type, "text/plain");
    EXPECT_EQ(entry.content_src.rfind("https://docs.quire.example/", 0), 0u);
    EXPECT_EQ(entry.resumable_edit.rfind("https://docs.quire.example/", 0), 0u);
    EXPECT_EQ(entry.acl.rfind("https://docs.quire.example/", 0), 0u);
    EXPECT_EQ(entry.revisions.rfind("https://docs.quire.example/", 0), 0u);
    EXPECT_FALSE(entry.starred);
    EXPECT_EQ(entry.starred_categories, 0);
    EXPECT_FALSE(entry.removed);
    EXPECT_EQ(Content(entry).rfind("content ", 0), 0u);
  }
  EXPECT_EQ(seen, ids);
}

TEST_F(ProtocolTest, FeedEtagChangesWithEveryChangeAndOnlyThen) {
  Start();
  std::string first = Feed().etag;
  EXPECT_EQ(Feed().etag, first);
  EntryView entry = Create("a");
  std::string created = Feed().etag;
  EXPECT_NE(created, first);
  EXPECT_EQ(Feed().etag, created);
  std::string body = "b";
  ASSERT_EQ(Call("PUT", entry.edit, {}, &body).status, 200);
  std::string replaced = Feed().etag;
  EXPECT_NE(replaced, created);
  ASSERT_EQ(Call("DELETE", entry.edit).status, 200);
  std::string deleted = Feed().etag;
  EXPECT_NE(deleted, replaced);
  EXPECT_NE(deleted, first);
}

TEST_F(ProtocolTest, StarredAndTrashedDocumentsCarryTheirFlags) {
  Start();
  EntryView plain = Create("p", "plain");
  EntryView starred = Create("s", "starred");
  EntryView trashed = Create("t", "trashed");
  std::string before = Feed().etag;
  HttpResult star =
      Call("POST", DocsUrl("/emulator/documents/" + AtomView::IdOf(starred) + "/star"));
  ASSERT_EQ(star.status, 200) << star.body;
  EntryView star_entry = AtomView::ParseEntry(star.body);
  EXPECT_TRUE(star_entry.starred);
  EXPECT_NE(star_entry.etag, starred.etag);
  ASSERT_EQ(
      Call("POST", DocsUrl("/emulator/documents/" + AtomView::IdOf(trashed) + "/trash")).status,
      200);
  FeedView feed = Feed();
  EXPECT_NE(feed.etag, before);
  ASSERT_EQ(feed.entries.size(), 3u);  // trashed documents stay in the feed
  const EntryView* p = feed.Find(AtomView::IdOf(plain));
  const EntryView* s = feed.Find(AtomView::IdOf(starred));
  const EntryView* t = feed.Find(AtomView::IdOf(trashed));
  ASSERT_TRUE(p && s && t);
  EXPECT_FALSE(p->starred);
  EXPECT_FALSE(p->removed);
  EXPECT_TRUE(s->starred);
  EXPECT_EQ(s->starred_categories, 1);
  EXPECT_FALSE(s->removed);
  EXPECT_TRUE(t->removed);
  EXPECT_FALSE(t->starred);

  ASSERT_EQ(
      Call("POST", DocsUrl("/emulator/documents/" + AtomView::IdOf(starred) + "/unstar")).status,
      200);
  ASSERT_EQ(
      Call("POST", DocsUrl("/emulator/documents/" + AtomView::IdOf(trashed) + "/restore")).status,
      200);
  feed = Feed();
  EXPECT_FALSE(feed.Find(AtomView::IdOf(starred))->starred);
  EXPECT_EQ(feed.Find(AtomView::IdOf(starred))->starred_categories, 0);
  EXPECT_FALSE(feed.Find(AtomView::IdOf(trashed))->removed);
  EXPECT_TRUE(IsError(Call("POST", DocsUrl("/emulator/documents/unknown/star")), 404));
  EXPECT_TRUE(IsError(
      Call("POST", DocsUrl("/emulator/documents/" + AtomView::IdOf(plain) + "/explode")), 404));
}

TEST_F(ProtocolTest, PlainHttpHandsOutHttpAddresses) {
  Start({}, /*http=*/true);
  EntryView entry = Create("over http");
  FeedView feed = Feed();
  EXPECT_EQ(feed.links[q::kFeedRel], "http://docs.quire.example/feeds/default/private/full");
  EXPECT_EQ(feed.links[q::kResumableCreateMediaRel].rfind("http://docs.quire.example/", 0), 0u);
  EXPECT_EQ(entry.edit.rfind("http://docs.quire.example/", 0), 0u);
  EXPECT_EQ(entry.content_src.rfind("http://docs.quire.example/", 0), 0u);
  EXPECT_EQ(Content(entry), "over http");
  std::string session = OpenUpload(feed.links[q::kResumableCreateMediaRel], 3);
  EXPECT_EQ(session.rfind("http://docs.quire.example/", 0), 0u);
}

// --- Content, create, replace, delete ---

TEST_F(ProtocolTest, CreateAnswers201WithLocationAndEntry) {
  Start();
  std::string content = RandomBytes(5000, 1);
  HttpResult result = Call(
      "POST", FeedUrl(), {"Slug: My%20report%20%C3%A9t%C3%A9", "Content-Type: text/csv"}, &content);
  ASSERT_EQ(result.status, 201) << result.body;
  EXPECT_EQ(result.Header("Content-Type"), "application/atom+xml");
  EntryView entry = AtomView::ParseEntry(result.body);
  ASSERT_TRUE(entry.parsed);
  EXPECT_EQ(result.Header("Location"), entry.edit);
  EXPECT_EQ(entry.namespaces.count("qr"), 1u);
  EXPECT_EQ(entry.namespaces.count("docs"), 1u);
  EXPECT_EQ(entry.namespaces.count("openSearch"), 1u);
  EXPECT_TRUE(IsQuotedTag(entry.etag));
  EXPECT_EQ(entry.title, "My report \xC3\xA9t\xC3\xA9");
  EXPECT_EQ(entry.content_type, "text/csv");
  EXPECT_FALSE(entry.acl.empty());
  EXPECT_FALSE(entry.revisions.empty());
  EXPECT_FALSE(entry.resumable_edit.empty());
  HttpResult get = Call("GET", entry.content_src);
  EXPECT_EQ(get.status, 200);
  EXPECT_EQ(get.Header("Content-Type"), "text/csv");
  EXPECT_EQ(get.body, content);
}

TEST_F(ProtocolTest, CreateWithoutSlugOrTypeUsesTheDefaults) {
  Start();
  EntryView entry = Create("bytes");
  EXPECT_EQ(entry.title, "Untitled");
  EXPECT_EQ(entry.content_type, "application/octet-stream");
  HttpResult get = Call("GET", entry.content_src);
  EXPECT_EQ(get.Header("Content-Type"), "application/octet-stream");
  EXPECT_EQ(get.body, "bytes");
}

TEST_F(ProtocolTest, EmptyDocumentsAndLargeDocumentsKeepTheirBytes) {
  Start();
  EntryView empty = Create("");
  HttpResult get = Call("GET", empty.content_src);
  EXPECT_EQ(get.status, 200);
  EXPECT_EQ(get.Header("Content-Length"), "0");
  EXPECT_EQ(get.body, "");
  std::string big = RandomBytes(5 << 20, 2);
  EntryView large = Create(big);
  EXPECT_EQ(Sha256Hex(Content(large)), Sha256Hex(big));
}

TEST_F(ProtocolTest, EntryAndContentOfUnknownDocumentAre404) {
  Start();
  EXPECT_TRUE(IsError(Call("GET", FeedUrl() + "/0123456789abcdef01234567/content"), 404));
  EXPECT_TRUE(IsError(Call("GET", FeedUrl() + "/0123456789abcdef01234567"), 404));
  EXPECT_TRUE(IsError(Call("GET", FeedUrl() + "/0123456789abcdef01234567/acl"), 404));
}

TEST_F(ProtocolTest, EntryAddressAnswersTheEntryAndHeadAnswersLengths) {
  Start();
  EntryView created = Create("twelve bytes", "head", "text/plain");
  HttpResult entry = Call("GET", created.edit);
  EXPECT_EQ(entry.status, 200);
  EXPECT_EQ(AtomView::ParseEntry(entry.body).etag, created.etag);
  EXPECT_EQ(entry.Header("ETag"), created.etag);
  HttpResult head = Call("HEAD", created.content_src);
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.Header("Content-Length"), "12");
  EXPECT_TRUE(head.body.empty());
}

TEST_F(ProtocolTest, ReplaceAnswersTheUpdatedEntryWithANewTag) {
  Start();
  EntryView entry = Create("old", "keeps its title", "text/plain");
  std::string body = "new content";
  HttpResult result = Call("PUT", entry.edit, {}, &body);
  ASSERT_EQ(result.status, 200) << result.body;
  EntryView updated = AtomView::ParseEntry(result.body);
  EXPECT_TRUE(IsQuotedTag(updated.etag));
  EXPECT_NE(updated.etag, entry.etag);
  EXPECT_EQ(updated.edit, entry.edit);
  EXPECT_EQ(updated.title, "keeps its title");
  EXPECT_EQ(updated.content_type, "text/plain");
  EXPECT_EQ(Content(updated), "new content");
  EXPECT_EQ(Feed().Find(AtomView::IdOf(entry))->etag, updated.etag);
}

TEST_F(ProtocolTest, ReplaceHonoursIfMatch) {
  Start();
  EntryView entry = Create("v1");
  std::string v2 = "v2";
  HttpResult ok = Call("PUT", entry.edit, {"If-Match: " + entry.etag}, &v2);
  ASSERT_EQ(ok.status, 200);
  std::string current = AtomView::ParseEntry(ok.body).etag;
  std::string v3 = "v3";
  // The old tag no longer matches: nothing changes.
  EXPECT_TRUE(IsError(Call("PUT", entry.edit, {"If-Match: " + entry.etag}, &v3), 412));
  EXPECT_EQ(Content(entry), "v2");
  EXPECT_EQ(Feed().Find(AtomView::IdOf(entry))->etag, current);
  EXPECT_EQ(Call("PUT", entry.edit, {"If-Match: *"}, &v3).status, 200);
  EXPECT_EQ(Content(entry), "v3");
}

TEST_F(ProtocolTest, ReplaceOfUnknownDocumentIs404) {
  Start();
  std::string body = "x";
  EXPECT_TRUE(IsError(Call("PUT", FeedUrl() + "/0123456789abcdef01234567", {}, &body), 404));
  EXPECT_EQ(Feed().entries.size(), 0u);
}

TEST_F(ProtocolTest, DeleteWithoutIfMatchIsUnconditional) {
  Start();
  EntryView entry = Create("doomed");
  HttpResult result = Call("DELETE", entry.edit);
  EXPECT_EQ(result.status, 200);
  EXPECT_TRUE(result.body.empty());
  EXPECT_TRUE(IsError(Call("GET", entry.content_src), 404));
  EXPECT_TRUE(Feed().entries.empty());
  EXPECT_TRUE(IsError(Call("DELETE", entry.edit), 404));
}

TEST_F(ProtocolTest, DeleteWithIfMatchNeedsTheExactCurrentTag) {
  Start();
  EntryView entry = Create("guarded");
  std::string bare = entry.etag.substr(1, entry.etag.size() - 2);
  for (const std::string& wrong :
       {std::string("\"nope\""), "W/" + entry.etag, bare, entry.etag + "x"}) {
    EXPECT_TRUE(IsError(Call("DELETE", entry.edit, {"If-Match: " + wrong}), 412)) << wrong;
    EXPECT_EQ(Content(entry), "guarded");
  }
  HttpResult result = Call("DELETE", entry.edit, {"If-Match: " + entry.etag});
  EXPECT_EQ(result.status, 200);
  EXPECT_TRUE(Feed().entries.empty());
}

TEST_F(ProtocolTest, DeleteWithIfMatchStarDeletes) {
  Start();
  EntryView entry = Create("any");
  EXPECT_EQ(Call("DELETE", entry.edit, {"If-Match: *"}).status, 200);
  EXPECT_TRUE(IsError(Call("DELETE", entry.edit, {"If-Match: *"}), 404));
}

TEST_F(ProtocolTest, ChunkedBodiesAreAccepted) {
  Start({}, /*http=*/true);
  RawConnection raw(server_->port());
  ASSERT_TRUE(
      raw.Send("POST /feeds/default/private/full HTTP/1.1\r\nHost: docs.quire.example\r\n"
               "Quire-Version: 3.0\r\nAuthorization: Bearer quire-demo-token\r\n"
               "Content-Type: text/plain\r\nTransfer-Encoding: chunked\r\n\r\n"
               "6\r\nhello \r\n5\r\nworld\r\n0\r\n\r\n"));
  std::string answer = raw.ReadAnswer();
  ASSERT_EQ(StatusOf(answer), 201) << answer;
  EXPECT_EQ(Content(AtomView::ParseEntry(BodyOf(answer))), "hello world");
  // The connection stays usable.
  ASSERT_TRUE(
      raw.Send("GET /userinfo/email HTTP/1.1\r\nHost: api.quire.example\r\n"
               "Quire-Version: 3.0\r\n\r\n"));
  EXPECT_EQ(StatusOf(raw.ReadAnswer()), 200);
}

TEST_F(ProtocolTest, ExpectContinueIsHonoured) {
  Start({}, /*http=*/true);
  std::string head =
      "POST /feeds/default/private/full HTTP/1.1\r\nHost: docs.quire.example\r\n"
      "Quire-Version: 3.0\r\nContent-Length: 5\r\nExpect: 100-continue\r\n";
  {
    // Accepted: an interim 100, then the body, then the answer.
    RawConnection raw(server_->port());
    ASSERT_TRUE(raw.Send(head + "Authorization: Bearer quire-demo-token\r\n\r\n"));
    EXPECT_EQ(StatusOf(raw.ReadAnswer()), 100);
    ASSERT_TRUE(raw.Send("12345"));
    std::string answer = raw.ReadAnswer();
    ASSERT_EQ(StatusOf(answer), 201) << answer;
    EXPECT_EQ(Content(AtomView::ParseEntry(BodyOf(answer))), "12345");
  }
  {
    // Refused: the final answer at once, without waiting for the body.
    RawConnection raw(server_->port());
    ASSERT_TRUE(raw.Send(head + "\r\n"));
    std::string answer = raw.ReadAnswer(5000);
    EXPECT_EQ(StatusOf(answer), 401) << answer;
  }
  EXPECT_EQ(Feed().entries.size(), 1u);
}

// --- Resumable upload ---

TEST_F(ProtocolTest, ResumableCreateWithChunksThatOverlapByOneByte) {
  Start();
  std::string data = RandomBytes(1000000, 3);
  FeedView feed = Feed();
  std::string session =
      OpenUpload(feed.links[q::kResumableCreateMediaRel], data.size(), "application/pdf",
                 "<entry xmlns=\"http://www.w3.org/2005/Atom\"><title>Quarterly</title></entry>");
  ASSERT_EQ(session.rfind("https://docs.quire.example/", 0), 0u) << session;
  std::string session_id = session.substr(session.rfind('/') + 1);
  EXPECT_GE(session_id.size(), 32u);  // at least 128 random bits in hexadecimal

  HttpResult first = PutChunk(session, 0, data.substr(0, 524288), data.size());
  ASSERT_EQ(first.status, 308) << first.body;
  EXPECT_EQ(first.Header("Range"), "bytes=0-524287");
  // The client resends the last byte it was told of.
  HttpResult last = PutChunk(session, 524287, data.substr(524287), data.size());
  ASSERT_EQ(last.status, 201) << last.body;
  EntryView entry = AtomView::ParseEntry(last.body);
  ASSERT_TRUE(entry.parsed);
  EXPECT_EQ(last.Header("Location"), entry.edit);
  EXPECT_EQ(entry.title, "Quarterly");
  EXPECT_EQ(entry.content_type, "application/pdf");
  EXPECT_EQ(Sha256Hex(Content(entry)), Sha256Hex(data));
  // The session is gone.
  EXPECT_TRUE(IsError(StatusQuery(session, data.size()), 404));
  EXPECT_TRUE(IsError(PutChunk(session, 999999, data.substr(999999), data.size()), 404));
  EXPECT_EQ(Feed().entries.size(), 1u);
}

TEST_F(ProtocolTest, ResumableCreateWithoutMetadataIsUntitled) {
  Start();
  std::string session = OpenUpload(Feed().links[q::kResumableCreateMediaRel], 4, "text/plain");
  HttpResult done = PutChunk(session, 0, "abcd", 4);
  ASSERT_EQ(done.status, 201);
  EXPECT_EQ(AtomView::ParseEntry(done.body).title, "Untitled");
}

TEST_F(ProtocolTest, StatusQueryReportsWithoutStoring) {
  Start();
  std::string data = RandomBytes(3000, 4);
  std::string session = OpenUpload(Feed().links[q::kResumableCreateMediaRel], data.size());
  HttpResult none = StatusQuery(session, data.size());
  EXPECT_EQ(none.status, 308);
  EXPECT_FALSE(none.Has("Range"));
  ASSERT_EQ(PutChunk(session, 0, data.substr(0, 1000), data.size()).status, 308);
  for (int i = 0; i < 2; ++i) {
    HttpResult status = StatusQuery(session, data.size());
    EXPECT_EQ(status.status, 308);
    EXPECT_EQ(status.Header("Range"), "bytes=0-999");
    EXPECT_TRUE(status.body.empty());
  }
  EXPECT_TRUE(Feed().entries.empty());
  ASSERT_EQ(PutChunk(session, 999, data.substr(999), data.size()).status, 201);
  EXPECT_EQ(Content(Feed().entries.at(0)), data);
}

TEST_F(ProtocolTest, ChunkStartingBeyondWhatIsHeldStoresNothing) {
  Start();
  std::string data = RandomBytes(3000, 5);
  std::string session = OpenUpload(Feed().links[q::kResumableCreateMediaRel], data.size());
  HttpResult gap = PutChunk(session, 1000, data.substr(1000, 1000), data.size());
  EXPECT_EQ(gap.status, 308);
  EXPECT_FALSE(gap.Has("Range"));
  ASSERT_EQ(PutChunk(session, 0, data.substr(0, 500), data.size()).status, 308);
  HttpResult still = PutChunk(session, 501, data.substr(501, 2499), data.size());
  EXPECT_EQ(still.status, 308);
  EXPECT_EQ(still.Header("Range"), "bytes=0-499");
  // Overlapping bytes are written again; a chunk that ends inside what is held changes nothing.
  EXPECT_EQ(PutChunk(session, 0, data.substr(0, 100), data.size()).Header("Range"), "bytes=0-499");
  ASSERT_EQ(PutChunk(session, 499, data.substr(499), data.size()).status, 201);
  EXPECT_EQ(Content(Feed().entries.at(0)), data);
}

TEST_F(ProtocolTest, ResumableEditReplacesTheContent) {
  Start();
  EntryView entry = Create("old content", "Named", "text/plain");
  std::string data = RandomBytes(200000, 6);
  std::string session = OpenUpload(entry.resumable_edit, data.size(), "application/x-new");
  ASSERT_EQ(PutChunk(session, 0, data.substr(0, 65536), data.size()).status, 308);
  // Not visible before the upload completes.
  EXPECT_EQ(Content(entry), "old content");
  HttpResult done = PutChunk(session, 65535, data.substr(65535), data.size());
  ASSERT_EQ(done.status, 200) << done.body;
  EntryView updated = AtomView::ParseEntry(done.body);
  EXPECT_EQ(AtomView::IdOf(updated), AtomView::IdOf(entry));
  EXPECT_NE(updated.etag, entry.etag);
  EXPECT_EQ(updated.title, "Named");
  EXPECT_EQ(updated.content_type, "application/x-new");
  EXPECT_EQ(Content(entry), data);
  EXPECT_EQ(Feed().entries.size(), 1u);
  EXPECT_TRUE(IsError(StatusQuery(session, data.size()), 404));
}

TEST_F(ProtocolTest, ResumableEditWithTitleRenames) {
  Start();
  EntryView entry = Create("a", "Before");
  std::string session =
      OpenUpload(entry.resumable_edit, 1, "text/plain",
                 "<entry xmlns=\"http://www.w3.org/2005/Atom\"><title>After</title></entry>");
  HttpResult done = PutChunk(session, 0, "b", 1);
  ASSERT_EQ(done.status, 200);
  EXPECT_EQ(AtomView::ParseEntry(done.body).title, "After");
}

TEST_F(ProtocolTest, ResumableEditOfUnknownDocumentIs404) {
  Start();
  std::string metadata;
  HttpResult result =
      Call("POST", DocsUrl("/upload/feeds/default/private/full/0123456789abcdef01234567"),
           {"X-Upload-Content-Length: 10", "Content-Type: application/atom+xml"}, &metadata);
  EXPECT_TRUE(IsError(result, 404));
}

TEST_F(ProtocolTest, ResumableEditOfADocumentDeletedMeanwhileIs404) {
  Start();
  EntryView entry = Create("a");
  std::string session = OpenUpload(entry.resumable_edit, 2);
  ASSERT_EQ(PutChunk(session, 0, "x", 2).status, 308);
  ASSERT_EQ(Call("DELETE", entry.edit).status, 200);
  EXPECT_TRUE(IsError(PutChunk(session, 0, "xy", 2), 404));
  EXPECT_TRUE(Feed().entries.empty());
}

TEST_F(ProtocolTest, OpeningAnUploadNeedsADecimalLength) {
  Start();
  std::string url = Feed().links[q::kResumableCreateMediaRel];
  std::string metadata;
  EXPECT_TRUE(IsError(Call("POST", url, {"Content-Type: application/atom+xml"}, &metadata), 400));
  for (const char* length : {"", "12a", "-5", "0x10", "1 2", "1.5", "99999999999999999999"}) {
    HttpResult result = Call(
        "POST", url,
        {"Content-Type: application/atom+xml", std::string("X-Upload-Content-Length: ") + length},
        &metadata);
    EXPECT_TRUE(IsError(result, 400)) << length;
    EXPECT_FALSE(result.Has("Location"));
  }
}

TEST_F(ProtocolTest, EmptyUploadCompletesOnTheStatusQuery) {
  Start();
  std::string session = OpenUpload(Feed().links[q::kResumableCreateMediaRel], 0, "text/plain");
  HttpResult done = StatusQuery(session, 0);
  ASSERT_EQ(done.status, 201) << done.body;
  EXPECT_EQ(Content(AtomView::ParseEntry(done.body)), "");
}

TEST_F(ProtocolTest, IdleSessionsAreDropped) {
  Start({"--session-timeout", "1"});
  std::string url = Feed().links[q::kResumableCreateMediaRel];
  std::string idle = OpenUpload(url, 10);
  std::string busy = OpenUpload(url, 10);
  ASSERT_EQ(PutChunk(idle, 0, "abc", 10).status, 308);
  // A session that sees requests stays; one that sees none for the timeout is dropped.
  for (int i = 0; i < 5; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    ASSERT_EQ(StatusQuery(busy, 10).status, 308);
  }
  EXPECT_TRUE(IsError(StatusQuery(idle, 10), 404));
  EXPECT_EQ(PutChunk(busy, 0, "0123456789", 10).status, 201);
}

TEST_F(ProtocolTest, UnprovidedAddressesAnswerWithErrorDocuments) {
  Start();
  EntryView entry = Create("x");
  FeedView feed = Feed();
  std::string body = "<feed/>";
  EXPECT_TRUE(IsError(Call("POST", feed.links[q::kBatchRel], {}, &body), 501));
  EXPECT_TRUE(IsError(Call("GET", entry.acl), 501));
  EXPECT_TRUE(IsError(Call("GET", entry.revisions), 501));
  EXPECT_TRUE(IsError(Call("GET", DocsUrl("/no/such/thing")), 404));
  HttpResult wrong = Call("PATCH", FeedUrl(), {}, &body);
  EXPECT_TRUE(IsError(wrong, 405));
  EXPECT_FALSE(wrong.Header("Allow").empty());
  EXPECT_TRUE(IsError(Call("DELETE", FeedUrl()), 405));
  EXPECT_TRUE(IsError(Call("GET", OpenUpload(feed.links[q::kResumableCreateMediaRel], 1)), 405));
}

}  // namespace
}  // namespace quire_test::server
