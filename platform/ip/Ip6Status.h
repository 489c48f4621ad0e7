// The IPv6 addresses of the interfaces, as the IP agent publishes them.
#pragma once

#include "platform/kiv/runtime/Attributes.h"
#include "platform/l3/IntfStatus.h"
#include "platform/zemit/IntfId.h"
#include "platform/zemit/IpAddrWithMask.h"

namespace Ip6 {

/// The status of one address of an interface. The default value means that the interface does not
/// have the address.
struct AddressInfo {
  bool active = false;

  friend bool operator==(const AddressInfo&, const AddressInfo&) = default;
};

/// One interface and all its addresses, including link-local addresses.
class IntfStatus final : public Kiv::Entity {
 public:
  using Ptr = Kiv::Ptr<IntfStatus>;
  using PtrConst = Kiv::Ptr<const IntfStatus>;

  /// Derive from this to be told of changes. A new notifiee is told of all addresses at once.
  class NotifieeConst : public Kiv::NotifieeOf<IntfStatus> {
   public:
    virtual void onAddr(const Zemit::Ip6AddrWithMask&) {}
    virtual void onAddrkivImmediate() {}

   protected:
    void kivImmediate() override { onAddrkivImmediate(); }
  };

  /// \param l3Status  the layer-3 side of the same interface.
  IntfStatus(Zemit::IntfId intfId, L3::Intf::Status::PtrConst l3Status)
      : intfId_(intfId), l3Status_(std::move(l3Status)) {}

  Zemit::IntfId intfId() const noexcept { return intfId_; }
  Kiv::Name name() const override { return intfId_.name(); }
  const L3::Intf::Status::PtrConst& l3Status() const noexcept { return l3Status_; }

  /// The addresses.
  KIV_COLLECTION(258, addr, Addr, Zemit::Ip6AddrWithMask, AddressInfo)
  void addrIs(const Zemit::Ip6AddrWithMask& addr, const AddressInfo& info) {
    addr_.set(*this, addr, info);
  }

 private:
  Zemit::IntfId intfId_;
  L3::Intf::Status::PtrConst l3Status_;
};

/// The interfaces with IPv6 enabled.
class Status final : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<Status>;
  using PtrConst = Kiv::Ptr<const Status>;

  /// Derive from this to be told of interfaces that are added or removed.
  class NotifieeConst : public Kiv::NotifieeOf<Status> {
   public:
    virtual void onIntf(const Zemit::IntfId&) {}
    virtual void onIntfkivImmediate() {}

   protected:
    void kivImmediate() override { onIntfkivImmediate(); }
  };

  explicit Status(Kiv::Name name) : NamedEntity(std::move(name)) {}

  /// The status of each interface.
  KIV_COLLECTION(258, intf, Intf, Zemit::IntfId, IntfStatus::Ptr)
  /// Returns the interface's status. Makes one without addresses when there is none.
  IntfStatus::Ptr newIntf(Zemit::IntfId intfId, const L3::Intf::Status::PtrConst& l3Status) {
    if (const auto& present = intf(intfId)) return present;
    auto added = Kiv::make<IntfStatus>(intfId, l3Status);
    intf_.set(*this, intfId, added);
    return added;
  }
};

}  // namespace Ip6
