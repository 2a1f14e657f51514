// Escaping of text for XML character data and attribute values.
#pragma once

#include <string>
#include <string_view>

namespace quire_server {

class XmlText {
 public:
  // Appends `text` with &, <, >, " and ' replaced by entity references.
  static void Append(std::string* out, std::string_view text);
  static std::string Escape(std::string_view text);
};

}  // namespace quire_server
