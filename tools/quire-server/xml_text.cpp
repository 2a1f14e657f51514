#include "tools/quire-server/xml_text.h"

namespace quire_server {

void XmlText::Append(std::string* out, std::string_view text) {
  for (char c : text) {
    switch (c) {
      case '&':
        out->append("&amp;");
        break;
      case '<':
        out->append("&lt;");
        break;
      case '>':
        out->append("&gt;");
        break;
      case '"':
        out->append("&quot;");
        break;
      case '\'':
        out->append("&apos;");
        break;
      default:
        out->push_back(c);
    }
  }
}

std::string XmlText::Escape(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  Append(&out, text);
  return out;
}

}  // namespace quire_server
