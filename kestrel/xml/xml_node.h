/// @file
/// One element of a parsed XML document, as plain data that parsers read directly.
#pragma once

#include <QString>

#include "kestrel/xml/xml_attribute.h"

namespace kestrel {

/// One element of a parsed XML document, as plain data that parsers read directly.
///
/// Nodes live in the arena of the XmlReader that made them and die with it; never delete one.
/// Reading a tree from several threads at once is safe as long as nobody changes it.
struct XmlNode {
  /// The qualified name exactly as written, prefix included ("qr:feedLink"); namespaces are not
  /// resolved.
  QString name;
  /// The element's own character data: its text and CDATA children joined in document order, with
  /// entity and character references decoded. Text inside child elements is not included.
  QString text;
  /// The attributes in document order; duplicates are kept as written. Null when there are none.
  const XmlAttribute* attributes = nullptr;
  /// The number of attributes.
  int attribute_count = 0;
  /// The first child element, or null.
  XmlNode* first_child = nullptr;
  /// The next sibling element, or null.
  XmlNode* next_sibling = nullptr;
};

}  // namespace kestrel
