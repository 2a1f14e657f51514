// The fuzzers' seed inputs, the ones that once found bugs included, through the same code and the
// same checks as their fuzzer's (fuzz/fuzz_checks.cpp), in every build of the test suite (plain,
// sanitizers, Qt 5), so that a fixed bug stays fixed where no fuzzer runs.
#include <gtest/gtest.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <QStringList>
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/fuzz_checks.h"
#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_reader.h"

namespace quire_test::hardening {
namespace {

using Check = const char* (*)(const std::uint8_t* data, std::size_t size);

// One fuzz target's seed folder, fuzz/corpus/<target>, and its checks.
struct Target {
  const char* name;
  Check check;
  std::size_t seeds;  // at least this many seed files (a folder that loses its seeds fails)
};

constexpr Target kTargets[] = {
    {"xml_reader_fuzz", quire_fuzz::CheckXmlReaderInput, 600},
    {"feed_parse_fuzz", quire_fuzz::CheckFeedParseInput, 700},
    {"user_email_fuzz", quire_fuzz::CheckUserEmailInput, 7},
    {"upload_headers_fuzz", quire_fuzz::CheckUploadHeadersInput, 60},
    {"resumable_upload_fuzz", quire_fuzz::CheckResumableUploadInput, 100},
};

QDir CorpusFolder(const char* target) {
  return QDir(QStringLiteral(QUIRE_FUZZ_CORPUS_DIR "/") + QLatin1String(target));
}

class FuzzCorpusTest : public ::testing::Test {
 protected:
  void SetUp() override { live_at_start_ = kestrel::MemoryManager::Default()->live_allocations(); }
  void TearDown() override {
    EXPECT_EQ(kestrel::MemoryManager::Default()->live_allocations(), live_at_start_);
  }

  // Runs every seed of `target`'s folder through `check`; a seed whose checks fail is named with
  // the property it broke. Returns the number of seeds run.
  static std::size_t Replay(const char* target, Check check) {
    const QDir folder = CorpusFolder(target);
    std::size_t seeds = 0;
    for (const QString& name : folder.entryList(QDir::Files, QDir::Name)) {
      QFile file(folder.filePath(name));
      if (!file.open(QIODevice::ReadOnly)) {
        ADD_FAILURE() << "cannot read " << file.fileName().toStdString();
        continue;
      }
      const QByteArray input = file.readAll();
      EXPECT_STREQ(check(reinterpret_cast<const std::uint8_t*>(input.constData()),
                         static_cast<std::size_t>(input.size())),
                   nullptr)
          << target << "/" << name.toStdString();
      ++seeds;
    }
    return seeds;
  }

  // Replays the seeds of the target called `name` with its own checks.
  static void ReplayTarget(const char* name) {
    for (const Target& target : kTargets) {
      if (std::string(target.name) != name) continue;
      EXPECT_GE(Replay(target.name, target.check), target.seeds) << target.name;
      return;
    }
    FAIL() << "no fuzz target called " << name;
  }

 private:
  long live_at_start_ = 0;
};

TEST_F(FuzzCorpusTest, EveryCorpusFolderIsReplayed) {
  QStringList replayed;
  for (const Target& target : kTargets) replayed << QLatin1String(target.name);
  replayed.sort();
  const QStringList folders = QDir(QStringLiteral(QUIRE_FUZZ_CORPUS_DIR))
                                  .entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
  EXPECT_EQ(folders.join(QLatin1Char(' ')).toStdString(),
            replayed.join(QLatin1Char(' ')).toStdString());
}

TEST_F(FuzzCorpusTest, XmlReaderSeedsKeepEveryCheck) { ReplayTarget("xml_reader_fuzz"); }

TEST_F(FuzzCorpusTest, FeedParseSeedsKeepEveryCheck) { ReplayTarget("feed_parse_fuzz"); }

TEST_F(FuzzCorpusTest, UserEmailSeedsKeepEveryCheck) { ReplayTarget("user_email_fuzz"); }

TEST_F(FuzzCorpusTest, UploadHeadersSeedsKeepEveryCheck) { ReplayTarget("upload_headers_fuzz"); }

TEST_F(FuzzCorpusTest, ResumableUploadSeedsKeepEveryCheck) {
  ReplayTarget("resumable_upload_fuzz");
}

// The two XML corpora through each other's checks as well: both targets read any bytes as a
// document.
TEST_F(FuzzCorpusTest, XmlSeedsKeepTheOtherXmlTargetsChecks) {
  EXPECT_GT(Replay("xml_reader_fuzz", quire_fuzz::CheckFeedParseInput), 0u);
  EXPECT_GT(Replay("feed_parse_fuzz", quire_fuzz::CheckXmlReaderInput), 0u);
}

// The depth check's bound is the reader's: the deepest tree the reader accepts passes it.
TEST_F(FuzzCorpusTest, DepthCheckAcceptsTheDeepestTreeTheReaderReads) {
  std::string deepest;
  for (int i = 0; i < kestrel::XmlReader::kMaxDepth; ++i) deepest += "<d>";
  for (int i = 0; i < kestrel::XmlReader::kMaxDepth; ++i) deepest += "</d>";
  EXPECT_STREQ(quire_fuzz::CheckXmlReaderInput(
                   reinterpret_cast<const std::uint8_t*>(deepest.data()), deepest.size()),
               nullptr);
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
}  // namespace quire_test::hardening
