#include "quire/connection/i_transfer_connection.h"

namespace kestrel {
namespace quire {

ITransferConnection::~ITransferConnection() = default;

}  // namespace quire
}  // namespace kestrel
