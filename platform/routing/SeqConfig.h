// Sequencing of the routing agents at start-up: configuration.
#pragma once

#include "platform/kiv/runtime/Attributes.h"

namespace Routing {

/// How the routing agents' start-up is sequenced. The host-route machines hold it for the daemon
/// and read nothing of it.
class SeqConfig final : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<SeqConfig>;

  /// Derive from this to be bound to it; it announces nothing.
  class NotifieeConst : public Kiv::NotifieeOf<SeqConfig> {};

  explicit SeqConfig(Kiv::Name name) : NamedEntity(std::move(name)) {}
};

}  // namespace Routing
