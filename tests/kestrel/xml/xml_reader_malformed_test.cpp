// Documents that are not well-formed are reported as errors, with no tree; and the near misses that
// are well-formed are not.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "kestrel/xml/xml_reader.h"
#include "tests/kestrel/xml/xml_test_fixture.h"

namespace {

using namespace quire_test::xml;  // NOLINT(build/namespaces): the XML tests' helpers

class XmlReaderMalformedTest : public quire_test::xml::XmlTest {};

TEST_F(XmlReaderMalformedTest, NoRootElement) {
  ExpectRefused({"", " ", "\n\t \r\n", "\xEF\xBB\xBF", "<?xml version='1.0'?>",
                 "<?xml version='1.0'?>\n", "<!-- only a comment -->", "<?pi only?>", "text"});
  // A null pointer is an empty document.
  kestrel::XmlReader reader(nullptr, 0);
  EXPECT_TRUE(reader.GetErrorsOccurred());
  EXPECT_EQ(reader.GetRootNode(), nullptr);
  kestrel::XmlReader empty{QByteArray()};
  EXPECT_TRUE(empty.GetErrorsOccurred());
}

TEST_F(XmlReaderMalformedTest, UnclosedAndMismatchedTags) {
  ExpectRefused({"<a>",       "<a><b></b>",    "<a><b/>",       "<a></b>", "<a><b></a></b>",
                 "</a>",      "<a/></a>",      "<a></a></a>",   "<a></A>", "<ab></a>",
                 "<a></ab>",  "<a></ a>",      "<a></a",        "<a",      "<",
                 "<a/",       "<a b",          "<a b=",         "<a b='",  "<a b='1'",
                 "<a b='1'/", "<a></a b='1'>", "<a><b></c></a>"});
}

TEST_F(XmlReaderMalformedTest, ContentOutsideTheRootElement) {
  ExpectRefused({"<a/><b/>",          "<a></a><a></a>", "<a/>x",     "<a/>\nx\n",   "x<a/>",
                 "<a/><![CDATA[x]]>", "<a/>&amp;",      "&amp;<a/>", "<a/>&#32;",   "<a/><",
                 "<a/></b>",          "<a/>]]>",        "<a/> <",    "<a>x</a>\n<", "<a/>\n\n<",
                 "<a/> <!",           "<a/> </",        "<a/> <?",   "<a/>\n<a",    "<a/> <!--"});
}

TEST_F(XmlReaderMalformedTest, BadNames) {
  ExpectRefused({"< a/>", "<1a/>", "<-a/>", "<.a/>", "<a\xC3\x97/>",
                 "<\xCC\x80"
                 "a/>",
                 "<a b\xC3\x97='1'/>", "<a 1b='1'/>", "<a><?1?></a>", "<a\xE2\x80\x80/>"});
}

TEST_F(XmlReaderMalformedTest, BadAttributes) {
  ExpectRefused({"<a b=c/>", "<a b=\"c'/>", "<a b='c\"/>", "<a b='1'c='2'/>", "<a b/>", "<a ='1'/>",
                 "<a b='<'/>", "<a b='a<b'/>", "<a b=\"x\" c='<y>'/>", "<a b='&'/>", "<a b='&x;'/>",
                 "<a b='&amp'/>", "<a b=\"&#;\"/>", "<a b='&#xD800;'/>", "<a b=='1'/>"});
}

TEST_F(XmlReaderMalformedTest, UndefinedEntitiesAndMalformedReferences) {
  ExpectRefused({"<a>&</a>", "<a>& </a>", "<a>&amp</a>", "<a>&amp x</a>", "<a>&undefined;</a>",
                 "<a>&AMP;</a>", "<a>&Lt;</a>", "<a>&lt</a>", "<a>&nbsp;</a>", "<a>&lol9;</a>",
                 "<a>&#;</a>", "<a>&#x;</a>", "<a>&#X41;</a>", "<a>&#xG;</a>", "<a>&#12a;</a>",
                 "<a>&# 65;</a>", "<a>&#65</a>", "<a>&#65 ;</a>", "<a>&#-1;</a>", "<a>&#+65;</a>",
                 "<a>&#0;</a>", "<a>&#x0;</a>", "<a>&#1;</a>", "<a>&#x1F;</a>", "<a>&#xD800;</a>",
                 "<a>&#xDFFF;</a>", "<a>&#55357;&#56832;</a>", "<a>&#xFFFE;</a>", "<a>&#xFFFF;</a>",
                 "<a>&#x110000;</a>", "<a>&#1114112;</a>", "<a>&#99999999999999999999;</a>",
                 // Wraps to 'A' in 64 bits, or in 32: an overflow must not make it valid.
                 "<a>&#x10000000000000041;</a>", "<a>&#x100000041;</a>", "<a>&#4294967361;</a>",
                 "<a><b>ok</b>&bad;</a>", "<a>x</a>&amp"});
}

TEST_F(XmlReaderMalformedTest, ControlCharacters) {
  std::vector<std::string> documents;
  for (int c = 0; c < 0x20; ++c) {
    if (c == 0x09 || c == 0x0A || c == 0x0D) continue;
    const std::string b(1, static_cast<char>(c));
    documents.push_back("<a>" + b + "</a>");
    documents.push_back("<a b='" + b + "'/>");
    documents.push_back("<a" + b + "/>");
    documents.push_back("<a><!--" + b + "--></a>");
    documents.push_back("<a><![CDATA[" + b + "]]></a>");
    documents.push_back("<a><?pi " + b + "?></a>");
    documents.push_back("<a/>" + b);
    documents.push_back(b + "<a/>");
  }
  ExpectRefused(documents);
}

TEST_F(XmlReaderMalformedTest, BrokenUtf8SurrogatesAndNonCharacters) {
  const std::vector<std::string> bad = {"\x80",
                                        "\xBF",
                                        "\xC0\xAF",
                                        "\xC1\xBF",
                                        "\xE0\x80\xAF",
                                        "\xE0\x9F\xBF",
                                        "\xF0\x80\x80\xAF",
                                        "\xF0\x8F\xBF\xBF",
                                        "\xC3",
                                        "\xE2\x98",
                                        "\xF0\x9F\x98",
                                        "\xC3\x28",
                                        "\xE2\x28\xA1",
                                        "\xFE",
                                        "\xFF",
                                        "\xF5\x80\x80\x80",
                                        "\xF4\x90\x80\x80",
                                        "\xF8\x88\x80\x80\x80",
                                        "\xED\xA0\x80",
                                        "\xED\xBF\xBF",
                                        "\xED\xA0\xBD\xED\xB8\x80",
                                        "\xEF\xBF\xBE",
                                        "\xEF\xBF\xBF"};
  std::vector<std::string> documents;
  for (const std::string& b : bad) {
    documents.push_back("<a>" + b + "</a>");
    documents.push_back("<a>long enough to be read sixteen bytes at a time " + b + "</a>");
    documents.push_back("<a b='" + b + "'/>");
    documents.push_back("<a" + b + "/>");
    documents.push_back("<a/>" + b);
  }
  ExpectRefused(documents);
}

TEST_F(XmlReaderMalformedTest, CdataEndInTextAndBadCommentsAndSections) {
  ExpectRefused({"<a>]]></a>", "<a>x]]>y</a>", "<a>long text before the end marker ]]></a>",
                 "<a><!-- a -- b --></a>", "<a><!-- x ---></a>", "<a><!---></a>", "<a><!--</a>",
                 "<!-- a -- b --><a/>", "<a><![CDATA[x</a>", "<a><![cdata[x]]></a>",
                 "<a><![INCLUDE[x]]></a>", "<a><!ELEMENT a ANY></a>", "<a><!ENTITY x 'y'></a>",
                 "<a><!></a>", "<a><!x></a>"});
}

TEST_F(XmlReaderMalformedTest, MisplacedOrMalformedDeclarationsAndTargets) {
  ExpectRefused({"<?xml version='1.0'?><?xml version='1.0'?><a/>",
                 "<a/><?xml version='1.0'?>",
                 " <?xml version='1.0'?><a/>",
                 "\n<?xml version='1.0'?><a/>",
                 "<!-- c --><?xml version='1.0'?><a/>",
                 "<a><?xml version='1.0'?></a>",
                 "<?XML version='1.0'?><a/>",
                 "<?Xml version='1.0'?><a/>",
                 "<a><?xMl x?></a>",
                 "<a/><?XmL?>",
                 "<?\?><a/>",
                 "<?pi<a/>",
                 "<?xml?><a/>",
                 "<?xml version='2.0'?><a/>",
                 "<?xml version='1.'?><a/>",
                 "<?xml version='1.0x'?><a/>",
                 "<?xml version=1.0?><a/>",
                 "<?xml encoding='UTF-8'?><a/>",
                 "<?xml encoding='UTF-8' version='1.0'?><a/>",
                 "<?xml version='1.0' encoding='ISO-8859-1'?><a/>",
                 "<?xml version='1.0' encoding='UTF-16'?><a/>",
                 "<?xml version='1.0' encoding='US-ASCII'?><a>\xC3\xA9</a>",
                 "<?xml version='1.0' standalone='maybe'?><a/>",
                 "<?xml version='1.0' standalone='yes' encoding='UTF-8'?><a/>",
                 "<?xml version='1.0' foo='bar'?><a/>",
                 "<?xml version='1.0' version='1.0'?><a/>",
                 "<?xml version='1.0'<a/>"});
}

std::string Utf16Le(const std::u16string& text) {
  std::string bytes = "\xFF\xFE";
  for (char16_t unit : text) {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8);
  }
  return bytes;
}

TEST_F(XmlReaderMalformedTest, BrokenUtf16) {
  std::string odd = Utf16Le(u"<a/>");
  odd += 'x';
  const std::u16string lone_high = {u'<', u'a', u'>', static_cast<char16_t>(0xD83D),
                                    u'<', u'/', u'a', u'>'};
  const std::u16string lone_low = {u'<', u'a', u'>', static_cast<char16_t>(0xDE00),
                                   u'<', u'/', u'a', u'>'};
  const std::u16string reversed = {
      u'<', u'a', u'>', static_cast<char16_t>(0xDE00), static_cast<char16_t>(0xD83D), u'<',
      u'/', u'a', u'>'};
  const std::u16string high_at_end = {u'<', u'a', u'/', u'>', static_cast<char16_t>(0xD83D)};
  ExpectRefused({odd, Utf16Le(lone_high), Utf16Le(lone_low), Utf16Le(reversed),
                 Utf16Le(high_at_end), Utf16Le(u"<a>\u0001</a>"), Utf16Le(u"\uFFFE<a/>"),
                 Utf16Le(u"<?xml version='1.0' encoding='UTF-8'?><a/>"), "\xFF\xFE",
                 // UTF-32 marks: read as UTF-16 they bring a zero character.
                 std::string("\xFF\xFE\0\0<\0\0\0a\0\0\0/\0\0\0>\0\0\0", 20)});
}

TEST_F(XmlReaderMalformedTest, NearMissesThatAreWellFormed) {
  ExpectAccepted({"<a />",
                  "<a\n\tb = '1'\n/>",
                  "<a></a >",
                  "<a></a\n>",
                  "<a>]]</a>",
                  "<a>]></a>",
                  "<a>> </a>",
                  "<a>]]]</a>",
                  "<a b='>'/>",
                  "<a b='x]]>y'/>",
                  "<a b=\"'\" c='\"'/>",
                  "<a><!----></a>",
                  "<a><!-- - --></a>",
                  "<a><!-- <b> --></a>",
                  "<?pi?><a/>",
                  "<a><?xml-stylesheet href='x'?></a>",
                  "<a><?xmlfoo?></a>",
                  "<a:b:c/>",
                  "<_a/>",
                  "<:a/>",
                  "<a.b-c_d9/>",
                  "<a>&#x10FFFF;</a>",
                  "<a>&#9;&#10;&#13;&#32;</a>",
                  "<a>\xEF\xBF\xBD</a>",
                  "<a>\x7F</a>",
                  "<a>\xC2\x80</a>",
                  "<a>\t\n\r</a>",
                  "<a\xC2\xB7/>",
                  "<\xE6\x97\xA5/>",
                  "<a><![CDATA[]]></a>",
                  "<a><![CDATA[<!-- &amp; ]]></a>",
                  "<a><![CDATA[]]]]></a>",
                  "<?xml version='1.0' encoding='utf-8'?><a/>",
                  "<?xml version='1.0' encoding='ASCII'?><a/>",
                  "<a/>\n<!-- end -->\n<?end?>\n",
                  "\xEF\xBB\xBF<a/>",
                  "\xEF\xBB\xBF<?xml version='1.0'?><a/>"});
}

// A small document that uses most of the syntax, with nothing after its root element: every
// proper prefix of it is cut short and must be refused.
const char kSmallDocument[] =
    "<?xml version='1.0' encoding='UTF-8'?>\n"
    "<!-- c --><?pi data?>\n"
    "<feed xmlns:qr='urn:q' qr:etag='&quot;W/1&quot;'>\n"
    "  <entry a=\"1\" b='&#x263A;'>"
    "<title>T\xC3\xA9 &amp; &#65;<![CDATA[<x>]]></title>"
    "<link rel='edit' href='h'/><e></e></entry>\n"
    "</feed>";

TEST_F(XmlReaderMalformedTest, TruncationAtEveryByteIsAnError) {
  const std::string document = kSmallDocument;
  {
    auto whole = Read(document);
    ASSERT_FALSE(whole->GetErrorsOccurred()) << U8(whole->error_message());
  }
  for (std::size_t size = 0; size < document.size(); ++size) {
    auto reader = Read(document.substr(0, size));
    EXPECT_TRUE(reader->GetErrorsOccurred()) << "prefix of " << size << " bytes accepted";
    EXPECT_EQ(reader->GetRootNode(), nullptr);
  }
}

TEST_F(XmlReaderMalformedTest, AForbiddenByteAnywhereIsAnError) {
  const std::string document = kSmallDocument;
  const std::vector<std::string> inserts = {
      std::string(1, '\0'), "\x01", "\x1F", "\x80", "\xFF", "\xC3", "\xED\xA0\x80"};
  for (std::size_t at = 0; at <= document.size(); ++at) {
    for (const std::string& insert : inserts) {
      std::string corrupted = document;
      corrupted.insert(at, insert);
      auto reader = Read(corrupted);
      EXPECT_TRUE(reader->GetErrorsOccurred()) << "accepted: " << Shown(corrupted);
    }
  }
}

TEST_F(XmlReaderMalformedTest, ErrorOffsetsPointAtTheFault) {
  struct Case {
    const char* document;
    long long offset;
  };
  const Case cases[] = {
      {"<a>ok\x01</a>", 5},         {"\xEF\xBB\xBF<a>\xFF</a>", 6},
      {"<a><b>x</b>&bad;</a>", 11}, {"<a b='x<'/>", 7},
      {"<a>text]]></a>", 7},        {"<a>0123456789abcdef0123456789&#0;</a>", 29},
  };
  for (const Case& c : cases) {
    auto reader = Read(c.document);
    EXPECT_TRUE(reader->GetErrorsOccurred()) << Shown(c.document);
    EXPECT_EQ(reader->error_offset(), c.offset) << Shown(c.document);
  }
}

// Random damage to the small document: whatever the verdict, the reader neither crashes nor reads
// out of bounds (this test earns its keep under the sanitizers), a refusal leaves no tree, and an
// accepted tree is whole.
TEST_F(XmlReaderMalformedTest, DamagedDocumentsAreHandledSafely) {
  const std::vector<std::string> pieces = {"<",
                                           ">",
                                           "/",
                                           "'",
                                           "\"",
                                           "=",
                                           "&",
                                           ";",
                                           "#",
                                           "x",
                                           "!",
                                           "-",
                                           "?",
                                           "[",
                                           "]",
                                           "a",
                                           " ",
                                           "\n",
                                           ":",
                                           "\xC3\xA9",
                                           "&amp;",
                                           "&#65;",
                                           "&#x",
                                           "<!--",
                                           "-->",
                                           "<![CDATA[",
                                           "]]>",
                                           "<?",
                                           "?>",
                                           "</a>",
                                           "<a>",
                                           "<b/>",
                                           "xml",
                                           "\r",
                                           "<!DOCTYPE a>",
                                           "\xC3",
                                           std::string(1, '\0')};
  std::mt19937 random(20240601);
  int accepted = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string document = kSmallDocument;
    const int damages = 1 + static_cast<int>(random() % 3);
    for (int d = 0; d < damages; ++d) {
      const std::size_t at = random() % (document.size() + 1);
      const std::string& piece = pieces[random() % pieces.size()];
      switch (random() % 4) {
        case 0:
          document.insert(at, piece);
          break;
        case 1:
          document.erase(at, 1 + random() % 3);
          break;
        case 2:
          if (at < document.size()) document.replace(at, 1, piece);
          break;
        default:
          document += piece;
          break;
      }
    }
    auto reader = Read(document);
    if (reader->GetErrorsOccurred()) {
      ASSERT_EQ(reader->GetRootNode(), nullptr) << Shown(document);
      continue;
    }
    ++accepted;
    // Walk the whole tree, touching every string.
    std::vector<const kestrel::XmlNode*> stack = {reader->GetRootNode()};
    long long characters = 0;
    while (!stack.empty()) {
      const kestrel::XmlNode* node = stack.back();
      stack.pop_back();
      ASSERT_FALSE(node->name.isEmpty()) << Shown(document);
      characters += node->name.size() + node->text.size();
      for (int i = 0; i < node->attribute_count; ++i) {
        characters += node->attributes[i].name.size() + node->attributes[i].value.size();
      }
      for (auto* c = node->first_child; c != nullptr; c = c->next_sibling) stack.push_back(c);
    }
    EXPECT_GT(characters, 0);
  }
  // Some damage leaves a well-formed document (text changed, a comment grown): both roads taken.
  EXPECT_GT(accepted, 100);
  EXPECT_LT(accepted, 19000);
}

}  // namespace
