// Virtual addresses of first-hop redundancy groups (VRRP, RFC 9568, and similar protocols).
#pragma once

#include "platform/kiv/runtime/Attributes.h"
#include "platform/kiv/runtime/Watch.h"
#include "platform/routing/FhrpTypes.h"

namespace Routing::Fhrp {

/// The virtual addresses of all VRFs for which this switch may answer.
///
/// \tparam Pair  the key: VRF and address.
/// \tparam A     the family's address type.
template <class Pair, class A>
class BasicVirtualIpStatus final : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<BasicVirtualIpStatus>;
  using PtrConst = Kiv::Ptr<const BasicVirtualIpStatus>;

  /// Derive from this to be told of changes. onVirtualIp() announces the whole collection; a new
  /// notifiee gets it at once.
  class NotifieeConst : public Kiv::NotifieeOf<BasicVirtualIpStatus> {
   public:
    virtual void onVirtualIp(const Pair&) {}
    virtual void onVirtualIp() {}
    virtual void onVirtualIpkivImmediate() { onVirtualIp(); }

   protected:
    void kivImmediate() override { onVirtualIpkivImmediate(); }
  };

  explicit BasicVirtualIpStatus(Kiv::Name name) : NamedEntity(std::move(name)) {}

  /// The virtual addresses.
  KIV_SET_VIEW(258, virtualIp, VirtualIp, Pair)
  void virtualIpIs(const Pair& pair, bool present) {
    if (present == virtualIp(pair)) return;
    // The index is updated first, so that a callback reads the new state.
    if (const auto addr = addrOf(pair)) {
      count(*addr, present);
      watches_.written(*addr);
    }
    virtualIp_.set(*this, pair, present);
  }
  void newVirtualIp(const Pair& pair, bool present) { virtualIpIs(pair, present); }
  void virtualIpDel(const Pair& pair) { virtualIpIs(pair, false); }
  KIV_FURTHER_DELETIONS(virtualIp, VirtualIp)

  /// True when `addr` is virtual in any VRF.
  bool isVirtual(const A& addr) const { return users_.find(addr) != nullptr; }
  /// The watches that are called before an address becomes virtual in a VRF or stops being virtual
  /// in one.
  const Kiv::WatchList<A>& watches() const noexcept { return watches_; }

 private:
  static std::optional<A> addrOf(const VrfIpWithMaskPair& pair) { return pair.v4Addr(); }
  static std::optional<A> addrOf(const VrfIpPair& pair) { return pair.vrfIp(); }

  void count(const A& addr, bool added) {
    const auto [users, isNew] = users_.tryEmplace(addr, 0U);
    *users = added ? *users + 1 : *users - 1;
    if (*users == 0) users_.erase(addr);
  }

  Kiv::HashMap<A, uint32_t> users_;  // the number of pairs with the address
  Kiv::WatchList<A> watches_;
};

using VirtualIpStatus = BasicVirtualIpStatus<VrfIpWithMaskPair, Zemit::IpAddr>;
using VirtualIp6Status = BasicVirtualIpStatus<VrfIpPair, Zemit::Ip6Addr>;

}  // namespace Routing::Fhrp
