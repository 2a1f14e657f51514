// Helpers to hand the parsers XML trees: parsed from text by the host's reader, or built by hand
// where a test needs a tree that a reader would not produce (a duplicated attribute, say).
#pragma once

#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>
#include <cstdint>
#include <cstring>
#include <deque>
#include <initializer_list>
#include <memory>
#include <utility>
#include <vector>

#include "kestrel/xml/xml_node.h"
#include "kestrel/xml/xml_reader.h"

namespace quire_test {

// Parses `document` and keeps the tree alive as long as the object lives.
class ParsedXml {
 public:
  explicit ParsedXml(const QByteArray& document) : reader_(document) {
    EXPECT_FALSE(reader_.GetErrorsOccurred()) << reader_.error_message().toStdString() << "\n"
                                              << document.toStdString();
    EXPECT_NE(reader_.GetRootNode(), nullptr);
  }
  kestrel::XmlNode* root() const { return reader_.GetRootNode(); }

 private:
  kestrel::XmlReader reader_;
};

// Owns hand-built nodes and their attribute arrays.
class NodeBuilder {
 public:
  using Attributes = std::vector<std::pair<QString, QString>>;

  // A node named `name` with `attributes` in the given order and `children` linked as siblings.
  kestrel::XmlNode* Node(const QString& name, const Attributes& attributes = {},
                         std::initializer_list<kestrel::XmlNode*> children = {},
                         const QString& text = QString()) {
    nodes_.emplace_back();
    kestrel::XmlNode* node = &nodes_.back();
    node->name = name;
    node->text = text;
    if (!attributes.empty()) {
      attribute_arrays_.emplace_back(new kestrel::XmlAttribute[attributes.size()]);
      kestrel::XmlAttribute* array = attribute_arrays_.back().get();
      for (std::size_t i = 0; i < attributes.size(); ++i) {
        array[i].name = attributes[i].first;
        array[i].value = attributes[i].second;
      }
      node->attributes = array;
      node->attribute_count = static_cast<int>(attributes.size());
    }
    kestrel::XmlNode* previous = nullptr;
    for (kestrel::XmlNode* child : children) {
      if (previous == nullptr) {
        node->first_child = child;
      } else {
        previous->next_sibling = child;
      }
      previous = child;
    }
    return node;
  }

 private:
  std::deque<kestrel::XmlNode> nodes_;
  std::vector<std::unique_ptr<kestrel::XmlAttribute[]>> attribute_arrays_;
};

// The offset of a virtual function's slot in its class's virtual table, in slots, read from the
// pointer-to-member representation of the Itanium C++ ABI (1 + byte offset for virtual functions).
template <typename Pmf>
long VirtualSlot(Pmf pmf) {
  static_assert(sizeof(Pmf) == 2 * sizeof(void*), "Itanium pointer to member function");
  struct Representation {
    std::uintptr_t pointer;
    std::ptrdiff_t adjustment;
  } representation;
  std::memcpy(&representation, &pmf, sizeof(pmf));
  if ((representation.pointer & 1u) == 0) return -1;  // not virtual
  return static_cast<long>((representation.pointer - 1) / sizeof(void*));
}

}  // namespace quire_test
