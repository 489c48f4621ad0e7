// The IPv6 module's types as reflection knows them.
#pragma once

#include "host6/HostRoute6Sm.h"
#include "platform/kiv/containers/Export.h"
#include "typeinfo/RootInterface.h"
#include "typeinfo/ValueTypes.h"

/// Makes the IPv6 module's four types known to the runtime. Run when the library is loaded; more
/// calls do nothing.
extern "C" KIV_EXPORT void kivInitHostRoute6Sm();

namespace Routing6::Host {

/// The reflective interface to a root, which also tells of the root's changes.
class KIV_EXPORT RouteSmRoot::GenericIf_ final : public Reflection::RootInterface<RouteSmRoot> {
 public:
  using RootInterface::RootInterface;

  /// Turns each of the root's notifications into a generic one.
  class KIV_EXPORT GenericIf_Adapter_ final : public Reflection::RootAdapter<RouteSmRoot> {
   public:
    using RootAdapter::RootAdapter;

    void onReceiveTable() override { tell<ReceiveTableAttribute>(); }
    void onNeighTable() override { tell<NeighTableAttribute>(); }
    void onIntfStatusDir() override { tell<IntfStatusDirAttribute>(); }
    void onTrie() override { tell<TrieAttribute>(); }
    void onAdjHelper() override { tell<AdjHelperAttribute>(); }
    void onNeighRoute(const Zemit::Ip6Prefix& prefix) override {
      tell<NeighRouteAttribute>(prefix);
    }
    void onNeighRoutekivImmediate() override { tell<NeighRouteAttribute>(); }
    void onPrefixToRoute(const Zemit::Ip6Prefix& prefix) override {
      tell<PrefixToRouteAttribute>(prefix);
    }
    void onPrefixToRoutekivImmediate() override { tell<PrefixToRouteAttribute>(); }
    void onPrefixToAdjacency(const Zemit::Ip6Prefix& prefix) override {
      tell<PrefixToAdjacencyAttribute>(prefix);
    }
    void onPrefixToAdjacencykivImmediate() override { tell<PrefixToAdjacencyAttribute>(); }
    void onAdjacencyToPrefix(const Tovan::Fib::FecId& fecId) override {
      tell<AdjacencyToPrefixAttribute>(fecId);
    }
    void onAdjacencyToPrefixkivImmediate() override { tell<AdjacencyToPrefixAttribute>(); }
    void onIntfNameToAddrWithMask(const Kiv::String8& intfName) override {
      tell<IntfNameToAddrWithMaskAttribute>(intfName);
    }
    void onIntfNameToAddrWithMaskkivImmediate() override {
      tell<IntfNameToAddrWithMaskAttribute>();
    }
    void onReceiveAddrToIntfName(const Zemit::Ip6Addr& ipAddr) override {
      tell<ReceiveAddrToIntfNameAttribute>(ipAddr);
    }
    void onReceiveAddrToIntfNamekivImmediate() override { tell<ReceiveAddrToIntfNameAttribute>(); }
    void onToMerge() override { tell<ToMergeAttribute>(); }
    void onVipToMerge() override { tell<VipToMergeAttribute>(); }
    void onRouteSm() override { tell<RouteSmAttribute>(); }
    void onInitialized() override { tell<InitializedAttribute>(); }
  };
};

}  // namespace Routing6::Host
