// The reflective descriptions of the IPv4 module's types.
#pragma once

#include "host/HostRouteSm.h"
#include "platform/kiv/containers/Export.h"
#include "typeinfo/RootInterface.h"
#include "typeinfo/ValueTypes.h"

/// Registers the IPv4 module's four types with the runtime. Runs when the library is loaded;
/// further calls do nothing.
extern "C" KIV_EXPORT void kivInitHostRouteSm();

namespace Routing::Host {

/// The reflective interface to a root. It also reports the root's changes.
class KIV_EXPORT RouteSmRoot::GenericIf_ final : public Reflection::RootInterface<RouteSmRoot> {
 public:
  using RootInterface::RootInterface;

  /// Turns each of the root's notifications into a generic one.
  class KIV_EXPORT GenericIf_Adapter_ final : public Reflection::RootAdapter<RouteSmRoot> {
   public:
    using RootAdapter::RootAdapter;

    void onReceiveTable() override { tell<ReceiveTableAttribute>(); }
    void onArpTable() override { tell<ArpTableAttribute>(); }
    void onIntfStatusDir() override { tell<IntfStatusDirAttribute>(); }
    void onTrie() override { tell<TrieAttribute>(); }
    void onAdjHelper() override { tell<AdjHelperAttribute>(); }
    void onArpRoute(const Zemit::Prefix& prefix) override { tell<ArpRouteAttribute>(prefix); }
    void onArpRoutekivImmediate() override { tell<ArpRouteAttribute>(); }
    void onPrefixToRoute(const Zemit::Prefix& prefix) override {
      tell<PrefixToRouteAttribute>(prefix);
    }
    void onPrefixToRoutekivImmediate() override { tell<PrefixToRouteAttribute>(); }
    void onPrefixToAdjacency(const Zemit::Prefix& prefix) override {
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
    void onIntfNameToSecondaryAddrWithMask(const Kiv::String8& intfName) override {
      tell<IntfNameToSecondaryAddrWithMaskAttribute>(intfName);
    }
    void onIntfNameToSecondaryAddrWithMaskkivImmediate() override {
      tell<IntfNameToSecondaryAddrWithMaskAttribute>();
    }
    void onReceiveAddrToIntfName(const Zemit::IpAddr& ipAddr) override {
      tell<ReceiveAddrToIntfNameAttribute>(ipAddr);
    }
    void onReceiveAddrToIntfNamekivImmediate() override { tell<ReceiveAddrToIntfNameAttribute>(); }
    void onToMerge() override { tell<ToMergeAttribute>(); }
    void onRouteSm() override { tell<RouteSmAttribute>(); }
    void onInitialized() override { tell<InitializedAttribute>(); }
  };
};

}  // namespace Routing::Host
