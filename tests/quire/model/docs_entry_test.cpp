#include "quire/model/docs_entry.h"

#include <gtest/gtest.h>

#include <type_traits>

#include "quire/model/link_relations.h"
#include "tests/quire/model/sample_documents.h"
#include "tests/quire/model/xml_tree.h"
#include "tests/support/test_support.h"

namespace {

using kestrel::quire::DocsEntry;
using namespace quire_test;  // NOLINT(build/namespaces): the test support

static_assert(std::is_polymorphic<DocsEntry>::value, "entries are deleted through a DocsEntry*");
static_assert(std::has_virtual_destructor<DocsEntry>::value, "virtual destructor");
static_assert(!std::is_copy_constructible<DocsEntry>::value, "entries are never copied");
static_assert(!std::is_copy_assignable<DocsEntry>::value, "entries are never copied");

const QString kNs = QString::fromLatin1(kestrel::quire::SchemaNamespace);

// An entry element with the service's namespace declarations around `children`.
QByteArray Entry(const QByteArray& children, const QByteArray& attributes = QByteArray()) {
  return "<entry " + quire_test::NamespaceDeclarations() + " " + attributes + ">" + children +
         "</entry>";
}

// Every field set to a recognisable value, to see which ones a parse touches.
void Prefill(DocsEntry* entry) {
  entry->acl_feed_link = QUrl(QStringLiteral("https://prior/acl"));
  entry->edit_link = QUrl(QStringLiteral("https://prior/edit"));
  entry->resumable_edit_media_link = QUrl(QStringLiteral("https://prior/resumable"));
  entry->etag = QStringLiteral("prior-etag");
  entry->id = QStringLiteral("prior-id");
  entry->updated = QStringLiteral("prior-updated");
  entry->content_type = QStringLiteral("prior/type");
  entry->revisions_feed_link = QUrl(QStringLiteral("https://prior/revisions"));
  entry->title = QStringLiteral("prior-title");
  entry->content_src = QUrl(QStringLiteral("https://prior/src"));
  entry->removed = true;
  entry->starred = true;
}

void ExpectPrefilledExceptEtag(const DocsEntry& entry) {
  EXPECT_EQ(entry.acl_feed_link, QUrl(QStringLiteral("https://prior/acl")));
  EXPECT_EQ(entry.edit_link, QUrl(QStringLiteral("https://prior/edit")));
  EXPECT_EQ(entry.resumable_edit_media_link, QUrl(QStringLiteral("https://prior/resumable")));
  EXPECT_EQ(entry.id, QStringLiteral("prior-id"));
  EXPECT_TRUE(entry.reserved_strings.isEmpty());
  EXPECT_EQ(entry.updated, QStringLiteral("prior-updated"));
  EXPECT_EQ(entry.content_type, QStringLiteral("prior/type"));
  EXPECT_EQ(entry.revisions_feed_link, QUrl(QStringLiteral("https://prior/revisions")));
  EXPECT_EQ(entry.title, QStringLiteral("prior-title"));
  EXPECT_EQ(entry.content_src, QUrl(QStringLiteral("https://prior/src")));
  EXPECT_TRUE(entry.removed);
  EXPECT_TRUE(entry.starred);
}

void ExpectFresh(const DocsEntry& entry) {
  EXPECT_TRUE(entry.acl_feed_link.isEmpty());
  EXPECT_TRUE(entry.edit_link.isEmpty());
  EXPECT_TRUE(entry.resumable_edit_media_link.isEmpty());
  EXPECT_TRUE(entry.etag.isNull());
  EXPECT_TRUE(entry.id.isNull());
  EXPECT_TRUE(entry.reserved_strings.isEmpty());
  EXPECT_TRUE(entry.updated.isNull());
  EXPECT_TRUE(entry.content_type.isNull());
  EXPECT_TRUE(entry.revisions_feed_link.isEmpty());
  EXPECT_TRUE(entry.title.isNull());
  EXPECT_TRUE(entry.content_src.isEmpty());
  EXPECT_FALSE(entry.removed);
  EXPECT_FALSE(entry.starred);
}

class DocsEntryTest : public quire_test::ScriptedTest {};

TEST_F(DocsEntryTest, ConstructorGivesNullStringsEmptyUrlsAndFalseFlags) {
  DocsEntry entry;
  ExpectFresh(entry);
}

TEST_F(DocsEntryTest, ParseFromIsTheSecondVirtualOperation) {
  // The destructor takes the first two slots (complete and deleting), ParseFrom the next one.
  EXPECT_EQ(quire_test::VirtualSlot(&DocsEntry::ParseFrom), 2);
}

TEST_F(DocsEntryTest, AllocatedThroughTheMemoryManager) {
  auto* mm = kestrel::MemoryManager::Default();
  const long before = mm->live_allocations();
  DocsEntry* entry = new DocsEntry;
  EXPECT_EQ(mm->live_allocations(), before + 1);
  kestrel::doDelete(entry);
  EXPECT_EQ(mm->live_allocations(), before);
}

TEST_F(DocsEntryTest, FullEntryFillsEveryField) {
  ParsedXml xml(quire_test::EntryDocument(7, /*removed=*/true));
  DocsEntry entry;
  ASSERT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_EQ(entry.etag, QStringLiteral("\"e7\""));
  EXPECT_EQ(entry.id, QStringLiteral("https://docs.quire.example/feeds/id/doc7"));
  EXPECT_EQ(entry.updated, QStringLiteral("2024-03-05T17:42:09.123Z"));
  EXPECT_EQ(entry.title, QStringLiteral("Report 7 & notes <draft>"));
  EXPECT_EQ(entry.content_type, QStringLiteral("text/plain"));
  EXPECT_EQ(entry.content_src.toEncoded(),
            QByteArray("https://docs.quire.example/content/doc7?e=v1"));
  EXPECT_EQ(entry.edit_link.toEncoded(),
            QByteArray("https://docs.quire.example/feeds/default/private/full/doc7"));
  EXPECT_EQ(
      entry.resumable_edit_media_link.toEncoded(),
      QByteArray("https://docs.quire.example/upload/create-session/default/private/full/doc7"));
  EXPECT_EQ(entry.acl_feed_link.toEncoded(),
            QByteArray("https://docs.quire.example/feeds/default/private/full/doc7/acl"));
  EXPECT_EQ(entry.revisions_feed_link.toEncoded(),
            QByteArray("https://docs.quire.example/feeds/default/private/full/doc7/revisions"));
  EXPECT_TRUE(entry.starred);
  EXPECT_TRUE(entry.removed);
  EXPECT_TRUE(entry.reserved_strings.isEmpty()) << "nothing fills the reserved strings";
}

TEST_F(DocsEntryTest, NullNodeIsRefusedAndTouchesNothing) {
  DocsEntry entry;
  Prefill(&entry);
  EXPECT_FALSE(entry.ParseFrom(nullptr));
  ExpectPrefilledExceptEtag(entry);
  EXPECT_EQ(entry.etag, QStringLiteral("prior-etag"));
}

TEST_F(DocsEntryTest, RootNamedFeedIsRefusedAndTouchesNothing) {
  ParsedXml xml("<feed " + quire_test::NamespaceDeclarations() +
                " qr:etag=\"x\"><title>t</title><id>i</id></feed>");
  DocsEntry entry;
  Prefill(&entry);
  EXPECT_FALSE(entry.ParseFrom(xml.root()));
  ExpectPrefilledExceptEtag(entry);
  EXPECT_EQ(entry.etag, QStringLiteral("prior-etag"));
}

TEST_F(DocsEntryTest, PrefixedOrDifferentlyCasedRootIsRefused) {
  ParsedXml prefixed(
      "<atom:entry xmlns:atom=\"http://www.w3.org/2005/Atom\"><atom:id>i</atom:id>"
      "</atom:entry>");
  ParsedXml cased("<Entry><id>i</id></Entry>");
  DocsEntry entry;
  Prefill(&entry);
  EXPECT_FALSE(entry.ParseFrom(prefixed.root()));
  EXPECT_FALSE(entry.ParseFrom(cased.root()));
  ExpectPrefilledExceptEtag(entry);
  EXPECT_EQ(entry.etag, QStringLiteral("prior-etag"));
}

TEST_F(DocsEntryTest, EntryWithoutChildrenAssignsOnlyTheEtag) {
  ParsedXml with_tag(Entry("", "qr:etag=\"W/&quot;abc&quot;\""));
  DocsEntry tagged;
  Prefill(&tagged);
  EXPECT_TRUE(tagged.ParseFrom(with_tag.root()));
  ExpectPrefilledExceptEtag(tagged);
  EXPECT_EQ(tagged.etag, QStringLiteral("W/\"abc\""));

  ParsedXml without_tag(Entry(""));
  DocsEntry untagged;
  Prefill(&untagged);
  EXPECT_TRUE(untagged.ParseFrom(without_tag.root()));
  ExpectPrefilledExceptEtag(untagged);
  EXPECT_TRUE(untagged.etag.isNull()) << "a missing etag is assigned as a null string";
}

TEST_F(DocsEntryTest, DuplicatedEtagAttributeYieldsTheFirst) {
  NodeBuilder b;
  kestrel::XmlNode* entry_node =
      b.Node(QStringLiteral("entry"), {{QStringLiteral("qr:etag"), QStringLiteral("first")},
                                       {QStringLiteral("qr:etag"), QStringLiteral("second")}});
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(entry_node));
  EXPECT_EQ(entry.etag, QStringLiteral("first"));
}

TEST_F(DocsEntryTest, DuplicatedHrefYieldsTheFirst) {
  NodeBuilder b;
  kestrel::XmlNode* entry_node = b.Node(
      QStringLiteral("entry"), {},
      {b.Node(QStringLiteral("link"), {{QStringLiteral("href"), QStringLiteral("https://h/1")},
                                       {QStringLiteral("rel"), QStringLiteral("edit")},
                                       {QStringLiteral("href"), QStringLiteral("https://h/2")},
                                       {QStringLiteral("rel"), QStringLiteral("alternate")}})});
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(entry_node));
  EXPECT_EQ(entry.edit_link, QUrl(QStringLiteral("https://h/1")));
}

TEST_F(DocsEntryTest, EditLinkWithoutHrefIsAssignedEmpty) {
  ParsedXml xml(Entry("<link rel=\"edit\"/>"));
  DocsEntry entry;
  Prefill(&entry);
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_TRUE(entry.edit_link.isEmpty()) << "assigned, not skipped";
}

TEST_F(DocsEntryTest, LastEditLinkWins) {
  ParsedXml xml(
      Entry("<link rel=\"edit\" href=\"https://h/first\"/>"
            "<link rel=\"edit\" href=\"https://h/second\"/>"));
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_EQ(entry.edit_link, QUrl(QStringLiteral("https://h/second")));
}

TEST_F(DocsEntryTest, EditMediaAlternateSelfAndParentLinksChangeNothing) {
  ParsedXml xml(
      Entry("<link rel=\"edit-media\" href=\"https://h/m\"/>"
            "<link rel=\"alternate\" href=\"https://h/a\"/>"
            "<link rel=\"self\" href=\"https://h/s\"/>"
            "<link rel=\"Edit\" href=\"https://h/E\"/>"
            "<link href=\"https://h/norel\"/>"
            "<link rel=\"http://schemas.example.org/parent\" href=\"https://h/p\"/>"));
  DocsEntry entry;
  Prefill(&entry);
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  ExpectPrefilledExceptEtag(entry);
}

TEST_F(DocsEntryTest, ResumableEditMediaLink) {
  ParsedXml xml(Entry("<link rel=\"" + kNs.toLatin1() +
                      "/g/2005#resumable-edit-media\" href=\"https://h/upload/doc1\"/>"));
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_EQ(entry.resumable_edit_media_link, QUrl(QStringLiteral("https://h/upload/doc1")));
  EXPECT_TRUE(entry.edit_link.isEmpty());
}

TEST_F(DocsEntryTest, AccessControlRelationOnlyCountsOnAFeedLink) {
  const QByteArray acl = kestrel::quire::kAclFeedRel;
  ParsedXml on_feed_link(Entry("<qr:feedLink rel=\"" + acl + "\" href=\"https://h/acl\"/>"));
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(on_feed_link.root()));
  EXPECT_EQ(entry.acl_feed_link, QUrl(QStringLiteral("https://h/acl")));

  ParsedXml on_link(Entry("<link rel=\"" + acl + "\" href=\"https://h/acl\"/>"));
  DocsEntry on_link_entry;
  Prefill(&on_link_entry);
  EXPECT_TRUE(on_link_entry.ParseFrom(on_link.root()));
  ExpectPrefilledExceptEtag(on_link_entry);

  ParsedXml edit_on_feed_link(Entry("<qr:feedLink rel=\"edit\" href=\"https://h/edit\"/>"));
  DocsEntry edit_entry;
  Prefill(&edit_entry);
  EXPECT_TRUE(edit_entry.ParseFrom(edit_on_feed_link.root()));
  ExpectPrefilledExceptEtag(edit_entry);
}

TEST_F(DocsEntryTest, RevisionsFeedLink) {
  ParsedXml xml(Entry("<qr:feedLink rel=\"" + QByteArray(kestrel::quire::kRevisionsFeedRel) +
                      "\" href=\"https://h/rev\"/>"
                      "<qr:feedLink rel=\"" +
                      kNs.toLatin1() + "/other\" href=\"https://h/x\"/>"));
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_EQ(entry.revisions_feed_link, QUrl(QStringLiteral("https://h/rev")));
  EXPECT_TRUE(entry.acl_feed_link.isEmpty());
}

QByteArray StarredCategory(const QByteArray& label_attribute,
                           const QByteArray& scheme = kestrel::quire::kLabelsScheme,
                           const QByteArray& term = kestrel::quire::kStarredLabelTerm) {
  return "<category scheme=\"" + scheme + "\" term=\"" + term + "\" " + label_attribute + "/>";
}

TEST_F(DocsEntryTest, StarredCategorySetsTheFlagAndALaterOneInAnotherCaseClearsIt) {
  ParsedXml starred(Entry(StarredCategory("label=\"starred\"")));
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(starred.root()));
  EXPECT_TRUE(entry.starred);

  ParsedXml cleared(
      Entry(StarredCategory("label=\"starred\"") + StarredCategory("label=\"Starred\"")));
  DocsEntry cleared_entry;
  EXPECT_TRUE(cleared_entry.ParseFrom(cleared.root()));
  EXPECT_FALSE(cleared_entry.starred) << "the flag is assigned, not only raised";
}

TEST_F(DocsEntryTest, StarredCategoryWithoutLabelClearsTheFlag) {
  ParsedXml xml(Entry(StarredCategory("")));
  DocsEntry entry;
  entry.starred = true;
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_FALSE(entry.starred);
}

TEST_F(DocsEntryTest, StarredTermUnderAnotherSchemeOrAnotherTermChangesNothing) {
  ParsedXml other_scheme(Entry(StarredCategory("label=\"starred\"", kNs.toLatin1() + "/g/2005#kind",
                                               kestrel::quire::kStarredLabelTerm)));
  ParsedXml other_term(Entry(StarredCategory("label=\"x\"", kestrel::quire::kLabelsScheme,
                                             kNs.toLatin1() + "/g/2005/labels#viewed")));
  for (bool prior : {false, true}) {
    DocsEntry entry;
    entry.starred = prior;
    EXPECT_TRUE(entry.ParseFrom(other_scheme.root()));
    EXPECT_EQ(entry.starred, prior);
    EXPECT_TRUE(entry.ParseFrom(other_term.root()));
    EXPECT_EQ(entry.starred, prior);
  }
}

TEST_F(DocsEntryTest, RemovedAnywhereWhateverItsContent) {
  ParsedXml xml(Entry("<id>i</id><docs:removed>false</docs:removed><title>t</title>"));
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_TRUE(entry.removed);

  ParsedXml last(Entry("<id>i</id><title>t</title><docs:removed value=\"no\"/>"));
  DocsEntry last_entry;
  EXPECT_TRUE(last_entry.ParseFrom(last.root()));
  EXPECT_TRUE(last_entry.removed);

  ParsedXml absent(Entry("<id>i</id>"));
  DocsEntry kept;
  kept.removed = true;
  EXPECT_TRUE(kept.ParseFrom(absent.root()));
  EXPECT_TRUE(kept.removed) << "nothing sets the flag back to false";
}

TEST_F(DocsEntryTest, ContentWithTypeButNoSrc) {
  ParsedXml xml(Entry("<content type=\"text/html\"/>"));
  DocsEntry entry;
  Prefill(&entry);
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_EQ(entry.content_type, QStringLiteral("text/html"));
  EXPECT_TRUE(entry.content_src.isEmpty()) << "assigned even when the attribute is missing";
}

TEST_F(DocsEntryTest, ContentWithSrcButNoTypeAssignsANullType) {
  ParsedXml xml(Entry("<content src=\"https://h/c\"/>"));
  DocsEntry entry;
  Prefill(&entry);
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_TRUE(entry.content_type.isNull());
  EXPECT_EQ(entry.content_src, QUrl(QStringLiteral("https://h/c")));
}

TEST_F(DocsEntryTest, HrefIsReadAsAlreadyEncoded) {
  ParsedXml xml(Entry("<content src=\"https://h/a%20b/c%2Fd?q=%26x\"/>"));
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_EQ(entry.content_src.toEncoded(), QByteArray("https://h/a%20b/c%2Fd?q=%26x"))
      << "percent-encoded text is not encoded again";
}

TEST_F(DocsEntryTest, TimestampIsKeptCharacterForCharacter) {
  ParsedXml xml(Entry("<updated>2024-03-05T17:42:09.123+01:00</updated>"));
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_EQ(entry.updated, QStringLiteral("2024-03-05T17:42:09.123+01:00"));
}

TEST_F(DocsEntryTest, TitleWithEntitiesAndNonAsciiIsDecoded) {
  ParsedXml xml(
      Entry("<title>Caf\xc3\xa9 &#x2013; \xe6\x97\xa5\xe6\x9c\xac &amp; "
            "<![CDATA[<raw>]]></title>"));
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_EQ(entry.title,
            QString::fromUtf8("Caf\xc3\xa9 \xe2\x80\x93 \xe6\x97\xa5\xe6\x9c\xac & <raw>"));
}

TEST_F(DocsEntryTest, NestedElementsAreNotSeen) {
  ParsedXml xml(
      Entry("<author><id>nested-id</id><title>nested</title>"
            "<link rel=\"edit\" href=\"https://h/nested\"/><docs:removed/></author>"));
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_TRUE(entry.id.isNull());
  EXPECT_TRUE(entry.title.isNull());
  EXPECT_TRUE(entry.edit_link.isEmpty());
  EXPECT_FALSE(entry.removed);
}

TEST_F(DocsEntryTest, NamesAreCaseSensitive) {
  ParsedXml xml(
      Entry("<ID>x</ID><Title>x</Title><Updated>x</Updated><Link rel=\"edit\" "
            "href=\"https://h/x\"/><Content type=\"a/b\"/><docs:Removed/>"));
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  ExpectFresh(entry);
}

TEST_F(DocsEntryTest, OtherPrefixesForTheSameNamespacesAreNotRecognised) {
  const QByteArray ns(kestrel::quire::SchemaNamespace);
  ParsedXml xml(
      "<entry xmlns=\"http://www.w3.org/2005/Atom\" xmlns:g=\"" + ns + "/g/2005\" xmlns:d=\"" + ns +
      "/docs/2007\" g:etag=\"&quot;t&quot;\">"
      "<g:feedLink rel=\"" +
      QByteArray(kestrel::quire::kAclFeedRel) + "\" href=\"https://h/acl\"/><d:removed/></entry>");
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  ExpectFresh(entry);
}

TEST_F(DocsEntryTest, LastIdTitleAndUpdatedWin) {
  ParsedXml xml(
      Entry("<id>a</id><title>a</title><updated>a</updated>"
            "<id>b</id><title>b</title><updated>b</updated>"));
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(xml.root()));
  EXPECT_EQ(entry.id, QStringLiteral("b"));
  EXPECT_EQ(entry.title, QStringLiteral("b"));
  EXPECT_EQ(entry.updated, QStringLiteral("b"));
}

TEST_F(DocsEntryTest, ParsingAgainOverwritesOnlyWhatIsPresent) {
  ParsedXml first(quire_test::EntryDocument(1));
  ParsedXml second(Entry("<title>only the title</title>"));
  DocsEntry entry;
  EXPECT_TRUE(entry.ParseFrom(first.root()));
  EXPECT_TRUE(entry.ParseFrom(second.root()));
  EXPECT_EQ(entry.title, QStringLiteral("only the title"));
  EXPECT_EQ(entry.id, QStringLiteral("https://docs.quire.example/feeds/id/doc1"));
  EXPECT_TRUE(entry.etag.isNull()) << "the etag is always assigned";
}

}  // namespace
