/// @file
/// An empty polymorphic class of the public interface, for the host's use.
#pragma once

#include "kestrel/base/memory_manager.h"
#include "quire/quire_export.h"

namespace kestrel {
namespace quire {

/// An empty polymorphic class of the public interface. It holds nothing and does nothing; the
/// library neither creates nor uses it. A host may derive from it. Instances are allocated through
/// the host's memory manager (also with plain new).
class QUIRE_EXPORT OAuthSigners {
  KESTREL_MANAGED_ALLOCATION

 public:
  /// Does nothing.
  OAuthSigners();
  /// Does nothing.
  virtual ~OAuthSigners();
};

}  // namespace quire
}  // namespace kestrel
