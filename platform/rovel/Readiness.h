// Whether the routes of a VRF are complete: the daemon's readiness record.
#pragma once

#include <array>

#include "platform/kiv/runtime/Attributes.h"
#include "platform/l3/VrfName.h"

namespace RovelReady {

/// The kinds of routes, each with a readiness of its own.
enum RouteType : uint32_t {
  v4Host_ = 0,
  v6Host_ = 1,
  v4Connected_ = 2,
  v6Connected_ = 3,
  v4Static_ = 4,
  v6Static_ = 5,
  ospf_ = 6,
  bgp_ = 7,
  invalid_ = 8,
};

/// The readiness of one kind of routes.
class RouteStatus final : public Kiv::Entity {
 public:
  using Ptr = Kiv::Ptr<RouteStatus>;

  /// Derive from this to be told of changes.
  class NotifieeConst : public Kiv::NotifieeOf<RouteStatus> {
   public:
    virtual void onReady() {}
    virtual void onReadyTime() {}
  };

  explicit RouteStatus(RouteType type) : type_(type) {}

  RouteType type() const noexcept { return type_; }
  Kiv::Name name() const override {
    static constexpr std::array kNames{"v4Host_",   "v6Host_",   "v4Connected_", "v6Connected_",
                                       "v4Static_", "v6Static_", "ospf_",        "bgp_"};
    return type_ < kNames.size() ? kNames[type_] : "invalid_";
  }

  /// True once all routes of the kind are written.
  KIV_SETTABLE_SCALAR(258, ready, Ready, bool)
  /// When `ready` became true, in the seconds of Kiv::now().
  KIV_SETTABLE_SCALAR(259, readyTime, ReadyTime, double)

 private:
  RouteType type_;
};

/// The readiness of one VRF. The daemon sets when the RIB is ready and when verification starts;
/// each kind of routes answers in its own entry.
class VrfStatus final : public Kiv::Entity {
 public:
  using Ptr = Kiv::Ptr<VrfStatus>;

  /// Derive from this to be told of changes.
  class NotifieeConst : public Kiv::NotifieeOf<VrfStatus> {
   public:
    virtual void onStartRibReadyVerification() {}
    virtual void onRibReady() {}
    virtual void onV4HostRoutesSynced() {}
    virtual void onV4HostRoutesSyncedTime() {}
    virtual void onV6HostRoutesSynced() {}
    virtual void onV6HostRoutesSyncedTime() {}
    virtual void onRouteStatus(const RouteType&) {}
    virtual void onRouteStatuskivImmediate() {}
  };

  explicit VrfStatus(L3::VrfName vrfName) : vrfName_(std::move(vrfName)) {}

  Kiv::Name name() const override { return vrfName_.value(); }

  /// True when the agents are asked to report whether their routes are complete.
  KIV_SETTABLE_SCALAR(258, startRibReadyVerification, StartRibReadyVerification, bool)
  /// True when the RIB holds all routes.
  KIV_SETTABLE_SCALAR(260, ribReady, RibReady, bool)
  /// True when the IPv4 (IPv6) host routes agree with the RIB, and since when in the seconds of
  /// Kiv::now().
  KIV_SETTABLE_SCALAR(261, v4HostRoutesSynced, V4HostRoutesSynced, bool)
  KIV_SETTABLE_SCALAR(262, v4HostRoutesSyncedTime, V4HostRoutesSyncedTime, double)
  KIV_SETTABLE_SCALAR(263, v6HostRoutesSynced, V6HostRoutesSynced, bool)
  KIV_SETTABLE_SCALAR(264, v6HostRoutesSyncedTime, V6HostRoutesSyncedTime, double)

  /// The entry of each kind of routes that takes part.
  KIV_COLLECTION(265, routeStatus, RouteStatus, RouteType, RouteStatus::Ptr)
  /// Makes the kind's entry, not ready, unless it is there; returns it.
  RouteStatus::Ptr newRouteStatus(RouteType type) {
    if (const auto& present = routeStatus(type)) return present;
    auto added = Kiv::make<RovelReady::RouteStatus>(type);
    routeStatus_.set(*this, type, added);
    return added;
  }

 private:
  L3::VrfName vrfName_;
};

}  // namespace RovelReady
