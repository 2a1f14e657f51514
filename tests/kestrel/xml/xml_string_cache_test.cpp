// The cache that shares the QStrings of repeated texts. Built from the reader's sources, since the
// cache is internal to the platform library.
#include "kestrel/xml/internal/xml_string_cache.h"

#include <gtest/gtest.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "tests/kestrel/xml/xml_test_fixture.h"

namespace {

using kestrel::xml_internal::XmlStringCache;

class XmlStringCacheTest : public quire_test::xml::XmlTest {
 protected:
  static QString Get(XmlStringCache& cache, const std::string& text) {
    return cache.Get(text.data(), text.size());
  }
};

TEST_F(XmlStringCacheTest, ARepeatedTextSharesOneString) {
  XmlStringCache cache(64);
  const QString first = Get(cache, "rel");
  const QString second = Get(cache, "rel");
  const QString third = Get(cache, "rel");
  EXPECT_EQ(first, QStringLiteral("rel"));
  EXPECT_EQ(second, QStringLiteral("rel"));
  EXPECT_EQ(third, QStringLiteral("rel"));
  // Remembered on its second sighting: from then on the same characters are handed out.
  EXPECT_EQ(second.constData(), third.constData());
  EXPECT_NE(first.constData(), second.constData());
}

TEST_F(XmlStringCacheTest, EmptyTextIsEmptyNotNull) {
  XmlStringCache cache(64);
  for (int i = 0; i < 3; ++i) {
    const QString empty = cache.Get("", 0);
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_FALSE(empty.isNull());
  }
}

TEST_F(XmlStringCacheTest, TextsThatDifferInOneByteAtAnyPlaceStayApart) {
  XmlStringCache cache(1024);
  std::vector<std::string> texts;
  for (std::size_t size = 1; size <= XmlStringCache::kMaxLength; ++size) {
    const std::string base(size, 'a');
    texts.push_back(base);
    for (std::size_t at : {std::size_t{0}, size / 2, size - 1}) {
      std::string changed = base;
      changed[at] = 'b';
      texts.push_back(changed);
    }
  }
  for (int round = 0; round < 3; ++round) {
    for (const std::string& text : texts) {
      ASSERT_EQ(Get(cache, text), QString::fromStdString(text)) << round << " " << text;
    }
  }
}

TEST_F(XmlStringCacheTest, HashCollisionsNeverHandOutAnotherText) {
  // Two different texts of the same length with the same hash, found by a birthday search.
  std::unordered_map<std::uint32_t, std::string> seen;
  std::string a;
  std::string b;
  for (int i = 0; i < 2000000 && a.empty(); ++i) {
    std::string text = std::to_string(i);
    text = "k" + std::string(7 - text.size(), '0') + text;
    const std::uint32_t hash = XmlStringCache::Hash(text.data(), text.size());
    const auto found = seen.find(hash);
    if (found != seen.end()) {
      a = found->second;
      b = text;
    } else {
      seen.emplace(hash, text);
    }
  }
  ASSERT_FALSE(a.empty()) << "no collision found";
  ASSERT_NE(a, b);
  ASSERT_EQ(a.size(), b.size());
  XmlStringCache cache(64);
  EXPECT_EQ(Get(cache, a), QString::fromStdString(a));
  EXPECT_EQ(Get(cache, a), QString::fromStdString(a));  // now remembered
  EXPECT_EQ(Get(cache, b), QString::fromStdString(b));
  EXPECT_EQ(Get(cache, b), QString::fromStdString(b));
  EXPECT_EQ(Get(cache, b), QString::fromStdString(b));
  EXPECT_EQ(Get(cache, a), QString::fromStdString(a));
}

TEST_F(XmlStringCacheTest, MoreDistinctTextsThanSlots) {
  XmlStringCache cache(32);
  for (int round = 0; round < 4; ++round) {
    for (int i = 0; i < 5000; ++i) {
      const std::string text = "text-" + std::to_string(i % (round == 0 ? 5000 : 40));
      ASSERT_EQ(Get(cache, text), QString::fromStdString(text));
    }
  }
}

TEST_F(XmlStringCacheTest, NonAsciiTexts) {
  XmlStringCache cache(64);
  const std::string text =
      "Gr\xC3\xB6\xC3\x9F"
      "e \xF0\x9F\x93\x9D";
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Get(cache, text), QString::fromStdString(text));
}

}  // namespace
