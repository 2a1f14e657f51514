// The short XML document that every 4xx and 5xx answer carries.
#pragma once

#include <string>
#include <string_view>

namespace quire_server {

class ErrorDocument {
 public:
  // <errors><error><code>CODE</code><status>STATUS</status><message>MESSAGE</message></error>
  // </errors> in the service's namespace.
  static std::string Make(int status, std::string_view code, std::string_view message);
};

}  // namespace quire_server
