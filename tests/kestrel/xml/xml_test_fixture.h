// Shared by the XML reader's tests: a fixture that checks that everything allocated through the
// memory manager during a test has been given back at its end, and small tree helpers.
#pragma once

#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <memory>
#include <string>
#include <vector>

#include "kestrel/base/memory_manager.h"
#include "kestrel/xml/xml_node.h"
#include "kestrel/xml/xml_reader.h"

namespace quire_test::xml {

class XmlTest : public ::testing::Test {
 protected:
  void SetUp() override { live_at_start_ = kestrel::MemoryManager::Default()->live_allocations(); }
  void TearDown() override {
    EXPECT_EQ(kestrel::MemoryManager::Default()->live_allocations(), live_at_start_)
        << "the memory manager's live allocations did not come back to where they started";
  }

 private:
  long live_at_start_ = 0;
};

inline std::unique_ptr<kestrel::XmlReader> Read(const std::string& document) {
  return std::make_unique<kestrel::XmlReader>(document.data(), document.size());
}

// The text as UTF-8, for readable failure messages.
inline std::string U8(const QString& text) { return text.toStdString(); }

// Renders a document for failure messages, with bytes outside printable ASCII escaped.
inline std::string Shown(const std::string& document) {
  std::string shown;
  for (unsigned char c : document) {
    if (c < 0x20 || c >= 0x7F) {
      static const char kHex[] = "0123456789ABCDEF";
      shown += "\\x";
      shown += kHex[c >> 4];
      shown += kHex[c & 15];
    } else {
      shown += static_cast<char>(c);
    }
  }
  return shown;
}

// Checks that each of `documents` is refused with a message and an offset inside it, and gives no
// tree.
inline void ExpectRefused(const std::vector<std::string>& documents) {
  for (const std::string& document : documents) {
    auto reader = Read(document);
    EXPECT_TRUE(reader->GetErrorsOccurred()) << "accepted: " << Shown(document);
    EXPECT_EQ(reader->GetRootNode(), nullptr) << Shown(document);
    if (reader->GetErrorsOccurred()) {
      EXPECT_FALSE(reader->error_message().isEmpty()) << Shown(document);
      EXPECT_LE(reader->error_offset(), static_cast<long long>(document.size()));
    }
  }
}

// Checks that each of `documents` is read without an error into a tree.
inline void ExpectAccepted(const std::vector<std::string>& documents) {
  for (const std::string& document : documents) {
    auto reader = Read(document);
    EXPECT_FALSE(reader->GetErrorsOccurred())
        << "refused: " << Shown(document) << ": " << U8(reader->error_message());
    EXPECT_NE(reader->GetRootNode(), nullptr) << Shown(document);
  }
}

inline int ChildCount(const kestrel::XmlNode* node) {
  int count = 0;
  for (const kestrel::XmlNode* c = node->first_child; c != nullptr; c = c->next_sibling) ++count;
  return count;
}

inline const kestrel::XmlNode* Child(const kestrel::XmlNode* node, int index) {
  const kestrel::XmlNode* c = node->first_child;
  while (c != nullptr && index-- > 0) c = c->next_sibling;
  return c;
}

}  // namespace quire_test::xml
