// Sequencing of the routing agents at start-up: configuration.
#pragma once

#include "platform/kiv/runtime/Attributes.h"

namespace Routing {

/// The configuration of the routing agents' start-up sequence. The host-route machines keep a
/// reference for the daemon and do not read it.
class SeqConfig final : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<SeqConfig>;

  /// Derive from this to bind to the configuration. It has no notifications.
  class NotifieeConst : public Kiv::NotifieeOf<SeqConfig> {};

  explicit SeqConfig(Kiv::Name name) : NamedEntity(std::move(name)) {}
};

}  // namespace Routing
