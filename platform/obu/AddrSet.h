// Sets of addresses.
#pragma once

#include <sstream>

#include "platform/kiv/runtime/Attributes.h"
#include "platform/zemit/Prefix.h"

namespace Obu {

/// A set of addresses. Its name is a prefix. An empty set allocates no memory.
template <class P>
class BasicAddrSet final : public Kiv::Entity {
 public:
  using Addr = typename P::Addr;
  using Ptr = Kiv::Ptr<BasicAddrSet>;
  using PtrConst = Kiv::Ptr<const BasicAddrSet>;

  /// Derive from this to be told of changes.
  class NotifieeConst : public Kiv::NotifieeOf<BasicAddrSet> {
   public:
    virtual void onIp(const Addr&) {}
    virtual void onIpkivImmediate() {}

   protected:
    using Kiv::NotifieeOf<BasicAddrSet>::NotifieeOf;
    void kivImmediate() override { onIpkivImmediate(); }
  };

  explicit BasicAddrSet(const P& prefix) : prefix_(prefix) {}
  /// A new, empty set.
  static Ptr AddrSetIs(const P& prefix) { return Kiv::make<BasicAddrSet>(prefix); }

  /// The prefix that names the set.
  const P& prefix() const noexcept { return prefix_; }
  Kiv::Name name() const override {
    std::ostringstream text;
    text << prefix_;
    return Kiv::Name(text.view());
  }

  /// The members.
  KIV_ORDERED_SET(257, ip, Ip, Addr)

 private:
  P prefix_;
};

using AddrSet = BasicAddrSet<Zemit::Prefix>;
using Ip6AddrSet = BasicAddrSet<Zemit::Ip6Prefix>;

}  // namespace Obu
