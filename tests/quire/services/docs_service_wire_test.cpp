// DocsService end to end: through the library's Connection over the scripted transport, with the
// request lines as they reach the network layer and the parsed result in the callback.
#include <gtest/gtest.h>

#include <memory>

#include "quire/services/docs_service.h"
#include "quire/services/endpoints.h"
#include "tests/quire/model/sample_documents.h"
#include "tests/support/test_support.h"

namespace {

using kestrel::net::HttpRequest;
using namespace kestrel::quire;  // NOLINT(build/namespaces): the library's classes and statuses
using namespace quire_test;      // NOLINT(build/namespaces): the test support

const QString kVersion = QStringLiteral("Quire-Version: 3.0");
const QString kAuthorization = QStringLiteral("Authorization: Bearer ya29.token-1");

class DocsServiceWireTest : public quire_test::ScriptedTest {
 protected:
  // The service's connection takes the transport that is installed when it is made.
  void SetUp() override {
    ScriptedTest::SetUp();
    service_ = std::make_unique<DocsService>();
  }
  void TearDown() override {
    service_.reset();
    ScriptedTest::TearDown();
  }

  void SignIn() { service_->SetOAuth2AuthToken(QStringLiteral("ya29.token-1")); }

  // Runs the loop until `count` callbacks have arrived, then until nothing is in flight.
  void Wait(const int& calls, int count) {
    RunUntil([&] { return calls >= count; });
    RunUntilIdle();
    EXPECT_EQ(calls, count) << "exactly-once callbacks";
  }

  // What one feed answer brought: its status and the number of entries parsed from it.
  struct FeedAnswer {
    std::int32_t status = -1;
    std::size_t entries = 99;
  };

  // Asks for the feed and waits for its one answer.
  FeedAnswer GetFeedAnswer() {
    int calls = 0;
    FeedAnswer answer;
    service_->GetFeed([&](NetworkResponseInfo info, const DocsFeed& feed) {
      ++calls;
      answer.status = info.status;
      answer.entries = feed.entries.size();
    });
    Wait(calls, 1);
    return answer;
  }

  std::unique_ptr<DocsService> service_;
};

TEST_F(DocsServiceWireTest, FeedIsFetchedAndParsed) {
  SignIn();
  transport_.Enqueue(Http(200), quire_test::FeedDocument(3),
                     {QStringLiteral("Content-Type: application/atom+xml")});
  int calls = 0;
  std::vector<QString> titles;
  QUrl post_link;
  NetworkResponseInfo seen_info{};
  const unsigned int id = service_->GetFeed([&](NetworkResponseInfo info, const DocsFeed& feed) {
    ++calls;
    seen_info = info;
    for (const DocsEntry* entry : feed.entries) titles.push_back(entry->title);
    post_link = feed.post_link;
  });
  EXPECT_EQ(id, 1u);
  EXPECT_EQ(calls, 0) << "never inside the operation";
  Wait(calls, 1);
  EXPECT_EQ(seen_info.request_id, id);
  EXPECT_EQ(seen_info.status, 0);
  EXPECT_EQ(seen_info.headers, nullptr) << "no response headers are asked for";
  EXPECT_EQ(titles, (std::vector<QString>{QStringLiteral("Report 0 & notes <draft>"),
                                          QStringLiteral("Report 1 & notes <draft>"),
                                          QStringLiteral("Report 2 & notes <draft>")}));
  EXPECT_EQ(post_link.toEncoded(),
            QByteArray("https://docs.quire.example/feeds/default/private/full/post"));

  ASSERT_EQ(transport_.requests().size(), 1u);
  const auto& seen = transport_.requests()[0];
  EXPECT_EQ(seen.method, HttpRequest::kGet);
  EXPECT_EQ(seen.url, QString::fromLatin1(kestrel::quire::DocsFeedUrl));
  EXPECT_EQ(Lines(seen), (std::vector<QString>{kVersion, kAuthorization}));
  EXPECT_TRUE(seen.body.isEmpty());
}

TEST_F(DocsServiceWireTest, WithoutTokenNoAuthorisationLineGoesOut) {
  transport_.Enqueue(Http(200), quire_test::FeedDocument(1));
  transport_.Enqueue(Http(200), "content");
  int calls = 0;
  service_->GetFeed([&](NetworkResponseInfo, const DocsFeed&) { ++calls; });
  service_->GetEntryContent(QUrl(QStringLiteral("https://docs.quire.example/content/doc1")),
                            [&](NetworkResponseInfo, QByteArray) { ++calls; });
  Wait(calls, 2);
  ASSERT_EQ(transport_.requests().size(), 2u);
  for (const auto& seen : transport_.requests()) {
    EXPECT_EQ(Lines(seen), std::vector<QString>{kVersion});
  }
}

TEST_F(DocsServiceWireTest, TokenChangesApplyToLaterRequestsOnly) {
  SignIn();
  transport_.Enqueue(Http(200), quire_test::FeedDocument(1));
  transport_.Enqueue(Http(200), quire_test::FeedDocument(1));
  int calls = 0;
  service_->GetFeed([&](NetworkResponseInfo, const DocsFeed&) { ++calls; });
  service_->SetOAuth2RefreshToken(QString());  // signs out
  service_->GetFeed([&](NetworkResponseInfo, const DocsFeed&) { ++calls; });
  Wait(calls, 2);
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_EQ(Lines(transport_.requests()[0]), (std::vector<QString>{kVersion, kAuthorization}));
  EXPECT_EQ(Lines(transport_.requests()[1]), std::vector<QString>{kVersion});
}

TEST_F(DocsServiceWireTest, FeedAnswerWithEmptyBodyIsAParseFailure) {
  transport_.Enqueue(Http(200), QByteArray());
  const FeedAnswer answer = GetFeedAnswer();
  EXPECT_EQ(answer.status, 1);
  EXPECT_EQ(answer.entries, 0u);
}

TEST_F(DocsServiceWireTest, FeedAnswer401IsPassedOnWithAnEmptyFeed) {
  SignIn();
  transport_.Enqueue(Http(401), quire_test::FeedDocument(2),
                     {QStringLiteral("WWW-Authenticate: Bearer")});
  const FeedAnswer answer = GetFeedAnswer();
  EXPECT_EQ(answer.status, 401);
  EXPECT_EQ(answer.entries, 0u) << "the body is not parsed";
}

TEST_F(DocsServiceWireTest, NetworkFailureAndUnlistedStatusBothArriveAsTwo) {
  transport_.Enqueue(kestrel::net::status::kErrorConnectionRefused);
  transport_.Enqueue(Http(304));
  int calls = 0;
  std::vector<std::int32_t> statuses;
  for (int i = 0; i < 2; ++i) {
    service_->GetFeed([&](NetworkResponseInfo info, const DocsFeed&) {
      ++calls;
      statuses.push_back(info.status);
    });
  }
  Wait(calls, 2);
  EXPECT_EQ(statuses, (std::vector<std::int32_t>{2, 2}));
}

TEST_F(DocsServiceWireTest, ContentArrivesAsDelivered) {
  SignIn();
  const QByteArray bytes("%PDF-1.7 \x00\x01\x02 binary", 20);
  transport_.Enqueue(Http(200), bytes);
  transport_.Enqueue(Http(404), "<errors><error>no such document</error></errors>");
  int calls = 0;
  std::vector<std::pair<std::int32_t, QByteArray>> results;
  auto record = [&](NetworkResponseInfo info, QByteArray body) {
    ++calls;
    results.push_back({info.status, QByteArray(body.constData(), body.size())});
  };
  const QUrl url(QStringLiteral("https://docs.quire.example/content/doc 1?e=v1"));
  service_->GetEntryContent(url, record);
  service_->GetEntryContent(QUrl(QStringLiteral("https://docs.quire.example/content/gone")),
                            record);
  Wait(calls, 2);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0].first, 0);
  EXPECT_EQ(results[0].second, bytes);
  EXPECT_EQ(results[1].first, 404);
  EXPECT_EQ(results[1].second, QByteArray("<errors><error>no such document</error></errors>"));
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_EQ(transport_.requests()[0].method, HttpRequest::kGet);
  EXPECT_EQ(transport_.requests()[0].url,
            QStringLiteral("https://docs.quire.example/content/doc%201?e=v1"));
  EXPECT_EQ(Lines(transport_.requests()[0]), (std::vector<QString>{kVersion, kAuthorization}));
}

TEST_F(DocsServiceWireTest, CreateSendsOnlyTheContentAndParsesTheEntry) {
  SignIn();
  transport_.Enqueue(Http(201), quire_test::EntryDocument(9),
                     {QStringLiteral("Location: https://docs.quire.example/feeds/default/private/"
                                     "full/doc9")});
  transport_.Enqueue(Http(201), QByteArray());
  int calls = 0;
  std::vector<std::pair<std::int32_t, QString>> results;
  auto record = [&](NetworkResponseInfo info, const DocsEntry& entry) {
    ++calls;
    results.push_back({info.status, entry.etag});
  };
  const QByteArray content("Hello, world\n");
  const QUrl post(QStringLiteral("https://docs.quire.example/feeds/default/private/full/post"));
  service_->CreateEntryWithContent(post, QStringLiteral("Greeting"), QStringLiteral("text/plain"),
                                   content, record);
  service_->CreateEntryWithContent(post, QString(), QString(), content, record);
  Wait(calls, 2);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0].first, 0) << "201 with a well-formed entry";
  EXPECT_EQ(results[0].second, QStringLiteral("\"e9\""));
  EXPECT_EQ(results[1].first, 1) << "201 with an empty body";
  EXPECT_TRUE(results[1].second.isNull());

  ASSERT_EQ(transport_.requests().size(), 2u);
  for (const auto& seen : transport_.requests()) {
    EXPECT_EQ(seen.method, HttpRequest::kPost);
    EXPECT_EQ(seen.url,
              QStringLiteral("https://docs.quire.example/feeds/default/private/full/post"));
    EXPECT_EQ(Lines(seen), (std::vector<QString>{kVersion, kAuthorization}))
        << "the texts make no header line";
    EXPECT_EQ(seen.body, content);
  }
}

TEST_F(DocsServiceWireTest, ModifySendsAPutWithoutIfMatch) {
  SignIn();
  transport_.Enqueue(Http(200), quire_test::EntryDocument(4));
  int calls = 0;
  QString title;
  std::int32_t status = -1;
  const QByteArray content(100000, 'z');
  service_->ModifyEntryContent(
      QUrl(QStringLiteral("https://docs.quire.example/feeds/default/private/full/doc4")),
      QStringLiteral("text/plain"), content, [&](NetworkResponseInfo info, const DocsEntry& entry) {
        ++calls;
        status = info.status;
        title = entry.title;
      });
  Wait(calls, 1);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(title, QStringLiteral("Report 4 & notes <draft>"));
  ASSERT_EQ(transport_.requests().size(), 1u);
  const auto& seen = transport_.requests()[0];
  EXPECT_EQ(seen.method, HttpRequest::kPut);
  EXPECT_EQ(Lines(seen), (std::vector<QString>{kVersion, kAuthorization}));
  EXPECT_EQ(seen.body, content);
}

TEST_F(DocsServiceWireTest, DeleteHeaderOrderIsVersionIfMatchAuthorization) {
  SignIn();
  transport_.Enqueue(Http(200));
  transport_.Enqueue(Http(412), "<errors><error>etag mismatch</error></errors>");
  int calls = 0;
  std::vector<std::int32_t> statuses;
  auto record = [&](NetworkResponseInfo info) {
    ++calls;
    statuses.push_back(info.status);
  };
  const QUrl edit(QStringLiteral("https://docs.quire.example/feeds/default/private/full/doc1"));
  service_->DeleteEntry(edit, QStringLiteral("W/\"D0cuM3nt.\""), record);
  service_->DeleteEntry(edit, QStringLiteral("\"stale\""), record);
  Wait(calls, 2);
  EXPECT_EQ(statuses, (std::vector<std::int32_t>{0, 412}));
  ASSERT_EQ(transport_.requests().size(), 2u);
  const auto& seen = transport_.requests()[0];
  EXPECT_EQ(seen.method, HttpRequest::kDelete);
  EXPECT_EQ(seen.url, QStringLiteral("https://docs.quire.example/feeds/default/private/full/doc1"));
  EXPECT_EQ(Lines(seen),
            (std::vector<QString>{kVersion, QStringLiteral("If-Match: W/\"D0cuM3nt.\""),
                                  kAuthorization}));
  EXPECT_TRUE(seen.body.isEmpty());
}

TEST_F(DocsServiceWireTest, DeleteWithoutTagOrToken) {
  transport_.Enqueue(Http(200));
  transport_.Enqueue(Http(200));
  int calls = 0;
  const QUrl edit(QStringLiteral("https://docs.quire.example/feeds/default/private/full/doc1"));
  service_->DeleteEntry(edit, QString(), [&](NetworkResponseInfo) { ++calls; });
  SignIn();
  service_->DeleteEntry(edit, QString(), [&](NetworkResponseInfo) { ++calls; });
  Wait(calls, 2);
  ASSERT_EQ(transport_.requests().size(), 2u);
  EXPECT_EQ(Lines(transport_.requests()[0]), std::vector<QString>{kVersion});
  EXPECT_EQ(Lines(transport_.requests()[1]), (std::vector<QString>{kVersion, kAuthorization}));
}

TEST_F(DocsServiceWireTest, ListDownloadReplaceDeleteInOneChain) {
  SignIn();
  const QByteArray feed_body = quire_test::FeedDocument(2);
  transport_.SetResponder([&](const kestrel::net::ScriptedTransport::Seen& seen) {
    kestrel::net::ScriptedTransport::Answer answer;
    if (seen.method == HttpRequest::kGet && seen.url.endsWith(QStringLiteral("/full"))) {
      answer.body = feed_body;
    } else if (seen.method == HttpRequest::kGet) {
      answer.body = "bytes of " + seen.url.toLatin1();
    } else if (seen.method == HttpRequest::kPut) {
      answer.body = quire_test::EntryDocument(1);
    }
    return answer;
  });
  int done = 0;
  QByteArray downloaded;
  QString replaced_etag;
  std::int32_t delete_status = -1;
  service_->GetFeed([&](NetworkResponseInfo info, const DocsFeed& feed) {
    ASSERT_EQ(info.status, 0);
    ASSERT_EQ(feed.entries.size(), 2u);
    const QUrl content_src = feed.entries[1]->content_src;
    const QUrl edit_link = feed.entries[1]->edit_link;
    const QString etag = feed.entries[1]->etag;
    service_->GetEntryContent(content_src, [=, &done, &downloaded, &replaced_etag, &delete_status](
                                               NetworkResponseInfo, QByteArray body) {
      downloaded = QByteArray(body.constData(), body.size());
      const QByteArray content = downloaded + " v2";
      service_->ModifyEntryContent(
          edit_link, QString(), content,
          [=, &done, &replaced_etag, &delete_status](NetworkResponseInfo, const DocsEntry& entry) {
            replaced_etag = entry.etag;
            service_->DeleteEntry(edit_link, etag, [&](NetworkResponseInfo delete_info) {
              delete_status = delete_info.status;
              ++done;
            });
          });
    });
  });
  RunUntil([&] { return done == 1; });
  RunUntilIdle();
  EXPECT_EQ(done, 1);
  EXPECT_EQ(downloaded, QByteArray("bytes of https://docs.quire.example/content/doc1?e=v1"));
  EXPECT_EQ(replaced_etag, QStringLiteral("\"e1\""));
  EXPECT_EQ(delete_status, 0);
  ASSERT_EQ(transport_.requests().size(), 4u);
  EXPECT_EQ(transport_.requests()[2].body, QByteArray("bytes of https://docs.quire.example/"
                                                      "content/doc1?e=v1 v2"));
  EXPECT_EQ(Lines(transport_.requests()[3]),
            (std::vector<QString>{kVersion, QStringLiteral("If-Match: \"e1\""), kAuthorization}));
}

TEST_F(DocsServiceWireTest, HostMadeServiceOverTheLibrarysConnectionLeavesNothingBehind) {
  DocsService* service = new DocsService;
  transport_.Enqueue(Http(200), quire_test::FeedDocument(2));
  int calls = 0;
  service->GetFeed([&](NetworkResponseInfo, const DocsFeed&) { ++calls; });
  Wait(calls, 1);
  delete service;
}

}  // namespace
