// The character rules the reader checks itself. Built from the reader's sources, since they are
// internal to the platform library.
#include "kestrel/xml/internal/xml_characters.h"

#include <gtest/gtest.h>

#include <QString>
#include <initializer_list>
#include <random>
#include <string>

namespace {

using namespace kestrel::xml_internal;  // NOLINT(build/namespaces)
using Codes = std::initializer_list<std::uint32_t>;

// The Char production, written out on its own.
bool Allowed(std::uint32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

// UTF-8 as an encoder that does not care about validity (surrogates included).
std::string Encode(std::uint32_t c) {
  char bytes[4];
  return std::string(bytes, static_cast<std::size_t>(AppendUtf8(c, bytes)));
}

long long Check(const std::string& text, bool* non_ascii = nullptr) {
  std::string copy(text.size(), '\0');
  bool seen = false;
  const long long bad = CopyCheckedUtf8(text.data(), text.size(), &copy[0], &seen);
  if (bad < 0) {
    EXPECT_EQ(copy, text);
  }
  if (non_ascii != nullptr) *non_ascii = seen;
  return bad;
}

TEST(XmlCharactersTest, EveryCodePointIsJudgedByTheCharRule) {
  const std::string before = "0123456789abcdefghij";  // long enough for any block-wise reading
  for (std::uint32_t c = 0; c <= 0x10FFFF; ++c) {
    const std::string encoded = Encode(c);
    ASSERT_EQ(Check(encoded) < 0, Allowed(c)) << std::hex << c;
    if ((c & 0xFF) == 0 || c < 0x800 || (c >= 0xD700 && c < 0xE100) || c >= 0xFFF0) {
      const long long bad = Check(before + encoded + "!");
      ASSERT_EQ(bad, Allowed(c) ? -1 : static_cast<long long>(before.size())) << std::hex << c;
    }
  }
}

TEST(XmlCharactersTest, OverlongTruncatedAndStrayBytesAreRefused) {
  const char* bad[] = {"\xC0\x80",
                       "\xC1\xBF",
                       "\xE0\x80\x80",
                       "\xE0\x9F\xBF",
                       "\xF0\x80\x80\x80",
                       "\xF0\x8F\xBF\xBF",
                       "\x80",
                       "\xBF",
                       "\xC2",
                       "\xE2\x82",
                       "\xF0\x9F\x98",
                       "\xC2\x41",
                       "\xE2\x41\x82",
                       "\xF0\x9F\x41\x80",
                       "\xF5\x80\x80\x80",
                       "\xF4\x90\x80\x80",
                       "\xF8\x88\x80\x80\x80",
                       "\xFE",
                       "\xFF"};
  for (const char* b : bad) {
    EXPECT_EQ(Check(std::string("ok") + b), 2) << b;
  }
  bool non_ascii = true;
  EXPECT_EQ(Check("plain ascii <a/>\t\r\n", &non_ascii), -1);
  EXPECT_FALSE(non_ascii);
  EXPECT_EQ(Check("\xC3\xA9", &non_ascii), -1);
  EXPECT_TRUE(non_ascii);
}

TEST(XmlCharactersTest, NameCharacters) {
  for (std::uint32_t c : Codes{'a', 'Z', '_', ':', 0xC0u, 0x370u, 0x37Fu, 0x200Cu, 0x2070u, 0x3001u,
                               0xF900u, 0x10000u, 0xEFFFFu}) {
    EXPECT_TRUE(IsNameStartChar(c)) << std::hex << c;
    EXPECT_TRUE(IsNameChar(c)) << std::hex << c;
  }
  for (std::uint32_t c : Codes{'-', '.', '0', '9', 0xB7u, 0x300u, 0x36Fu, 0x203Fu, 0x2040u}) {
    EXPECT_FALSE(IsNameStartChar(c)) << std::hex << c;
    EXPECT_TRUE(IsNameChar(c)) << std::hex << c;
  }
  for (std::uint32_t c : Codes{' ', '<', '&', '\'', 0xD7u, 0xF7u, 0x37Eu, 0x2000u, 0x200Eu, 0x3000u,
                               0xD800u, 0xFDD0u, 0xFFFEu, 0xF0000u}) {
    EXPECT_FALSE(IsNameStartChar(c)) << std::hex << c;
    EXPECT_FALSE(IsNameChar(c)) << std::hex << c;
  }
  EXPECT_TRUE(IsXmlName("qr:feedLink", 11));
  EXPECT_TRUE(IsXmlName("\xC3\xA9l\xC3\xA9ment", 9));
  EXPECT_FALSE(IsXmlName("", 0));
  EXPECT_FALSE(IsXmlName("a\xC3\x97", 3));
  EXPECT_FALSE(
      IsXmlName("\xC2\xB7"
                "a",
                3));
}

TEST(XmlCharactersTest, Utf16IsConvertedAndBrokenUtf16Refused) {
  std::mt19937 random(7);
  for (int round = 0; round < 200; ++round) {
    std::u16string text;
    for (int i = 0; i < 50; ++i) {
      std::uint32_t c = random() % 0x110000;
      if (c >= 0xD800 && c <= 0xDFFF) c = 'x';
      if (c >= 0x10000) {
        text += static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10));
        text += static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF));
      } else {
        text += static_cast<char16_t>(c);
      }
    }
    for (bool big_endian : {false, true}) {
      std::string bytes;
      for (char16_t unit : text) {
        const char high = static_cast<char>(unit >> 8);
        const char low = static_cast<char>(unit & 0xFF);
        bytes += big_endian ? high : low;
        bytes += big_endian ? low : high;
      }
      std::string out(bytes.size() / 2 * 3, '\0');
      long long bad = -1;
      const long long written = Utf16ToUtf8(reinterpret_cast<const unsigned char*>(bytes.data()),
                                            bytes.size(), big_endian, &out[0], &bad);
      ASSERT_GE(written, 0);
      out.resize(static_cast<std::size_t>(written));
      const QString expected = QString::fromUtf16(text.data(), static_cast<int>(text.size()));
      ASSERT_EQ(QString::fromStdString(out), expected);
    }
  }
  const unsigned char lone_high[] = {'a', 0, 0x3D, 0xD8, 'b', 0};
  const unsigned char lone_low[] = {'a', 0, 0x00, 0xDE};
  const unsigned char odd[] = {'a', 0, 'b'};
  char out[16];
  long long bad = -1;
  EXPECT_EQ(Utf16ToUtf8(lone_high, sizeof lone_high, false, out, &bad), -1);
  EXPECT_EQ(bad, 2);
  EXPECT_EQ(Utf16ToUtf8(lone_low, sizeof lone_low, false, out, &bad), -1);
  EXPECT_EQ(bad, 2);
  EXPECT_EQ(Utf16ToUtf8(odd, sizeof odd, false, out, &bad), -1);
}

}  // namespace
