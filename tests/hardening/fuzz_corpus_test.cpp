// The fuzzers' seed inputs, the ones that once found bugs included, through the same code in every
// build of the test suite (plain, sanitizers, Qt 5), so that a fixed bug stays fixed where no
// fuzzer runs.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_reader.h"
#include "quire/model/docs_entry.h"
#include "quire/model/docs_feed.h"
#include "quire/services/user_info_service.h"

namespace quire_hardening {
namespace {

// Every file of one seed folder.
std::vector<QByteArray> Corpus(const char* target) {
  std::vector<QByteArray> inputs;
  const QDir folder(QStringLiteral(QUIRE_FUZZ_CORPUS_DIR "/") + QLatin1String(target));
  for (const QString& name : folder.entryList(QDir::Files, QDir::Name)) {
    QFile file(folder.filePath(name));
    if (file.open(QIODevice::ReadOnly)) inputs.push_back(file.readAll());
  }
  return inputs;
}

// The e-mail handler is called directly; nothing is sent.
class NullConnection : public kestrel::quire::IConnection {
 public:
  void Init(const std::vector<QString>&) override {}
  unsigned int Request(const kestrel::quire::ConnectionParams&,
                       kestrel::quire::ResponseCallback) override {
    return 0;
  }
  void Cancel(unsigned int) override {}
};

class FuzzCorpusTest : public ::testing::Test {
 protected:
  void SetUp() override { live_at_start_ = kestrel::MemoryManager::Default()->live_allocations(); }
  void TearDown() override {
    EXPECT_EQ(kestrel::MemoryManager::Default()->live_allocations(), live_at_start_);
  }

 private:
  long live_at_start_ = 0;
};

// Parses `input` as the feed parser's fuzzer does, with the same checks.
void ParseAsFeedAndEntry(const QByteArray& input) {
  kestrel::XmlReader reader(input);
  kestrel::XmlNode* root = reader.GetRootNode();
  EXPECT_FALSE(reader.GetErrorsOccurred() && root != nullptr);
  auto* feed = kestrel::doNew<kestrel::quire::DocsFeed>();
  EXPECT_EQ(feed->ParseFrom(root), root != nullptr && root->name == QLatin1String("feed"));
  kestrel::doDelete(feed);
  auto* entry = kestrel::doNew<kestrel::quire::DocsEntry>();
  EXPECT_EQ(entry->ParseFrom(root), root != nullptr && root->name == QLatin1String("entry"));
  EXPECT_TRUE(entry->reserved_strings.isEmpty());
  kestrel::doDelete(entry);
}

TEST_F(FuzzCorpusTest, XmlSeedsParseWithoutFault) {
  std::size_t inputs = 0;
  for (const char* target : {"xml_reader_fuzz", "feed_parse_fuzz"}) {
    for (const QByteArray& input : Corpus(target)) {
      ParseAsFeedAndEntry(input);
      ++inputs;
    }
  }
  EXPECT_GE(inputs, 8u);
}

TEST_F(FuzzCorpusTest, EmailSeedsGiveAnAddressOrStatus1) {
  const std::vector<QByteArray> inputs = Corpus("user_email_fuzz");
  ASSERT_FALSE(inputs.empty());
  kestrel::quire::UserInfoService service(new NullConnection);
  for (const QByteArray& body : inputs) {
    int calls = 0;
    service.GetUserEmailDone(
        [&](kestrel::quire::NetworkResponseInfo info, QString email) {
          ++calls;
          EXPECT_EQ(info.status == 0, !email.isEmpty());
          EXPECT_TRUE(info.status == 0 || info.status == 1);
        },
        kestrel::quire::NetworkResponseInfo{7, 0, nullptr}, body);
    EXPECT_EQ(calls, 1);
  }
}

// Found by the XML reader's fuzzer: text made of an empty CDATA section followed by a character
// reference copied zero bytes from a null buffer (undefined behaviour, reported by UBSan).
TEST_F(FuzzCorpusTest, EmptyCdataBeforeAReferenceIsRead) {
  for (const char* document : {"<a><![CDATA[]]>&#x41;&#66;</a>", "<a><![CDATA[]]><![CDATA[]]></a>",
                               "<a><![CDATA[]]>&amp;<![CDATA[]]></a>"}) {
    kestrel::XmlReader reader{QByteArray(document)};
    ASSERT_FALSE(reader.GetErrorsOccurred()) << document;
    ASSERT_NE(reader.GetRootNode(), nullptr);
  }
  kestrel::XmlReader reader(QByteArray("<a><![CDATA[]]>&#x41;&#66;</a>"));
  EXPECT_EQ(reader.GetRootNode()->text, QStringLiteral("AB"));
}

// Found by the XML reader's fuzzer: empty texts without storage seen often enough for the reader's
// string cache to remember one copied zero bytes from a null pointer (undefined behaviour,
// reported by UBSan). Every empty text reads the same, however often it comes.
TEST_F(FuzzCorpusTest, RepeatedEmptyTextsAreRead) {
  kestrel::XmlReader reader(
      QByteArray("<a><![CDATA[]]><a><![CDATA[]]><![CDATA[]]></a><![CDATA[]]><b><![CDATA[]]></b>"
                 "<b><![CDATA[]]></b><b><![CDATA[]]></b></a>"));
  ASSERT_FALSE(reader.GetErrorsOccurred());
  const kestrel::XmlNode* root = reader.GetRootNode();
  ASSERT_NE(root, nullptr);
  EXPECT_TRUE(root->text.isEmpty());
  int children = 0;
  for (const kestrel::XmlNode* child = root->first_child; child != nullptr;
       child = child->next_sibling) {
    EXPECT_TRUE(child->text.isEmpty());
    EXPECT_EQ(child->text.isNull(), root->text.isNull());
    ++children;
  }
  EXPECT_EQ(children, 4);
}

}  // namespace
}  // namespace quire_hardening
