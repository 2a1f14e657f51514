#include "quire/connection/i_connection.h"

namespace kestrel {
namespace quire {

IConnection::~IConnection() {}

}  // namespace quire
}  // namespace kestrel
