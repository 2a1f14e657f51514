// One request whose body the protocol logic takes as it arrives. The connection calls OnBody for
// consecutive parts of the body, then exactly one of Finish (the whole body arrived, or OnBody
// refused more) or Abort (the connection broke first).
#pragma once

#include <cstddef>

#include "tools/quire-server/http_response.h"

namespace quire_server {

class IExchange {
 public:
  virtual ~IExchange();
  // Takes the next part of the body. False: read no more; Finish() then gives the (error) answer
  // and the connection is closed after it.
  virtual bool OnBody(const char* data, std::size_t size) = 0;
  virtual HttpResponse Finish() = 0;
  // Keeps whatever is durable and answerable later (an upload session keeps the bytes it got);
  // everything else is dropped.
  virtual void Abort() = 0;
};

}  // namespace quire_server
