// The shared null string of the host platform.
#pragma once

#include <QString>

#include "kestrel/base/kestrel_export.h"

namespace kestrel {

// A null QString (isNull() and isEmpty() are both true) that callers can return by reference.
KESTREL_EXPORT extern const QString QStringNull;

}  // namespace kestrel
