// What the reader makes of well-formed documents: names, attributes, text, the tree's shape.
#include "kestrel/xml/xml_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/kestrel/xml/xml_test_fixture.h"

namespace {

using kestrel::XmlAttribute;
using kestrel::XmlNode;
using namespace quire_test::xml;  // NOLINT(build/namespaces): the XML tests' helpers

class XmlReaderTest : public quire_test::xml::XmlTest {};

TEST_F(XmlReaderTest, BuildsTheTreeInDocumentOrder) {
  auto reader = Read(
      "<?xml version='1.0' encoding='UTF-8'?>\n"
      "<feed><id>1</id><entry><title>T</title><link/></entry><entry/><updated>U</updated></feed>");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  EXPECT_TRUE(reader->error_message().isEmpty());
  EXPECT_EQ(reader->error_offset(), -1);
  const XmlNode* feed = reader->GetRootNode();
  ASSERT_NE(feed, nullptr);
  EXPECT_EQ(feed->name, QStringLiteral("feed"));
  EXPECT_EQ(feed->next_sibling, nullptr);
  ASSERT_EQ(ChildCount(feed), 4);
  EXPECT_EQ(Child(feed, 0)->name, QStringLiteral("id"));
  EXPECT_EQ(Child(feed, 0)->text, QStringLiteral("1"));
  EXPECT_EQ(Child(feed, 0)->first_child, nullptr);
  const XmlNode* entry = Child(feed, 1);
  EXPECT_EQ(entry->name, QStringLiteral("entry"));
  ASSERT_EQ(ChildCount(entry), 2);
  EXPECT_EQ(Child(entry, 0)->name, QStringLiteral("title"));
  EXPECT_EQ(Child(entry, 0)->text, QStringLiteral("T"));
  EXPECT_EQ(Child(entry, 1)->name, QStringLiteral("link"));
  EXPECT_EQ(Child(entry, 1)->next_sibling, nullptr);
  EXPECT_EQ(Child(feed, 2)->name, QStringLiteral("entry"));
  EXPECT_EQ(Child(feed, 2)->first_child, nullptr);
  EXPECT_EQ(Child(feed, 3)->name, QStringLiteral("updated"));
  EXPECT_EQ(Child(feed, 3)->text, QStringLiteral("U"));
}

TEST_F(XmlReaderTest, NamesAreKeptAsWrittenWithTheirPrefixes) {
  auto reader = Read(
      "<feed xmlns='http://www.w3.org/2005/Atom' xmlns:qr='urn:q'>"
      "<qr:feedLink/><docs:removed/><openSearch:itemsPerPage>5</openSearch:itemsPerPage>"
      "<Entry/><other:entry/></feed>");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  const XmlNode* feed = reader->GetRootNode();
  ASSERT_EQ(ChildCount(feed), 5);
  // No namespace resolution: the prefix is part of the name, whether or not it is declared.
  EXPECT_EQ(Child(feed, 0)->name, QStringLiteral("qr:feedLink"));
  EXPECT_EQ(Child(feed, 1)->name, QStringLiteral("docs:removed"));
  EXPECT_EQ(Child(feed, 2)->name, QStringLiteral("openSearch:itemsPerPage"));
  EXPECT_EQ(Child(feed, 2)->text, QStringLiteral("5"));
  EXPECT_EQ(Child(feed, 3)->name, QStringLiteral("Entry"));
  EXPECT_EQ(Child(feed, 4)->name, QStringLiteral("other:entry"));
  // Namespace declarations are ordinary attributes.
  ASSERT_EQ(feed->attribute_count, 2);
  EXPECT_EQ(feed->attributes[0].name, QStringLiteral("xmlns"));
  EXPECT_EQ(feed->attributes[0].value, QStringLiteral("http://www.w3.org/2005/Atom"));
  EXPECT_EQ(feed->attributes[1].name, QStringLiteral("xmlns:qr"));
}

TEST_F(XmlReaderTest, AttributesComeInDocumentOrder) {
  auto reader = Read("<link rel=\"edit\" type='text/html' href='h' z='1' a='2' m=''/>");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  const XmlNode* link = reader->GetRootNode();
  ASSERT_EQ(link->attribute_count, 6);
  const char* names[] = {"rel", "type", "href", "z", "a", "m"};
  const char* values[] = {"edit", "text/html", "h", "1", "2", ""};
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(link->attributes[i].name, QLatin1String(names[i])) << i;
    EXPECT_EQ(link->attributes[i].value, QLatin1String(values[i])) << i;
  }
  // An empty value is there: empty, not null (a missing attribute is what readers see as null).
  EXPECT_FALSE(link->attributes[5].value.isNull());
  EXPECT_TRUE(link->attributes[5].value.isEmpty());
}

TEST_F(XmlReaderTest, AnElementWithoutAttributesHasNone) {
  auto reader = Read("<a><b/></a>");
  ASSERT_FALSE(reader->GetErrorsOccurred());
  EXPECT_EQ(reader->GetRootNode()->attribute_count, 0);
  EXPECT_EQ(reader->GetRootNode()->attributes, nullptr);
  EXPECT_EQ(reader->GetRootNode()->first_child->attribute_count, 0);
}

TEST_F(XmlReaderTest, DuplicateAttributesAreKeptBothInOrder) {
  // Not an error: readers look attributes up from the first and so take the first occurrence.
  auto reader = Read("<entry qr:etag='first' id='x' qr:etag='second'><c a='1' a='1'/></entry>");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  const XmlNode* entry = reader->GetRootNode();
  ASSERT_EQ(entry->attribute_count, 3);
  EXPECT_EQ(entry->attributes[0].name, QStringLiteral("qr:etag"));
  EXPECT_EQ(entry->attributes[0].value, QStringLiteral("first"));
  EXPECT_EQ(entry->attributes[1].name, QStringLiteral("id"));
  EXPECT_EQ(entry->attributes[2].name, QStringLiteral("qr:etag"));
  EXPECT_EQ(entry->attributes[2].value, QStringLiteral("second"));
  EXPECT_EQ(entry->first_child->attribute_count, 2);
}

TEST_F(XmlReaderTest, PredefinedEntitiesAndCharacterReferencesAreDecoded) {
  auto reader = Read(
      "<a v='&lt;&gt;&amp;&apos;&quot;'>"
      "<t>A &amp; B &lt;2&gt; &quot;q&quot; &apos;s&apos;</t>"
      "<d>&#65;&#x42;&#x00000043;&#0000068;&#xe9;&#x263A;&#x1F600;&#1114111;</d></a>");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  const XmlNode* a = reader->GetRootNode();
  EXPECT_EQ(a->attributes[0].value, QStringLiteral("<>&'\""));
  EXPECT_EQ(Child(a, 0)->text, QStringLiteral("A & B <2> \"q\" 's'"));
  EXPECT_EQ(Child(a, 1)->text,
            QString::fromUtf8("ABCD\xC3\xA9\xE2\x98\xBA\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF"));
}

TEST_F(XmlReaderTest, ReferencesInLongTextAreDecoded) {
  std::string text;
  std::string expected;
  for (int i = 0; i < 200; ++i) {
    text += "x&amp;&#x263A;";
    expected += "x&\xE2\x98\xBA";
  }
  auto reader = Read("<a b='" + text + "'>" + text + "</a>");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  EXPECT_EQ(reader->GetRootNode()->text, QString::fromStdString(expected));
  EXPECT_EQ(reader->GetRootNode()->attributes[0].value, QString::fromStdString(expected));
}

// A document and the text of its root element as the reader gives it.
struct RootTextCase {
  const char* name;
  const char* document;
  const char* text;  // UTF-8
};

class XmlRootTextTest : public XmlReaderTest, public ::testing::WithParamInterface<RootTextCase> {};

TEST_P(XmlRootTextTest, Text) {
  auto reader = Read(GetParam().document);
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  EXPECT_EQ(reader->GetRootNode()->text, QString::fromUtf8(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    Cdata, XmlRootTextTest,
    ::testing::Values(
        RootTextCase{"IsTakenLiterally", "<c><![CDATA[<raw> &amp; ]] > ]]]]><![CDATA[>]]></c>",
                     "<raw> &amp; ]] > ]]>"},
        RootTextCase{"StartingTextThenReferences", "<p><![CDATA[a]]>b&lt;<x/>c</p>", "ab<c"}),
    [](const ::testing::TestParamInfo<RootTextCase>& info) {
      return std::string(info.param.name);
    });

TEST_F(XmlReaderTest, TextAroundChildrenIsJoinedInDocumentOrder) {
  auto reader = Read("<p>one <b>bold</b> two &amp; <![CDATA[<three>]]><i/> four</p>");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  const XmlNode* p = reader->GetRootNode();
  // The element's own text only; the children keep theirs.
  EXPECT_EQ(p->text, QStringLiteral("one  two & <three> four"));
  EXPECT_EQ(Child(p, 0)->text, QStringLiteral("bold"));
  EXPECT_TRUE(Child(p, 1)->text.isNull());
}

TEST_F(XmlReaderTest, WhitespaceOnlyTextIsKept) {
  auto reader = Read("<a>\n  <t> </t>\n  <u>\t</u><v></v><w/>\n</a>");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  const XmlNode* a = reader->GetRootNode();
  EXPECT_EQ(a->text, QStringLiteral("\n  \n  \n"));
  EXPECT_EQ(Child(a, 0)->text, QStringLiteral(" "));
  EXPECT_EQ(Child(a, 1)->text, QStringLiteral("\t"));
  // No character data at all: a null text.
  EXPECT_TRUE(Child(a, 2)->text.isNull());
  EXPECT_TRUE(Child(a, 3)->text.isNull());
}

TEST_F(XmlReaderTest, LineEndsAreNormalisedAndAttributeWhitespaceBecomesSpaces) {
  auto reader = Read("<a b='x\r\ny\tz\nw' c='&#13;&#10;&#9;'>1\r\n2\r3&#13;</a>");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  const XmlNode* a = reader->GetRootNode();
  EXPECT_EQ(a->text, QStringLiteral("1\n2\n3\r"));
  EXPECT_EQ(a->attributes[0].value, QStringLiteral("x y z w"));
  // Character references are not normalised away.
  EXPECT_EQ(a->attributes[1].value, QStringLiteral("\r\n\t"));
}

TEST_F(XmlReaderTest, NonAsciiTextAndNamesSurviveIntact) {
  const std::string title =
      "Gr\xC3\xB6\xC3\x9F"
      "e \xE6\x97\xA5\xE6\x9C\xAC \xF0\x9F\x93\x9D";
  auto reader = Read("<\xC3\xA9l\xC3\xA9ment attr\xC2\xB7x='" + title + "'>" + title +
                     "</\xC3\xA9l\xC3\xA9ment>");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  const XmlNode* root = reader->GetRootNode();
  EXPECT_EQ(root->name, QString::fromUtf8("\xC3\xA9l\xC3\xA9ment"));
  EXPECT_EQ(root->attributes[0].name, QString::fromUtf8("attr\xC2\xB7x"));
  EXPECT_EQ(root->attributes[0].value, QString::fromStdString(title));
  EXPECT_EQ(root->text, QString::fromStdString(title));
}

TEST_F(XmlReaderTest, CommentsProcessingInstructionsAndTheDeclarationAreSkipped) {
  auto reader = Read(
      "<?xml version=\"1.0\" encoding=\"utf-8\" standalone='yes' ?>\n<!-- before -->\n"
      "<?app data?><a>x<!-- inside -->y<?pi z?>z</a>\n<!-- after --><?after?>\n");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  EXPECT_EQ(reader->GetRootNode()->text, QStringLiteral("xyz"));
  EXPECT_EQ(reader->GetRootNode()->first_child, nullptr);
}

TEST_F(XmlReaderTest, AcceptedDeclarations) {
  quire_test::xml::ExpectAccepted({
      "<?xml version='1.0'?><a/>",
      "<?xml version='1.1'?><a/>",
      "<?xml version = \"1.0\"  encoding = 'UTF-8' ?><a/>",
      "<?xml version='1.0' standalone='no'?><a/>",
      "<?xml version='1.0' encoding='US-ASCII'?><a/>",
  });
}

TEST_F(XmlReaderTest, AUtf8ByteOrderMarkIsSkipped) {
  auto reader = Read("\xEF\xBB\xBF<?xml version='1.0'?><a>\xC3\xA9</a>");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  EXPECT_EQ(reader->GetRootNode()->text, QString::fromUtf8("\xC3\xA9"));
}

std::string Utf16(const std::u16string& text, bool big_endian) {
  std::string bytes = big_endian ? "\xFE\xFF" : "\xFF\xFE";
  for (char16_t unit : text) {
    const char high = static_cast<char>(unit >> 8);
    const char low = static_cast<char>(unit & 0xFF);
    bytes += big_endian ? high : low;
    bytes += big_endian ? low : high;
  }
  return bytes;
}

TEST_F(XmlReaderTest, Utf16WithAByteOrderMarkIsRead) {
  const std::u16string text =
      u"<?xml version='1.0' encoding='UTF-16'?><a b='\u00e9'>x\u263A\U0001F600&amp;</a>";
  for (bool big_endian : {false, true}) {
    auto reader = Read(Utf16(text, big_endian));
    ASSERT_FALSE(reader->GetErrorsOccurred()) << big_endian << U8(reader->error_message());
    EXPECT_EQ(reader->GetRootNode()->name, QStringLiteral("a"));
    EXPECT_EQ(reader->GetRootNode()->attributes[0].value, QString::fromUtf8("\xC3\xA9"));
    EXPECT_EQ(reader->GetRootNode()->text, QString::fromUtf8("x\xE2\x98\xBA\xF0\x9F\x98\x80&"));
  }
}

TEST_F(XmlReaderTest, TheQByteArrayConstructorReadsTheSameBytes) {
  const QByteArray document("<a b='1'>t</a>");
  kestrel::XmlReader reader(document);
  ASSERT_FALSE(reader.GetErrorsOccurred());
  EXPECT_EQ(reader.GetRootNode()->text, QStringLiteral("t"));
  // A QByteArray that holds a zero byte is read to its size, and the zero is refused.
  kestrel::XmlReader with_zero(QByteArray("<a>\0</a>", 8));
  EXPECT_TRUE(with_zero.GetErrorsOccurred());
}

TEST_F(XmlReaderTest, StringsOutliveTheReader) {
  // Readers copy names and texts into records that live on after the tree is gone.
  QString name;
  QString text;
  QString value;
  QString repeated;
  {
    auto reader =
        Read("<a><link rel='edit' href='h1'/><link rel='edit' href='h2'/><t>text</t></a>");
    ASSERT_FALSE(reader->GetErrorsOccurred());
    const XmlNode* a = reader->GetRootNode();
    name = Child(a, 1)->name;
    value = Child(a, 1)->attributes[1].value;
    repeated = Child(a, 1)->attributes[0].value;
    text = Child(a, 2)->text;
  }
  EXPECT_EQ(name, QStringLiteral("link"));
  EXPECT_EQ(value, QStringLiteral("h2"));
  EXPECT_EQ(repeated, QStringLiteral("edit"));
  EXPECT_EQ(text, QStringLiteral("text"));
  name.clear();
  text.clear();
  value.clear();
  repeated.clear();
}

// Many elements whose texts and attribute values repeat, interleaved with ones that never do, and
// more distinct short texts than any cache holds: every node must carry its own text.
TEST_F(XmlReaderTest, RepeatedAndDistinctTextsAreAllRight) {
  std::string document = "<root>";
  for (int i = 0; i < 6000; ++i) {
    const std::string n = std::to_string(i);
    const std::string r = std::to_string(i % 37);
    document += "<e k='rel" + r + "' u='unique" + n + "' q='&amp;" + std::to_string(i % 5) +
                "'><t>text" + r + "</t><v>value" + n + "</v>\n</e>";
  }
  document += "</root>";
  auto reader = Read(document);
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  int i = 0;
  for (const XmlNode* e = reader->GetRootNode()->first_child; e != nullptr;
       e = e->next_sibling, ++i) {
    const QString n = QString::number(i);
    const QString r = QString::number(i % 37);
    ASSERT_EQ(e->attribute_count, 3);
    ASSERT_EQ(e->attributes[0].value, QStringLiteral("rel") + r) << i;
    ASSERT_EQ(e->attributes[1].value, QStringLiteral("unique") + n) << i;
    ASSERT_EQ(e->attributes[2].value, QStringLiteral("&") + QString::number(i % 5)) << i;
    ASSERT_EQ(e->first_child->text, QStringLiteral("text") + r) << i;
    ASSERT_EQ(e->first_child->next_sibling->text, QStringLiteral("value") + n) << i;
    ASSERT_EQ(e->text, QStringLiteral("\n")) << i;
  }
  EXPECT_EQ(i, 6000);
}

TEST_F(XmlReaderTest, ManyAttributesOnOneElementStayTogether) {
  // More attributes than the first storage block holds, on elements among others.
  std::string document = "<r><x a='0'/><m";
  for (int i = 0; i < 300; ++i) {
    document += " a" + std::to_string(i) + "='v" + std::to_string(i) + "'";
  }
  document += "/><y b='1' c='2'/></r>";
  auto reader = Read(document);
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  const XmlNode* m = Child(reader->GetRootNode(), 1);
  ASSERT_EQ(m->attribute_count, 300);
  for (int i = 0; i < 300; ++i) {
    ASSERT_EQ(m->attributes[i].name, QStringLiteral("a") + QString::number(i));
    ASSERT_EQ(m->attributes[i].value, QStringLiteral("v") + QString::number(i));
  }
  EXPECT_EQ(Child(reader->GetRootNode(), 0)->attributes[0].value, QStringLiteral("0"));
  const XmlNode* y = Child(reader->GetRootNode(), 2);
  ASSERT_EQ(y->attribute_count, 2);
  EXPECT_EQ(y->attributes[1].value, QStringLiteral("2"));
}

TEST_F(XmlReaderTest, LongTextsAndNames) {
  const std::string long_name(3000, 'n');
  const std::string long_text(100000, 't');
  auto reader =
      Read("<" + long_name + " v='" + long_text + "'>" + long_text + "</" + long_name + ">");
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  EXPECT_EQ(reader->GetRootNode()->name.size(), 3000);
  EXPECT_EQ(reader->GetRootNode()->text, QString::fromStdString(long_text));
  EXPECT_EQ(reader->GetRootNode()->attributes[0].value, QString::fromStdString(long_text));
}

TEST_F(XmlReaderTest, NestingUpToTheLimitIsRead) {
  const int depth = kestrel::XmlReader::kMaxDepth;
  std::string document;
  for (int i = 0; i < depth; ++i) document += "<d>";
  document += "deep";
  for (int i = 0; i < depth; ++i) document += "</d>";
  auto reader = Read(document);
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  const XmlNode* node = reader->GetRootNode();
  int levels = 1;
  while (node->first_child != nullptr) {
    node = node->first_child;
    ++levels;
  }
  EXPECT_EQ(levels, depth);
  EXPECT_EQ(node->text, QStringLiteral("deep"));
}

TEST_F(XmlReaderTest, AFeedShapedDocument) {
  std::string document =
      "<?xml version='1.0' encoding='UTF-8'?>\n"
      "<feed xmlns='http://www.w3.org/2005/Atom' qr:etag='W/\"feed.\"'>\n"
      "  <openSearch:itemsPerPage>2</openSearch:itemsPerPage>\n";
  for (int i = 0; i < 2; ++i) {
    document += "  <entry qr:etag='\"e" + std::to_string(i) +
                "\"'>\n    <title>Budget &amp; plan</title>\n"
                "    <link rel='edit' href='https://h/e" +
                std::to_string(i) + "'/>\n    <docs:removed/>\n  </entry>\n";
  }
  document += "</feed>\n";
  auto reader = Read(document);
  ASSERT_FALSE(reader->GetErrorsOccurred()) << U8(reader->error_message());
  const XmlNode* feed = reader->GetRootNode();
  EXPECT_EQ(feed->attributes[1].value, QStringLiteral("W/\"feed.\""));
  ASSERT_EQ(ChildCount(feed), 3);
  for (int i = 0; i < 2; ++i) {
    const XmlNode* entry = Child(feed, i + 1);
    EXPECT_EQ(entry->name, QStringLiteral("entry"));
    EXPECT_EQ(entry->attributes[0].value, QStringLiteral("\"e%1\"").arg(i));
    EXPECT_EQ(Child(entry, 0)->text, QStringLiteral("Budget & plan"));
    EXPECT_EQ(Child(entry, 1)->attributes[1].value, QStringLiteral("https://h/e%1").arg(i));
    EXPECT_EQ(Child(entry, 2)->name, QStringLiteral("docs:removed"));
    EXPECT_EQ(entry->text, QStringLiteral("\n    \n    \n    \n  "));
  }
}

}  // namespace
