#include "stream_reader_tree.h"

#include <QXmlStreamReader>
#include <vector>

#include "kestrel/xml/xml_reader.h"

namespace quire_bench::xml {

StreamReaderTree::StreamReaderTree(const QByteArray& document) {
  QXmlStreamReader reader(document);
  reader.setNamespaceProcessing(false);
  struct Open {
    kestrel::XmlNode* node;
    kestrel::XmlNode* last_child;
  };
  std::vector<Open> open;
  bool failed = false;
  while (!failed && !reader.atEnd()) {
    switch (reader.readNext()) {
      case QXmlStreamReader::StartElement: {
        if (static_cast<int>(open.size()) >= kestrel::XmlReader::kMaxDepth) {
          failed = true;
          break;
        }
        kestrel::XmlNode* node = arena_.NewNode();
        node->name = reader.qualifiedName().toString();
        const QXmlStreamAttributes attributes = reader.attributes();
        for (const QXmlStreamAttribute& attribute : attributes) {
          kestrel::XmlAttribute* list = arena_.AppendAttribute(
              const_cast<kestrel::XmlAttribute*>(node->attributes), node->attribute_count);
          list[node->attribute_count].name = attribute.qualifiedName().toString();
          list[node->attribute_count].value = attribute.value().toString();
          node->attributes = list;
          ++node->attribute_count;
        }
        if (open.empty()) {
          root_ = node;
        } else if (open.back().last_child == nullptr) {
          open.back().node->first_child = node;
        } else {
          open.back().last_child->next_sibling = node;
        }
        if (!open.empty()) open.back().last_child = node;
        open.push_back({node, nullptr});
        break;
      }
      case QXmlStreamReader::EndElement:
        open.pop_back();
        break;
      case QXmlStreamReader::Characters:
        if (!open.empty()) open.back().node->text += reader.text();
        break;
      case QXmlStreamReader::DTD:
      case QXmlStreamReader::EntityReference:
        failed = true;
        break;
      default:
        break;
    }
  }
  if (failed || reader.hasError() || root_ == nullptr) {
    errors_occurred_ = true;
    root_ = nullptr;
    arena_.Clear();
  }
}

}  // namespace quire_bench::xml
