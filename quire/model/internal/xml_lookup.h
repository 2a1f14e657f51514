// Helpers that the entry and feed parsers share to read the host's XML nodes. Not public.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include "kestrel/xml/xml_node.h"

namespace kestrel {
namespace quire {
namespace internal {

// The value of the first attribute named exactly `name`, or a null string when there is none. A
// duplicated attribute therefore yields its first occurrence.
inline QString LookupAttribute(const XmlNode* node, QLatin1String name) {
  for (int i = 0; i < node->attribute_count; ++i) {
    if (node->attributes[i].name == name) return node->attributes[i].value;
  }
  return QString();
}

// An address as the service writes it: already percent-encoded, so it is parsed as such and not
// encoded again. A null or empty text gives an empty URL.
inline QUrl UrlFromAttribute(const QString& text) {
  if (text.isEmpty()) return QUrl();
  return QUrl::fromEncoded(text.toLatin1());
}

}  // namespace internal
}  // namespace quire
}  // namespace kestrel
