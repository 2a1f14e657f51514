// The same XmlNode tree as XmlReader builds, made with Qt's QXmlStreamReader instead, for comparing
// the two parsers on equal terms.
#pragma once

#include <QByteArray>

#include "kestrel/xml/xml_arena.h"
#include "kestrel/xml/xml_node.h"

namespace quire_bench::xml {

class StreamReaderTree {
 public:
  // Parses `document` with namespace processing off (names as written). A document type
  // declaration or an unresolved entity reference is refused, as XmlReader refuses them.
  explicit StreamReaderTree(const QByteArray& document);
  StreamReaderTree(const StreamReaderTree&) = delete;
  StreamReaderTree& operator=(const StreamReaderTree&) = delete;

  bool errors_occurred() const { return errors_occurred_; }
  kestrel::XmlNode* root() const { return root_; }

 private:
  kestrel::XmlArena arena_;
  kestrel::XmlNode* root_ = nullptr;
  bool errors_occurred_ = false;
};

}  // namespace quire_bench::xml
