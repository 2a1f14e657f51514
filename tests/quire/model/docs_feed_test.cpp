#include "quire/model/docs_feed.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "quire/model/link_relations.h"
#include "tests/quire/model/sample_documents.h"
#include "tests/quire/model/xml_tree.h"
#include "tests/support/test_support.h"

namespace {

using kestrel::quire::DocsEntry;
using kestrel::quire::DocsFeed;
using quire_test::ParsedXml;

static_assert(std::is_polymorphic<DocsFeed>::value, "polymorphic");
static_assert(std::has_virtual_destructor<DocsFeed>::value, "virtual destructor");
static_assert(!std::is_copy_constructible<DocsFeed>::value, "feeds are never copied");
static_assert(!std::is_copy_assignable<DocsFeed>::value, "feeds are never copied");

QByteArray Feed(const QByteArray& children, const QByteArray& attributes = QByteArray()) {
  return "<feed " + quire_test::NamespaceDeclarations() + " " + attributes + ">" + children +
         "</feed>";
}

QByteArray Link(const QByteArray& rel, const QByteArray& href) {
  return "<link rel=\"" + rel + "\" href=\"" + href + "\"/>";
}

void Prefill(DocsFeed* feed) {
  feed->batch_link = QUrl(QStringLiteral("https://prior/batch"));
  feed->resumable_create_media_link = QUrl(QStringLiteral("https://prior/resumable"));
  feed->etag = QStringLiteral("prior-etag");
  feed->feed_link = QUrl(QStringLiteral("https://prior/feed"));
  feed->items_per_page = 11;
  feed->updated = QStringLiteral("prior-updated");
  feed->post_link = QUrl(QStringLiteral("https://prior/post"));
  feed->start_index = 12;
}

void ExpectPrefilledExceptEtag(const DocsFeed& feed) {
  EXPECT_EQ(feed.batch_link, QUrl(QStringLiteral("https://prior/batch")));
  EXPECT_EQ(feed.resumable_create_media_link, QUrl(QStringLiteral("https://prior/resumable")));
  EXPECT_EQ(feed.feed_link, QUrl(QStringLiteral("https://prior/feed")));
  EXPECT_EQ(feed.items_per_page, 11);
  EXPECT_EQ(feed.updated, QStringLiteral("prior-updated"));
  EXPECT_EQ(feed.post_link, QUrl(QStringLiteral("https://prior/post")));
  EXPECT_EQ(feed.start_index, 12);
}

void ExpectFresh(const DocsFeed& feed) {
  EXPECT_TRUE(feed.batch_link.isEmpty());
  EXPECT_TRUE(feed.resumable_create_media_link.isEmpty());
  EXPECT_TRUE(feed.etag.isNull());
  EXPECT_TRUE(feed.feed_link.isEmpty());
  EXPECT_EQ(feed.items_per_page, 0);
  EXPECT_EQ(feed.entries.size(), 0u);
  EXPECT_TRUE(feed.updated.isNull());
  EXPECT_TRUE(feed.post_link.isEmpty());
  EXPECT_EQ(feed.start_index, 0);
}

class DocsFeedTest : public quire_test::ScriptedTest {};

TEST_F(DocsFeedTest, ConstructorValues) {
  DocsFeed feed;
  ExpectFresh(feed);
}

TEST_F(DocsFeedTest, ParseFromIsTheSecondVirtualOperation) {
  EXPECT_EQ(quire_test::VirtualSlot(&DocsFeed::ParseFrom), 2);
}

TEST_F(DocsFeedTest, FeedWithoutChildren) {
  ParsedXml xml(Feed(""));
  DocsFeed feed;
  EXPECT_TRUE(feed.ParseFrom(xml.root()));
  ExpectFresh(feed);
}

TEST_F(DocsFeedTest, MissingEtagIsAssignedNull) {
  ParsedXml xml(Feed(""));
  DocsFeed feed;
  Prefill(&feed);
  EXPECT_TRUE(feed.ParseFrom(xml.root()));
  EXPECT_TRUE(feed.etag.isNull());
  ExpectPrefilledExceptEtag(feed);
}

TEST_F(DocsFeedTest, FullFeed) {
  ParsedXml xml(quire_test::FeedDocument(3));
  DocsFeed feed;
  ASSERT_TRUE(feed.ParseFrom(xml.root()));
  EXPECT_EQ(feed.etag, QStringLiteral("W/\"feed1\""));
  EXPECT_EQ(feed.updated, QStringLiteral("2024-03-05T17:42:10.500Z"));
  EXPECT_EQ(feed.feed_link.toEncoded(),
            QByteArray("https://docs.quire.example/feeds/default/private/full"));
  EXPECT_EQ(feed.post_link.toEncoded(),
            QByteArray("https://docs.quire.example/feeds/default/private/full/post"));
  EXPECT_EQ(feed.batch_link.toEncoded(),
            QByteArray("https://docs.quire.example/feeds/default/private/full/batch"));
  EXPECT_EQ(feed.resumable_create_media_link.toEncoded(),
            QByteArray("https://docs.quire.example/upload/create-session/default/private/full"));
  EXPECT_EQ(feed.items_per_page, 3);
  EXPECT_EQ(feed.start_index, 1);
  ASSERT_EQ(feed.entries.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    const DocsEntry* entry = feed.entries[i];
    EXPECT_EQ(entry->etag, QStringLiteral("\"e%1\"").arg(i));
    EXPECT_EQ(entry->title, QStringLiteral("Report %1 & notes <draft>").arg(i));
    EXPECT_EQ(entry->edit_link.toEncoded(),
              "https://docs.quire.example/feeds/default/private/full/doc" + QByteArray::number(i));
    EXPECT_TRUE(entry->starred);
    EXPECT_FALSE(entry->removed);
  }
}

TEST_F(DocsFeedTest, ThreeEntriesInDocumentOrder) {
  ParsedXml xml(
      Feed("<entry><id>a</id></entry><title>x</title><entry><id>b</id></entry>"
           "<entry><id>c</id></entry>"));
  DocsFeed feed;
  EXPECT_TRUE(feed.ParseFrom(xml.root()));
  ASSERT_EQ(feed.entries.size(), 3u);
  EXPECT_EQ(feed.entries[0]->id, QStringLiteral("a"));
  EXPECT_EQ(feed.entries[1]->id, QStringLiteral("b"));
  EXPECT_EQ(feed.entries[2]->id, QStringLiteral("c"));
  QStringList ids;
  for (const DocsEntry* entry : feed.entries) ids << entry->id;
  EXPECT_EQ(ids, QStringList({QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("c")}));
}

TEST_F(DocsFeedTest, DuplicateEntriesAreAllKept) {
  ParsedXml xml(Feed("<entry><id>same</id></entry><entry><id>same</id></entry>"));
  DocsFeed feed;
  EXPECT_TRUE(feed.ParseFrom(xml.root()));
  ASSERT_EQ(feed.entries.size(), 2u);
  EXPECT_NE(feed.entries[0], feed.entries[1]);
}

TEST_F(DocsFeedTest, ItemsPerPage) {
  struct Case {
    const char* text;
    int expected;
  } cases[] = {{"25", 25},  {"letters", 0},     {"2147483648", 0}, {"2147483647", 2147483647},
               {"-3", -3},  {"-2147483649", 0}, {"", 0},           {"12abc", 0},
               {"0x10", 0}, {"99999999999", 0}};
  for (const Case& c : cases) {
    ParsedXml xml(
        Feed(QByteArray("<openSearch:itemsPerPage>") + c.text + "</openSearch:itemsPerPage>"));
    DocsFeed feed;
    feed.items_per_page = 77;
    EXPECT_TRUE(feed.ParseFrom(xml.root()));
    EXPECT_EQ(feed.items_per_page, c.expected) << c.text;
  }
}

TEST_F(DocsFeedTest, StartIndex) {
  ParsedXml xml(Feed("<openSearch:startIndex>1</openSearch:startIndex>"));
  DocsFeed feed;
  EXPECT_TRUE(feed.ParseFrom(xml.root()));
  EXPECT_EQ(feed.start_index, 1);
  EXPECT_EQ(feed.items_per_page, 0);

  ParsedXml bad(Feed("<openSearch:startIndex>one</openSearch:startIndex>"));
  DocsFeed bad_feed;
  bad_feed.start_index = 5;
  EXPECT_TRUE(bad_feed.ParseFrom(bad.root()));
  EXPECT_EQ(bad_feed.start_index, 0);
}

TEST_F(DocsFeedTest, LastNumberAndUpdatedWin) {
  ParsedXml xml(
      Feed("<openSearch:itemsPerPage>5</openSearch:itemsPerPage><updated>a</updated>"
           "<openSearch:itemsPerPage>6</openSearch:itemsPerPage><updated>b</updated>"));
  DocsFeed feed;
  EXPECT_TRUE(feed.ParseFrom(xml.root()));
  EXPECT_EQ(feed.items_per_page, 6);
  EXPECT_EQ(feed.updated, QStringLiteral("b"));
}

TEST_F(DocsFeedTest, PostLinkWithoutHrefIsAssignedEmpty) {
  ParsedXml xml(Feed("<link rel=\"" + QByteArray(kestrel::quire::kPostRel) + "\"/>"));
  DocsFeed feed;
  Prefill(&feed);
  EXPECT_TRUE(feed.ParseFrom(xml.root()));
  EXPECT_TRUE(feed.post_link.isEmpty());
  EXPECT_EQ(feed.feed_link, QUrl(QStringLiteral("https://prior/feed")));
}

TEST_F(DocsFeedTest, EachRelationSetsItsOwnLink) {
  ParsedXml xml(Feed(Link(kestrel::quire::kBatchRel, "https://h/batch") +
                     Link(kestrel::quire::kResumableCreateMediaRel, "https://h/resumable") +
                     Link(kestrel::quire::kFeedRel, "https://h/feed") +
                     Link(kestrel::quire::kPostRel, "https://h/post")));
  DocsFeed feed;
  EXPECT_TRUE(feed.ParseFrom(xml.root()));
  EXPECT_EQ(feed.batch_link, QUrl(QStringLiteral("https://h/batch")));
  EXPECT_EQ(feed.resumable_create_media_link, QUrl(QStringLiteral("https://h/resumable")));
  EXPECT_EQ(feed.feed_link, QUrl(QStringLiteral("https://h/feed")));
  EXPECT_EQ(feed.post_link, QUrl(QStringLiteral("https://h/post")));
}

TEST_F(DocsFeedTest, LastFeedLinkWins) {
  ParsedXml xml(Feed(Link(kestrel::quire::kFeedRel, "https://h/first") +
                     Link(kestrel::quire::kFeedRel, "https://h/second")));
  DocsFeed feed;
  EXPECT_TRUE(feed.ParseFrom(xml.root()));
  EXPECT_EQ(feed.feed_link, QUrl(QStringLiteral("https://h/second")));
}

TEST_F(DocsFeedTest, NextSelfAlternateAndEntryRelationsAreIgnored) {
  ParsedXml xml(Feed(Link("next", "https://h/next") + Link("self", "https://h/self") +
                     Link("alternate", "https://h/alt") +
                     Link(kestrel::quire::kResumableEditMediaRel, "https://h/rem") +
                     Link("edit", "https://h/edit") + "<qr:feedLink rel=\"" +
                     QByteArray(kestrel::quire::kFeedRel) + "\" href=\"https://h/feedlink\"/>"));
  DocsFeed feed;
  Prefill(&feed);
  EXPECT_TRUE(feed.ParseFrom(xml.root()));
  ExpectPrefilledExceptEtag(feed);
}

TEST_F(DocsFeedTest, RootNamedEntryIsRefusedAndTouchesNothing) {
  ParsedXml xml(quire_test::EntryDocument(1));
  DocsFeed feed;
  Prefill(&feed);
  EXPECT_FALSE(feed.ParseFrom(xml.root()));
  ExpectPrefilledExceptEtag(feed);
  EXPECT_EQ(feed.etag, QStringLiteral("prior-etag"));
  EXPECT_EQ(feed.entries.size(), 0u);
}

TEST_F(DocsFeedTest, NullNodeIsRefused) {
  DocsFeed feed;
  Prefill(&feed);
  EXPECT_FALSE(feed.ParseFrom(nullptr));
  ExpectPrefilledExceptEtag(feed);
  EXPECT_EQ(feed.etag, QStringLiteral("prior-etag"));
}

TEST_F(DocsFeedTest, PrefixedRootIsRefused) {
  ParsedXml xml("<atom:feed xmlns:atom=\"http://www.w3.org/2005/Atom\"/>");
  DocsFeed feed;
  EXPECT_FALSE(feed.ParseFrom(xml.root()));
}

TEST_F(DocsFeedTest, ItemsPerPageUnderAnotherNameIsIgnored) {
  ParsedXml xml("<feed xmlns=\"http://www.w3.org/2005/Atom\" xmlns:os=\"" +
                QByteArray(kestrel::quire::SchemaNamespace) +
                "/opensearch/1.1/\"><os:itemsPerPage>25</os:itemsPerPage>"
                "<itemsPerPage>26</itemsPerPage><os:startIndex>3</os:startIndex>"
                "<openSearch:itemsperpage xmlns:openSearch=\"urn:x\">27</openSearch:itemsperpage>"
                "</feed>");
  DocsFeed feed;
  EXPECT_TRUE(feed.ParseFrom(xml.root()));
  EXPECT_EQ(feed.items_per_page, 0);
  EXPECT_EQ(feed.start_index, 0);
}

TEST_F(DocsFeedTest, NestedEntriesAndLinksAreNotSeen) {
  ParsedXml xml(Feed("<author><entry><id>nested</id></entry>" +
                     Link(kestrel::quire::kPostRel, "https://h/nested") + "</author>"));
  DocsFeed feed;
  EXPECT_TRUE(feed.ParseFrom(xml.root()));
  EXPECT_EQ(feed.entries.size(), 0u);
  EXPECT_TRUE(feed.post_link.isEmpty());
}

TEST_F(DocsFeedTest, ParsingAgainAppendsEntries) {
  ParsedXml first(Feed("<entry><id>a</id></entry>", "qr:etag=\"one\""));
  ParsedXml second(Feed("<entry><id>b</id></entry>"));
  DocsFeed feed;
  EXPECT_TRUE(feed.ParseFrom(first.root()));
  EXPECT_TRUE(feed.ParseFrom(second.root()));
  ASSERT_EQ(feed.entries.size(), 2u);
  EXPECT_EQ(feed.entries[1]->id, QStringLiteral("b"));
  EXPECT_TRUE(feed.etag.isNull());
}

TEST_F(DocsFeedTest, DestroyingAFeedDestroysEachEntry) {
  auto* mm = kestrel::MemoryManager::Default();
  ParsedXml xml(quire_test::FeedDocument(5));
  const long before = mm->live_allocations();
  DocsFeed* feed = new DocsFeed;
  ASSERT_TRUE(feed->ParseFrom(xml.root()));
  ASSERT_EQ(feed->entries.size(), 5u);
  // The feed, its five entries and the entry array.
  EXPECT_EQ(mm->live_allocations(), before + 7);
  kestrel::doDelete(feed);
  EXPECT_EQ(mm->live_allocations(), before);
}

TEST_F(DocsFeedTest, LargeFeedKeepsEveryEntry) {
  ParsedXml xml(quire_test::FeedDocument(1000));
  DocsFeed feed;
  ASSERT_TRUE(feed.ParseFrom(xml.root()));
  ASSERT_EQ(feed.entries.size(), 1000u);
  EXPECT_EQ(feed.entries[999]->id, QStringLiteral("https://docs.quire.example/feeds/id/doc999"));
}

}  // namespace
