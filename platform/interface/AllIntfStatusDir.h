// All interfaces of the switch.
#pragma once

#include "platform/kiv/runtime/Attributes.h"
#include "platform/zemit/IntfId.h"

namespace Interface {

/// The interfaces that exist, in all VRFs.
class AllIntfStatusDir final : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<AllIntfStatusDir>;
  using PtrConst = Kiv::Ptr<const AllIntfStatusDir>;

  /// Derive from this to be told of changes.
  class NotifieeConst : public Kiv::NotifieeOf<AllIntfStatusDir> {
   public:
    virtual void onIntf(const Zemit::IntfId&) {}
    virtual void onIntfkivImmediate() {}

   protected:
    void kivImmediate() override { onIntfkivImmediate(); }
  };

  explicit AllIntfStatusDir(Kiv::Name name) : NamedEntity(std::move(name)) {}

  KIV_SET(257, intf, Intf, Zemit::IntfId)
};

}  // namespace Interface
