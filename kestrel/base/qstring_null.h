/// @file
/// The shared null string of the host platform.
#pragma once

#include <QString>

#include "kestrel/base/kestrel_export.h"

namespace kestrel {

/// A null QString (isNull() and isEmpty() are both true) that callers can return by reference. It
/// lives for the whole process and is safe to read from any thread.
KESTREL_EXPORT extern const QString QStringNull;

}  // namespace kestrel
