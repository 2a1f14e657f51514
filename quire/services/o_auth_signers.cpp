#include "quire/services/o_auth_signers.h"

namespace kestrel {
namespace quire {

OAuthSigners::OAuthSigners() {}

OAuthSigners::~OAuthSigners() {}

}  // namespace quire
}  // namespace kestrel
