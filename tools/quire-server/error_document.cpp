#include "tools/quire-server/error_document.h"

#include "quire/model/link_relations.h"
#include "tools/quire-server/xml_text.h"

namespace quire_server {

std::string ErrorDocument::Make(int status, std::string_view code, std::string_view message) {
  std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<errors xmlns=\"";
  out += kestrel::quire::SchemaNamespace;
  out += "/g/2005\"><error><code>";
  XmlText::Append(&out, code);
  out += "</code><status>";
  out += std::to_string(status);
  out += "</status><message>";
  XmlText::Append(&out, message);
  out += "</message></error></errors>\n";
  return out;
}

}  // namespace quire_server
