/// @file
/// One attribute of an XML element.
#pragma once

#include <QString>

namespace kestrel {

/// One attribute of an XML element: its name as written (prefix included) and its decoded value.
/// Attributes live in the arena of the XmlReader that made them and die with it.
struct XmlAttribute {
  /// The qualified name exactly as written ("qr:etag"); namespaces are not resolved.
  QString name;
  /// The value with entity and character references decoded.
  QString value;
};

}  // namespace kestrel
