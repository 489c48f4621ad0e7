// Sequencing of the routing agents at start-up: progress.
#pragma once

#include "platform/kiv/runtime/Attributes.h"

namespace Rovel {

/// How far the start-up sequence of one address family is. The host-route machines hold it for the
/// daemon and read nothing of it.
class SeqInfo final : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<SeqInfo>;

  /// Derive from this to be bound to it; it announces nothing.
  class NotifieeConst : public Kiv::NotifieeOf<SeqInfo> {};

  explicit SeqInfo(Kiv::Name name) : NamedEntity(std::move(name)) {}
};

}  // namespace Rovel
