#include "kestrel/net/i_transport.h"

namespace kestrel {
namespace net {

ITransport::~ITransport() = default;

void ITransport::Cancel(NetworkRequest* /*request*/) {}

}  // namespace net
}  // namespace kestrel
