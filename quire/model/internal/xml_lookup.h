// Helpers that the entry and feed parsers share to read the host's XML nodes. Not public.
#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <cstddef>

#include "kestrel/base/qstring_null.h"
#include "kestrel/xml/xml_node.h"

namespace kestrel {
namespace quire {
namespace internal {

// A view of a string constant whose length is known at compile time (QLatin1String(const char*)
// would measure it at every comparison).
template <std::size_t N>
constexpr QLatin1String Latin1(const char (&text)[N]) {
  return QLatin1String(text, static_cast<int>(N - 1));
}

// The value of the first attribute named exactly `name`, or the shared null string when there is
// none. A duplicated attribute therefore yields its first occurrence. The result refers into the
// node (or to the null string) and is valid as long as the node is.
inline const QString& LookupAttribute(const XmlNode* node, QLatin1String name) {
  for (int i = 0; i < node->attribute_count; ++i) {
    if (node->attributes[i].name == name) return node->attributes[i].value;
  }
  return QStringNull;
}

// An address as the service writes it: already percent-encoded, so it is parsed as such and not
// encoded again: the result is QUrl::fromEncoded(text.toLatin1()). A null or empty text gives an
// empty URL. Defined in url_from_attribute.cpp.
QUrl UrlFromAttribute(const QString& text);

}  // namespace internal
}  // namespace quire
}  // namespace kestrel
