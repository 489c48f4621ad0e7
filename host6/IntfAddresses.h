// The addresses of one interface.
#pragma once

#include "platform/kiv/containers/Export.h"
#include "platform/kiv/runtime/Attributes.h"
#include "platform/zemit/IpAddrWithMask.h"

namespace Routing6::Host {

/// The IPv6 addresses of one interface, link-local ones left out, for which receive routes were
/// written.
class KIV_EXPORT IntfAddresses final : public Kiv::Entity {
 public:
  using Ptr = Kiv::Ptr<IntfAddresses>;
  using PtrConst = Kiv::Ptr<const IntfAddresses>;

  KIV_REFLECTED(IntfAddresses);

  /// Derive from this to be told of changes. A callback runs after the change it reports.
  class NotifieeConst : public Kiv::NotifieeOf<IntfAddresses> {
   public:
    virtual void onAddrWithMask(const Zemit::Ip6AddrWithMask&) {}
    virtual void onAddrWithMaskkivImmediate() {}

   protected:
    void kivImmediate() override { onAddrWithMaskkivImmediate(); }
  };

  explicit IntfAddresses(Kiv::String8 intfName) : intfName_(std::move(intfName)) {}

  /// The interface: the entity's key.
  const Kiv::String8& intfName() const noexcept { return intfName_; }
  Kiv::Name name() const override { return intfName_; }

  /// The addresses.
  KIV_SET(258, addrWithMask, AddrWithMask, Zemit::Ip6AddrWithMask)

 private:
  Kiv::String8 intfName_;
};

}  // namespace Routing6::Host
