// Sequencing of the routing agents at start-up: progress.
#pragma once

#include "platform/kiv/runtime/Attributes.h"

namespace Rovel {

/// The progress of the start-up sequence of one address family. The host-route machines keep a
/// reference for the daemon and do not read it.
class SeqInfo final : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<SeqInfo>;

  /// Derive from this to bind to the progress. It has no notifications.
  class NotifieeConst : public Kiv::NotifieeOf<SeqInfo> {};

  explicit SeqInfo(Kiv::Name name) : NamedEntity(std::move(name)) {}
};

}  // namespace Rovel
