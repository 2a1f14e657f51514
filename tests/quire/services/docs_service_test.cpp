// DocsService through a host connection: the requests it describes and what its completion handlers
// make of each answer.
#include "quire/services/docs_service.h"

#include <gtest/gtest.h>

#include "quire/services/endpoints.h"
#include "tests/quire/model/sample_documents.h"
#include "tests/quire/services/recording_connection.h"
#include "tests/support/guard_death_test.h"
#include "tests/support/test_support.h"

namespace quire_test::services {
namespace {

using namespace kestrel::quire;  // NOLINT(build/namespaces): the services and their callbacks

// What a feed or entry callback saw, copied while it ran.
struct FeedCall {
  NetworkResponseInfo info{};
  bool fresh = false;
  std::size_t entries = 0;
  QString etag;
  QString first_title;
  const DocsFeed* address = nullptr;
};

struct EntryCall {
  NetworkResponseInfo info{};
  bool fresh = false;
  QString etag;
  QString title;
  QUrl edit_link;
};

bool IsFresh(const DocsFeed& feed) {
  return feed.batch_link.isEmpty() && feed.resumable_create_media_link.isEmpty() &&
         feed.etag.isNull() && feed.feed_link.isEmpty() && feed.items_per_page == 0 &&
         feed.entries.size() == 0 && feed.updated.isNull() && feed.post_link.isEmpty() &&
         feed.start_index == 0;
}

bool IsFresh(const DocsEntry& entry) {
  return entry.acl_feed_link.isEmpty() && entry.edit_link.isEmpty() &&
         entry.resumable_edit_media_link.isEmpty() && entry.etag.isNull() && entry.id.isNull() &&
         entry.reserved_strings.isEmpty() && entry.updated.isNull() &&
         entry.content_type.isNull() && entry.revisions_feed_link.isEmpty() &&
         entry.title.isNull() && entry.content_src.isEmpty() && !entry.removed && !entry.starred;
}

class DocsServiceTest : public quire_test::ScriptedTest {
 protected:
  DocsServiceTest() : service_(new RecordingConnection(&log_, 100)) {}

  FeedCallback RecordFeed() {
    return [this](NetworkResponseInfo info, const DocsFeed& feed) {
      FeedCall call;
      call.info = info;
      call.fresh = IsFresh(feed);
      call.entries = feed.entries.size();
      call.etag = feed.etag;
      if (feed.entries.size() > 0) call.first_title = feed.entries[0]->title;
      call.address = &feed;
      feed_calls_.push_back(call);
    };
  }

  EntryCallback RecordEntry() {
    return [this](NetworkResponseInfo info, const DocsEntry& entry) {
      entry_calls_.push_back({info, IsFresh(entry), entry.etag, entry.title, entry.edit_link});
    };
  }

  // Issues GetFeed and answers it; returns what the callback saw.
  FeedCall FeedAnswer(std::int32_t status, const QByteArray& body) {
    feed_calls_.clear();
    const std::size_t index = log_.requests.size();
    const unsigned int id = service_.GetFeed(RecordFeed());
    EXPECT_TRUE(feed_calls_.empty());
    Answer(&log_, index, status, body);
    EXPECT_EQ(feed_calls_.size(), 1u);
    if (feed_calls_.size() != 1) return {};
    EXPECT_EQ(feed_calls_[0].info.request_id, id);
    return feed_calls_[0];
  }

  EntryCall EntryAnswer(bool create, std::int32_t status, const QByteArray& body) {
    entry_calls_.clear();
    const std::size_t index = log_.requests.size();
    const QByteArray content("new content");
    const unsigned int id =
        create ? service_.CreateEntryWithContent(QUrl(QStringLiteral("https://h/post")), QString(),
                                                 QString(), content, RecordEntry())
               : service_.ModifyEntryContent(QUrl(QStringLiteral("https://h/edit")), QString(),
                                             content, RecordEntry());
    EXPECT_TRUE(entry_calls_.empty());
    Answer(&log_, index, status, body);
    EXPECT_EQ(entry_calls_.size(), 1u);
    if (entry_calls_.size() != 1) return {};
    EXPECT_EQ(entry_calls_[0].info.request_id, id);
    return entry_calls_[0];
  }

  // Every request a test issued must have been answered, and so called back, by the end.
  void TearDown() override {
    if (expect_all_answered_) {
      for (std::size_t i = 0; i < log_.requests.size(); ++i) {
        EXPECT_FALSE(static_cast<bool>(log_.requests[i].done)) << "request " << i << " unanswered";
      }
    }
    ScriptedTest::TearDown();
  }

  // Checks how a request of the service signed in with "tok" carries its lines: the service's own
  // list with the one Authorization line, and no response headers asked for.
  void ExpectSignedRequest(const RecordedRequest& seen) {
    EXPECT_EQ(seen.headers_pointer, service_.authorization_headers());
    EXPECT_EQ(seen.headers, std::vector<QString>{QStringLiteral("Authorization: Bearer tok")});
    EXPECT_FALSE(seen.collect_response_headers);
  }

  // A callback for deletions that counts its calls in delete_calls_.
  DeleteCallback CountDelete() {
    return [this](NetworkResponseInfo) { ++delete_calls_; };
  }

  bool expect_all_answered_ = true;
  int delete_calls_ = 0;
  ConnectionLog log_;
  DocsService service_;
  std::vector<FeedCall> feed_calls_;
  std::vector<EntryCall> entry_calls_;
};

// ---- GetFeed

TEST_F(DocsServiceTest, GetFeedRequest) {
  service_.SetOAuth2AuthToken(QStringLiteral("tok"));
  EXPECT_EQ(service_.GetFeed(RecordFeed()), 100u);
  ASSERT_EQ(log_.requests.size(), 1u);
  const RecordedRequest& seen = log_.requests[0];
  EXPECT_EQ(seen.method, 0u);
  EXPECT_EQ(seen.url, QString::fromLatin1(kestrel::quire::DocsFeedUrl)) << "exactly, no query";
  EXPECT_EQ(seen.body_pointer, nullptr);
  ExpectSignedRequest(seen);
  EXPECT_EQ(seen.requested_id, 0u);
  Answer(&log_, 0, 500);
  EXPECT_EQ(feed_calls_.size(), 1u);
}

TEST_F(DocsServiceTest, GetFeedWithoutTokenHasNoLineOfItsOwn) {
  service_.GetFeed(RecordFeed());
  ASSERT_EQ(log_.requests.size(), 1u);
  EXPECT_TRUE(log_.requests[0].headers.empty());
  Answer(&log_, 0, 500);
  EXPECT_EQ(feed_calls_.size(), 1u);
}

TEST_F(DocsServiceTest, GetFeedSuccessGivesTheParsedFeed) {
  FeedCall call = FeedAnswer(0, quire_test::FeedDocument(4));
  EXPECT_EQ(call.info.status, 0);
  EXPECT_EQ(call.entries, 4u);
  EXPECT_EQ(call.etag, QStringLiteral("W/\"feed1\""));
  EXPECT_EQ(call.first_title, QStringLiteral("Report 0 & notes <draft>"));
}

TEST_F(DocsServiceTest, GetFeedFailureStatusIsPassedOnWithAnEmptyFeedAndTheBodyUnread) {
  for (std::int32_t status : {2, 401, 404, 302, 308, 500, 505}) {
    FeedCall call = FeedAnswer(status, quire_test::FeedDocument(2));
    EXPECT_EQ(call.info.status, status);
    EXPECT_TRUE(call.fresh) << status;
  }
}

TEST_F(DocsServiceTest, GetFeedEmptyBodyIsAParseFailure) {
  FeedCall call = FeedAnswer(0, QByteArray());
  EXPECT_EQ(call.info.status, 1);
  EXPECT_TRUE(call.fresh);
}

TEST_F(DocsServiceTest, GetFeedMalformedXmlIsAParseFailure) {
  QByteArray truncated = quire_test::FeedDocument(3);
  truncated.chop(20);
  for (const QByteArray& body : {truncated, QByteArray("<feed><entry></feed>"),
                                 QByteArray("not xml at all"), QByteArray("<feed/><feed/>")}) {
    FeedCall call = FeedAnswer(0, body);
    EXPECT_EQ(call.info.status, 1) << body.left(40).toStdString();
    EXPECT_TRUE(call.fresh);
  }
}

TEST_F(DocsServiceTest, GetFeedWithoutRootIsAParseFailure) {
  FeedCall call = FeedAnswer(0, "<?xml version=\"1.0\"?><!-- nothing -->");
  EXPECT_EQ(call.info.status, 1);
  EXPECT_TRUE(call.fresh);
}

TEST_F(DocsServiceTest, GetFeedRefusedByTheParserGivesAFreshFeed) {
  FeedCall call = FeedAnswer(0, quire_test::EntryDocument(1));
  EXPECT_EQ(call.info.status, 1);
  EXPECT_TRUE(call.fresh);
}

TEST_F(DocsServiceTest, GetFeedResponseRecordIsForwarded) {
  service_.GetFeed(RecordFeed());
  const std::vector<QString> headers = {QStringLiteral("ETag: x")};
  Answer(&log_, 0, 0, quire_test::FeedDocument(1), &headers);
  ASSERT_EQ(feed_calls_.size(), 1u);
  EXPECT_EQ(feed_calls_[0].info.headers, &headers);
  EXPECT_EQ(feed_calls_[0].info.request_id, 100u);
}

TEST_F(DocsServiceTest, FeedLivesOnlyDuringTheCallback) {
  auto* mm = kestrel::MemoryManager::Default();
  const long before = mm->live_allocations();
  long during = 0;
  service_.GetFeed([&](NetworkResponseInfo, const DocsFeed& feed) {
    during = mm->live_allocations();
    EXPECT_EQ(feed.entries.size(), 3u);
  });
  Answer(&log_, 0, 0, quire_test::FeedDocument(3));
  // The feed, its three entries and their array.
  EXPECT_EQ(during, before + 5);
  EXPECT_EQ(mm->live_allocations(), before) << "the feed and its entries are deleted afterwards";
}

TEST_F(DocsServiceTest, EveryFeedCallbackGetsItsOwnFeed) {
  auto* mm = kestrel::MemoryManager::Default();
  const long before = mm->live_allocations();
  for (std::int32_t status : {0, 1, 2}) {
    const QByteArray body = status == 1 ? QByteArray("<entry/>") : quire_test::FeedDocument(1);
    FeedAnswer(status == 1 ? 0 : status, body);
    EXPECT_EQ(mm->live_allocations(), before);
  }
}

TEST_F(DocsServiceTest, CallbackMayIssueTheNextRequest) {
  int calls = 0;
  service_.GetFeed([&](NetworkResponseInfo, const DocsFeed&) {
    ++calls;
    service_.GetFeed([&](NetworkResponseInfo, const DocsFeed&) { ++calls; });
  });
  Answer(&log_, 0, 0, quire_test::FeedDocument(1));
  ASSERT_EQ(log_.requests.size(), 2u);
  Answer(&log_, 1, 0, quire_test::FeedDocument(1));
  EXPECT_EQ(calls, 2);
}

TEST_F(DocsServiceTest, CallbackIsACopyMadeAtTheCall) {
  int calls = 0;
  {
    FeedCallback callback = [&calls](NetworkResponseInfo, const DocsFeed&) { ++calls; };
    service_.GetFeed(callback);
    callback = nullptr;
  }
  Answer(&log_, 0, 0, QByteArray());
  EXPECT_EQ(calls, 1);
}

// ---- GetEntryContent

TEST_F(DocsServiceTest, GetEntryContentRequest) {
  service_.SetOAuth2AuthToken(QStringLiteral("tok"));
  const QUrl url(QStringLiteral("https://docs.quire.example/content/a b?x=\u00e9&y=%2F"));
  int calls = 0;
  EXPECT_EQ(service_.GetEntryContent(url, [&](NetworkResponseInfo, QByteArray) { ++calls; }), 100u);
  ASSERT_EQ(log_.requests.size(), 1u);
  const RecordedRequest& seen = log_.requests[0];
  EXPECT_EQ(seen.method, 0u);
  EXPECT_EQ(seen.url, QStringLiteral("https://docs.quire.example/content/a%20b?x=%C3%A9&y=%2F"));
  EXPECT_EQ(seen.url, QString::fromLatin1(url.toEncoded()));
  EXPECT_EQ(seen.body_pointer, nullptr);
  ExpectSignedRequest(seen);
  EXPECT_EQ(seen.requested_id, 0u);
  Answer(&log_, 0, 0);
  EXPECT_EQ(calls, 1);
}

TEST_F(DocsServiceTest, GetEntryContentPassesStatusAndBodyAsTheyCame) {
  struct Case {
    std::int32_t status;
    QByteArray body;
  } cases[] = {{0, QByteArray("plain bytes\0with zero", 21)},
               {404, QByteArray("<errors><error>not found</error></errors>")},
               {2, QByteArray()},
               {0, QByteArray("<feed>not parsed")}};
  for (const Case& c : cases) {
    const std::size_t index = log_.requests.size();
    std::vector<std::pair<NetworkResponseInfo, QByteArray>> calls;
    const unsigned int id = service_.GetEntryContent(
        QUrl(QStringLiteral("https://h/c")), [&](NetworkResponseInfo info, QByteArray body) {
          calls.push_back({info, body});
        });
    Answer(&log_, index, c.status, c.body);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].first.status, c.status);
    EXPECT_EQ(calls[0].first.request_id, id);
    EXPECT_EQ(calls[0].second, c.body);
    EXPECT_EQ(calls[0].second.constData(), c.body.constData()) << "the body is not copied";
  }
}

// ---- CreateEntryWithContent and ModifyEntryContent

TEST_F(DocsServiceTest, CreateRequestIsAPostOfTheContent) {
  service_.SetOAuth2AuthToken(QStringLiteral("tok"));
  const QByteArray content("\x01\x02 the bytes \xff", 14);
  EXPECT_EQ(service_.CreateEntryWithContent(QUrl(QStringLiteral("https://h/feeds/post")),
                                            QStringLiteral("My title"),
                                            QStringLiteral("text/plain"), content, RecordEntry()),
            100u);
  ASSERT_EQ(log_.requests.size(), 1u);
  const RecordedRequest& seen = log_.requests[0];
  EXPECT_EQ(seen.method, 1u);
  EXPECT_EQ(seen.url, QStringLiteral("https://h/feeds/post"));
  EXPECT_EQ(seen.body_pointer, &content) << "the caller's content is borrowed";
  EXPECT_EQ(seen.body, content);
  ExpectSignedRequest(seen);
  EXPECT_EQ(seen.requested_id, 0u);
  Answer(&log_, 0, 2);
  EXPECT_EQ(entry_calls_.size(), 1u);
}

TEST_F(DocsServiceTest, CreateIgnoresItsTexts) {
  service_.SetOAuth2AuthToken(QStringLiteral("tok"));
  const QByteArray content("abc");
  const QUrl url(QStringLiteral("https://h/post"));
  service_.CreateEntryWithContent(url, QStringLiteral("Title: x"), QStringLiteral("Slug: y"),
                                  content, RecordEntry());
  service_.CreateEntryWithContent(url, QString(), QString(), content, RecordEntry());
  ASSERT_EQ(log_.requests.size(), 2u);
  EXPECT_TRUE(quire_test::SameRequest(log_.requests[0], log_.requests[1]));
  Answer(&log_, 0, 2);
  Answer(&log_, 1, 2);
  EXPECT_EQ(entry_calls_.size(), 2u);
}

TEST_F(DocsServiceTest, ModifyRequestIsAPutWithoutIfMatch) {
  service_.SetOAuth2AuthToken(QStringLiteral("tok"));
  const QByteArray content("replacement");
  service_.ModifyEntryContent(QUrl(QStringLiteral("https://h/edit/doc1")),
                              QStringLiteral("application/pdf"), content, RecordEntry());
  service_.ModifyEntryContent(QUrl(QStringLiteral("https://h/edit/doc1")), QString(), content,
                              RecordEntry());
  ASSERT_EQ(log_.requests.size(), 2u);
  const RecordedRequest& seen = log_.requests[0];
  EXPECT_EQ(seen.method, 2u);
  EXPECT_EQ(seen.url, QStringLiteral("https://h/edit/doc1"));
  EXPECT_EQ(seen.body_pointer, &content);
  EXPECT_EQ(seen.body, content);
  ExpectSignedRequest(seen);
  EXPECT_TRUE(quire_test::SameRequest(log_.requests[0], log_.requests[1])) << "the text is ignored";
  Answer(&log_, 0, 2);
  Answer(&log_, 1, 2);
}

TEST_F(DocsServiceTest, CreateOrModifySuccessGivesTheParsedEntry) {
  for (bool create : {true, false}) {
    EntryCall call = EntryAnswer(create, 0, quire_test::EntryDocument(5));
    EXPECT_EQ(call.info.status, 0);
    EXPECT_EQ(call.etag, QStringLiteral("\"e5\""));
    EXPECT_EQ(call.title, QStringLiteral("Report 5 & notes <draft>"));
    EXPECT_EQ(call.edit_link.toEncoded(),
              QByteArray("https://docs.quire.example/feeds/default/private/full/doc5"));
  }
}

TEST_F(DocsServiceTest, CreateOrModifyFailureStatusGivesAnEmptyEntryAndTheBodyUnread) {
  for (bool create : {true, false}) {
    for (std::int32_t status : {2, 400, 401, 409, 412, 416, 503}) {
      EntryCall call = EntryAnswer(create, status, quire_test::EntryDocument(5));
      EXPECT_EQ(call.info.status, status);
      EXPECT_TRUE(call.fresh);
    }
  }
}

TEST_F(DocsServiceTest, CreateOrModifyUnreadableBodyIsAParseFailure) {
  for (bool create : {true, false}) {
    for (const QByteArray& body :
         {QByteArray(), QByteArray("<entry>"), QByteArray("<?xml version=\"1.0\"?>"),
          QByteArray("<entry></Entry>")}) {
      EntryCall call = EntryAnswer(create, 0, body);
      EXPECT_EQ(call.info.status, 1) << body.toStdString();
      EXPECT_TRUE(call.fresh);
    }
  }
}

TEST_F(DocsServiceTest, CreateOrModifyRefusedByTheParserGivesAFreshEntry) {
  for (bool create : {true, false}) {
    EntryCall call = EntryAnswer(create, 0, quire_test::FeedDocument(2));
    EXPECT_EQ(call.info.status, 1);
    EXPECT_TRUE(call.fresh);
  }
}

TEST_F(DocsServiceTest, EntryLivesOnlyDuringTheCallback) {
  auto* mm = kestrel::MemoryManager::Default();
  const long before = mm->live_allocations();
  long during = 0;
  const QByteArray content("x");
  service_.ModifyEntryContent(
      QUrl(QStringLiteral("https://h/e")), QString(), content,
      [&](NetworkResponseInfo, const DocsEntry&) { during = mm->live_allocations(); });
  Answer(&log_, 0, 0, quire_test::EntryDocument(1));
  EXPECT_EQ(during, before + 1);
  EXPECT_EQ(mm->live_allocations(), before);
}

// ---- DeleteEntry

TEST_F(DocsServiceTest, DeleteWithQuotedWeakTagSendsItExactlyBeforeTheAuthorisationLine) {
  service_.SetOAuth2AuthToken(QStringLiteral("tok"));
  int calls = 0;
  EXPECT_EQ(service_.DeleteEntry(QUrl(QStringLiteral("https://h/edit/doc1")),
                                 QStringLiteral("W/\"CUUEQX47eCp7ImA9WxRVEkQ.\""),
                                 [&](NetworkResponseInfo) { ++calls; }),
            100u);
  ASSERT_EQ(log_.requests.size(), 1u);
  const RecordedRequest& seen = log_.requests[0];
  EXPECT_EQ(seen.method, 3u);
  EXPECT_EQ(seen.url, QStringLiteral("https://h/edit/doc1"));
  EXPECT_EQ(seen.body_pointer, nullptr);
  EXPECT_NE(seen.headers_pointer, nullptr);
  EXPECT_NE(seen.headers_pointer, service_.authorization_headers()) << "a list of its own";
  EXPECT_EQ(seen.headers,
            (std::vector<QString>{QStringLiteral("If-Match: W/\"CUUEQX47eCp7ImA9WxRVEkQ.\""),
                                  QStringLiteral("Authorization: Bearer tok")}));
  EXPECT_FALSE(seen.collect_response_headers);
  EXPECT_EQ(seen.requested_id, 0u);
  Answer(&log_, 0, 0);
  EXPECT_EQ(calls, 1);
}

TEST_F(DocsServiceTest, DeleteTagIsNotQuotedOrReinterpreted) {
  service_.DeleteEntry(QUrl(QStringLiteral("https://h/e")), QStringLiteral("abc %1 %2"),
                       CountDelete());
  ASSERT_EQ(log_.requests.size(), 1u);
  EXPECT_EQ(log_.requests[0].headers, std::vector<QString>{QStringLiteral("If-Match: abc %1 %2")});
  Answer(&log_, 0, 0);
  EXPECT_EQ(delete_calls_, 1);
}

TEST_F(DocsServiceTest, DeleteWithEmptyTagSendsOnlyTheAuthorisationLine) {
  service_.SetOAuth2AuthToken(QStringLiteral("tok"));
  service_.DeleteEntry(QUrl(QStringLiteral("https://h/e")), QString(), CountDelete());
  service_.DeleteEntry(QUrl(QStringLiteral("https://h/e")), QStringLiteral(""), CountDelete());
  ASSERT_EQ(log_.requests.size(), 2u);
  for (const auto& seen : log_.requests) {
    EXPECT_EQ(seen.headers, std::vector<QString>{QStringLiteral("Authorization: Bearer tok")});
  }
  Answer(&log_, 0, 0);
  Answer(&log_, 1, 0);
  EXPECT_EQ(delete_calls_, 2);
}

TEST_F(DocsServiceTest, DeleteWithNeitherTagNorTokenSendsNoLineOfItsOwn) {
  service_.DeleteEntry(QUrl(QStringLiteral("https://h/e")), QString(), CountDelete());
  ASSERT_EQ(log_.requests.size(), 1u);
  EXPECT_TRUE(log_.requests[0].headers.empty());
  Answer(&log_, 0, 0);
  EXPECT_EQ(delete_calls_, 1);
}

TEST_F(DocsServiceTest, DeletePassesTheStatusOnUnchanged) {
  for (std::int32_t status : {0, 412, 404, 2, 500}) {
    const std::size_t index = log_.requests.size();
    std::vector<NetworkResponseInfo> calls;
    const unsigned int id =
        service_.DeleteEntry(QUrl(QStringLiteral("https://h/e")), QStringLiteral("\"t\""),
                             [&](NetworkResponseInfo info) { calls.push_back(info); });
    const std::vector<QString> headers = {QStringLiteral("X: y")};
    Answer(&log_, index, status, "<errors/>", &headers);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].status, status);
    EXPECT_EQ(calls[0].request_id, id);
    EXPECT_EQ(calls[0].headers, &headers);
  }
}

// ---- Empty callbacks

TEST_F(DocsServiceTest, EmptyCallbacksAbortWhenTheyWouldBeCalled) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const NetworkResponseInfo ok{1, 0, nullptr};
  const NetworkResponseInfo failed{1, 404, nullptr};
  EXPECT_GUARD_ABORT(service_.GetFeedDone(FeedCallback(), ok, quire_test::FeedDocument(1)));
  EXPECT_GUARD_ABORT(service_.GetFeedDone(FeedCallback(), failed, QByteArray()));
  EXPECT_GUARD_ABORT(service_.GetEntryContentDone(ResponseCallback(), ok, "x"));
  EXPECT_GUARD_ABORT(service_.EntryModifyDone(EntryCallback(), ok, quire_test::EntryDocument(1)));
  EXPECT_GUARD_ABORT(service_.EntryModifyDone(EntryCallback(), failed, QByteArray()));
  EXPECT_GUARD_ABORT(service_.DeleteEntryDone(DeleteCallback(), ok, QByteArray()));
  EXPECT_GUARD_ABORT({
    service_.DeleteEntry(QUrl(QStringLiteral("https://h/e")), QString(), DeleteCallback());
    Answer(&log_, 0, 412);
  });
}

TEST_F(DocsServiceTest, IssuingWithAnEmptyCallbackDoesNotAbortBeforeTheAnswer) {
  expect_all_answered_ = false;  // answering would abort; the death test above covers that
  const QByteArray content("x");
  service_.GetFeed(FeedCallback());
  service_.GetEntryContent(QUrl(QStringLiteral("https://h/c")), ResponseCallback());
  service_.CreateEntryWithContent(QUrl(QStringLiteral("https://h/p")), QString(), QString(),
                                  content, EntryCallback());
  service_.ModifyEntryContent(QUrl(QStringLiteral("https://h/p")), QString(), content,
                              EntryCallback());
  service_.DeleteEntry(QUrl(QStringLiteral("https://h/p")), QString(), DeleteCallback());
  EXPECT_EQ(log_.requests.size(), 5u);
}

}  // namespace

}  // namespace quire_test::services
