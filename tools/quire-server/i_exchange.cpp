#include "tools/quire-server/i_exchange.h"

namespace quire_server {

IExchange::~IExchange() = default;

}  // namespace quire_server
