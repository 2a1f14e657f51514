/// @file
/// The service's fixed endpoints. They are not configurable: a host that wants another server (a
/// local emulator, say) maps these host names to an address in its network layer.
#pragma once

namespace kestrel {
namespace quire {

/// The API host's user-information endpoint: answers "email=<address>&...".
inline constexpr char UserInfoUrl[] = "https://api.quire.example/userinfo/email";
/// The document feed of the signed-in user on the service host.
inline constexpr char DocsFeedUrl[] = "https://docs.quire.example/feeds/default/private/full";
/// The protocol version announced on every request as "Quire-Version: 3.0".
inline constexpr char kProtocolVersion[] = "3.0";

}  // namespace quire
}  // namespace kestrel
