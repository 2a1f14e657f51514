#include "tools/quire-server/http_response.h"

#include <strings.h>

#include "tools/quire-server/error_document.h"

namespace quire_server {

HttpResponse& HttpResponse::Set(std::string name, std::string value) {
  fields.emplace_back(std::move(name), std::move(value));
  return *this;
}

const std::string* HttpResponse::Find(std::string_view name) const {
  for (const auto& field : fields) {
    if (field.first.size() == name.size() &&
        ::strncasecmp(field.first.data(), name.data(), name.size()) == 0) {
      return &field.second;
    }
  }
  return nullptr;
}

HttpResponse HttpResponse::Error(int status, std::string_view code, std::string_view message) {
  HttpResponse response;
  response.status = status;
  response.Set("Content-Type", "application/xml");
  response.body = ErrorDocument::Make(status, code, message);
  return response;
}

}  // namespace quire_server
