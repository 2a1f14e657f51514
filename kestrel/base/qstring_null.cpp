#include "kestrel/base/qstring_null.h"

namespace kestrel {

const QString QStringNull;

}  // namespace kestrel
