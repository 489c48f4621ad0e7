// The IPv4 addresses of the interfaces, as the IP agent publishes them.
#pragma once

#include "platform/kiv/runtime/Attributes.h"
#include "platform/l3/IntfStatus.h"
#include "platform/zemit/IntfId.h"
#include "platform/zemit/IpAddrWithMask.h"

namespace Ip {

/// One interface with its active primary address and its active secondary addresses.
class IpIntfStatus final : public Kiv::Entity {
 public:
  using Ptr = Kiv::Ptr<IpIntfStatus>;
  using PtrConst = Kiv::Ptr<const IpIntfStatus>;

  /// Derive from this to be told of changes. A new notifiee is told of all addresses at once.
  class NotifieeConst : public Kiv::NotifieeOf<IpIntfStatus> {
   public:
    virtual void onActiveAddrWithMask() {}
    virtual void onActiveSecondaryWithMask(const Zemit::IpAddrWithMask&) {}
    virtual void onActiveSecondaryWithMaskkivImmediate() {}

   protected:
    void kivImmediate() override {
      onActiveAddrWithMask();
      onActiveSecondaryWithMaskkivImmediate();
    }
  };

  /// \param l3Status  the layer-3 side of the same interface.
  IpIntfStatus(Zemit::IntfId intfId, L3::Intf::Status::PtrConst l3Status)
      : intfId_(intfId), l3Status_(std::move(l3Status)) {}

  Zemit::IntfId intfId() const noexcept { return intfId_; }
  Kiv::Name name() const override { return intfId_.name(); }
  const L3::Intf::Status::PtrConst& l3Status() const noexcept { return l3Status_; }

  /// The primary address; 0.0.0.0/0 when there is none.
  KIV_SETTABLE_SCALAR(258, activeAddrWithMask, ActiveAddrWithMask, Zemit::IpAddrWithMask)

  /// The secondary addresses.
  KIV_SET(259, activeSecondaryWithMask, ActiveSecondaryWithMask, Zemit::IpAddrWithMask)

 private:
  Zemit::IntfId intfId_;
  L3::Intf::Status::PtrConst l3Status_;
};

/// The interfaces with IPv4 enabled.
class Status final : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<Status>;
  using PtrConst = Kiv::Ptr<const Status>;

  /// Derive from this to be told of interfaces that are added or removed.
  class NotifieeConst : public Kiv::NotifieeOf<Status> {
   public:
    virtual void onIpIntfStatus(const Zemit::IntfId&) {}
    virtual void onIpIntfStatuskivImmediate() {}

   protected:
    void kivImmediate() override { onIpIntfStatuskivImmediate(); }
  };

  explicit Status(Kiv::Name name) : NamedEntity(std::move(name)) {}

  /// The status of each interface.
  KIV_COLLECTION(258, ipIntfStatus, IpIntfStatus, Zemit::IntfId, IpIntfStatus::Ptr)
  /// Returns the interface's status. Makes one without addresses when there is none.
  IpIntfStatus::Ptr newIpIntfStatus(Zemit::IntfId intfId,
                                    const L3::Intf::Status::PtrConst& l3Status) {
    if (const auto& present = ipIntfStatus(intfId)) return present;
    auto added = Kiv::make<Ip::IpIntfStatus>(intfId, l3Status);
    ipIntfStatus_.set(*this, intfId, added);
    return added;
  }
};

}  // namespace Ip
