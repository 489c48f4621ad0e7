// The layer-3 side of an interface, as the interface agent publishes it.
#pragma once

#include "platform/kiv/runtime/Attributes.h"
#include "platform/l3/VrfName.h"

namespace L3::Intf {

/// Which VRF an interface belongs to.
class Status final : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<Status>;
  using PtrConst = Kiv::Ptr<const Status>;

  /// Derive from this to be told of changes. A new notifiee is told of the VRF at once.
  class NotifieeConst : public Kiv::NotifieeOf<Status> {
   public:
    virtual void onVrf() {}

   protected:
    void kivImmediate() override { onVrf(); }
  };

  /// \param intfName  the interface.
  explicit Status(Kiv::Name intfName) : NamedEntity(std::move(intfName)) {}

  /// The VRF that routes the packets received on the interface.
  KIV_SETTABLE_SCALAR(258, vrf, Vrf, L3::VrfName)
};

}  // namespace L3::Intf
