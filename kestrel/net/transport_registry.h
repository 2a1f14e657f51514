/// @file
/// Which transport new connection managers use.
#pragma once

#include "kestrel/base/kestrel_export.h"
#include "kestrel/net/i_transport.h"

namespace kestrel {
namespace net {

/// Which transport new connection managers use. A host program may install its own (tests install
/// the scripted transport); otherwise the built-in one serves.
///
/// Threading: call these on the main thread only; the installed transport is a plain global.
class KESTREL_EXPORT TransportRegistry {
 public:
  /// Makes `transport` the one that connection managers created from now on use; null restores the
  /// built-in transport. Managers that exist keep the transport they were made with. The transport
  /// is borrowed: it must outlive every manager and every request that uses it. Call it on the
  /// main thread before creating services.
  static void SetDefault(ITransport* transport);
  /// The transport that a connection manager created now would use; never null.
  static ITransport* Default();
  /// The built-in transport of the network layer: CurlTransport::Default(). Never null; it lives
  /// until the process ends.
  static ITransport* BuiltIn();
};

}  // namespace net
}  // namespace kestrel
