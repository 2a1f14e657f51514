#include "kestrel/net/i_transport.h"

namespace kestrel {
namespace net {

ITransport::~ITransport() = default;

}  // namespace net
}  // namespace kestrel
