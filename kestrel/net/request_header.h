/// @file
/// One header of an outgoing request, as the network layer receives it.
#pragma once

#include <QString>
#include <vector>

#include "kestrel/base/memory_manager.h"

namespace kestrel {
namespace net {

/// One header of an outgoing request. With `type` 0 and a null `value`, `name` holds a whole header
/// line ("Name: value") that goes onto the wire as it stands. With `type` 0 and a non-null `value`,
/// the line is `name`, ": ", `value`. Other types are reserved.
struct RequestHeader {
  /// 0; other values are reserved.
  int type = 0;
  /// The whole line when `value` is null, else the header's name.
  QString name;
  /// The header's value, or null when `name` holds the whole line.
  QString value;
};

/// The header records of one request, in sending order, in memory from the default manager.
using RequestHeaderList = std::vector<RequestHeader, MMAlloc<RequestHeader>>;

}  // namespace net
}  // namespace kestrel
