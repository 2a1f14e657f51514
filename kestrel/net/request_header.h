// One header of an outgoing request, as the network layer receives it.
#pragma once

#include <QString>
#include <vector>

#include "kestrel/base/memory_manager.h"

namespace kestrel {
namespace net {

// With `type` 0 and a null `value`, `name` holds a whole header line ("Name: value") that goes onto
// the wire as it stands. With `type` 0 and a non-null `value`, the line is `name`, ": ", `value`.
// Other types are reserved.
struct RequestHeader {
  int type = 0;
  QString name;
  QString value;
};

using RequestHeaderList = std::vector<RequestHeader, MMAlloc<RequestHeader>>;

}  // namespace net
}  // namespace kestrel
