#include "kestrel/xml/xml_reader.h"

#include <gtest/gtest.h>

namespace {

using kestrel::XmlNode;
using kestrel::XmlReader;

TEST(XmlReaderTest, BuildsTheTreeWithPrefixesAttributesAndText) {
  XmlReader reader(QByteArray(
      "<?xml version='1.0'?><feed xmlns='a' qr:etag='&quot;x&quot;'>"
      "<title>A &amp; B &#x263A;</title><qr:feedLink rel='r' href='h'/>"
      "<content><![CDATA[<raw>]]> tail</content></feed>"));
  ASSERT_FALSE(reader.GetErrorsOccurred()) << reader.error_message().toStdString();
  XmlNode* root = reader.GetRootNode();
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->name, QStringLiteral("feed"));
  ASSERT_EQ(root->attribute_count, 2);
  EXPECT_EQ(root->attributes[0].name, QStringLiteral("xmlns"));
  EXPECT_EQ(root->attributes[1].name, QStringLiteral("qr:etag"));
  EXPECT_EQ(root->attributes[1].value, QStringLiteral("\"x\""));
  XmlNode* title = root->first_child;
  ASSERT_NE(title, nullptr);
  EXPECT_EQ(title->text, QString::fromUtf8("A & B \u263A"));
  XmlNode* link = title->next_sibling;
  ASSERT_NE(link, nullptr);
  EXPECT_EQ(link->name, QStringLiteral("qr:feedLink"));
  XmlNode* content = link->next_sibling;
  ASSERT_NE(content, nullptr);
  EXPECT_EQ(content->text, QStringLiteral("<raw> tail"));
  EXPECT_EQ(content->next_sibling, nullptr);
}

TEST(XmlReaderTest, MalformedDocumentsAreErrors) {
  const char* bad[] = {
      "", "<a>", "<a></b>", "<a/><b/>", "<a/>trailing", "<a>\x01</a>", "<a>&undefined;</a>",
      "<!DOCTYPE a [<!ENTITY x 'y'>]><a>&x;</a>", "<a b='1' b='2'/>x", "\xff<a/>",
  };
  for (const char* text : bad) {
    XmlReader reader{QByteArray(text)};
    EXPECT_TRUE(reader.GetErrorsOccurred()) << text;
    EXPECT_EQ(reader.GetRootNode(), nullptr) << text;
  }
}

TEST(XmlReaderTest, DeepNestingIsAnErrorNotACrash) {
  QByteArray deep;
  for (int i = 0; i < 100000; ++i) deep += "<a>";
  for (int i = 0; i < 100000; ++i) deep += "</a>";
  XmlReader reader(deep);
  EXPECT_TRUE(reader.GetErrorsOccurred());
}

}  // namespace

namespace {

TEST(XmlReaderTest, DuplicateAttributesAreKeptInOrder) {
  kestrel::XmlReader reader{QByteArray("<entry qr:etag='first' qr:etag='second'/>")};
  ASSERT_FALSE(reader.GetErrorsOccurred());
  ASSERT_EQ(reader.GetRootNode()->attribute_count, 2);
  EXPECT_EQ(reader.GetRootNode()->attributes[0].value, QStringLiteral("first"));
  EXPECT_EQ(reader.GetRootNode()->attributes[1].value, QStringLiteral("second"));
}

TEST(XmlReaderTest, WhitespaceTextIsKept) {
  kestrel::XmlReader reader{QByteArray("<a>\n  <t> </t>\n</a>\n")};
  ASSERT_FALSE(reader.GetErrorsOccurred());
  EXPECT_EQ(reader.GetRootNode()->first_child->text, QStringLiteral(" "));
}

}  // namespace
