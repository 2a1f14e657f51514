// One attribute of an XML element: its name as written (prefix included) and its decoded value.
#pragma once

#include <QString>

namespace kestrel {

struct XmlAttribute {
  QString name;
  QString value;
};

}  // namespace kestrel
