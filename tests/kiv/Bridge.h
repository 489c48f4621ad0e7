// A small entity with an attribute of each kind, for the tests of the runtime.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/kiv/runtime/Attributes.h"

namespace Sample {

/// A port of a bridge.
class Port final : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<Port>;

  class NotifieeConst : public Kiv::NotifieeOf<Port> {
   public:
    virtual void onSpeed() {}

   protected:
    using Kiv::NotifieeOf<Port>::NotifieeOf;
  };

  explicit Port(Kiv::Name name) : NamedEntity(std::move(name)) {}

  /// In megabits per second.
  KIV_SETTABLE_SCALAR(257, speed, Speed, uint32_t)
};

/// A bridge. Owns its ports and stores the port of each station.
class Bridge : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<Bridge>;

  /// Derive from this to be told of changes. A callback runs after the change it reports.
  class NotifieeConst : public Kiv::NotifieeOf<Bridge> {
   public:
    virtual void onMtu() {}
    virtual void onUplink() {}
    virtual void onCpuPort() {}
    virtual void onVlan(const uint32_t&) {}
    virtual void onVlankivImmediate() {}
    virtual void onStation(const uint64_t&) {}
    virtual void onStationkivImmediate() {}
    virtual void onPort(const Kiv::Name&) {}
    virtual void onPortkivImmediate() {}

   protected:
    using Kiv::NotifieeOf<Bridge>::NotifieeOf;
    void kivImmediate() override {
      onMtu();
      onPortkivImmediate();
    }
  };

  explicit Bridge(Kiv::Name name) : NamedEntity(std::move(name)) {}

  /// The largest frame, in bytes.
  KIV_SETTABLE_SCALAR(257, mtu, Mtu, uint32_t)
  /// The port towards the root of the spanning tree. Not owned by the bridge.
  KIV_POINTER(258, uplink, Uplink, Port)
  /// The bridge's own port.
  KIV_SINGLETON(259, cpuPort, CpuPort, Port)
  const Port::Ptr& newCpuPort(const Kiv::Name& name) {
    cpuPort_.set(*this, Kiv::make<Port>(name));
    return cpuPort();
  }
  /// The bridged VLANs.
  KIV_SET(260, vlan, Vlan, uint32_t)
  /// The last known port of each station, by the station's MAC address.
  KIV_COLLECTION(261, station, Station, uint64_t, Kiv::Name)
  void stationIs(const uint64_t& mac, const Kiv::Name& port) { station_.set(*this, mac, port); }
  /// The ports by name.
  KIV_COLLECTION(262, port, Port, Kiv::Name, Port::Ptr)
  /// Adds `port` under its name.
  /// \throws Kiv::RangeException when `port` is null.
  void portIs(const Port::Ptr& port) {
    KIV_REQUIRE(port, "null port");
    port_.set(*this, port->name(), port);
  }
};

using Log = std::vector<std::string>;

/// Logs each notification, then calls the function `then` of the test.
class BridgeWatcher : public Bridge::NotifieeConst {
 public:
  using Ptr = Kiv::Ptr<BridgeWatcher>;

  explicit BridgeWatcher(Log& log, std::string name = "", Hold hold = Hold::kStrong)
      : NotifieeConst(hold), log_(log), name_(std::move(name)) {}

  void onMtu() override { told("mtu"); }
  void onUplink() override { told("uplink"); }
  void onCpuPort() override { told("cpuPort"); }
  void onVlan(const uint32_t& vlan) override { told("vlan " + std::to_string(vlan)); }
  void onVlankivImmediate() override { told("vlan*"); }
  void onStation(const uint64_t& mac) override { told("station " + std::to_string(mac)); }
  void onStationkivImmediate() override { told("station*"); }
  void onPort(const Kiv::Name& port) override { told("port " + std::string(port.view())); }
  void onPortkivImmediate() override { told("port*"); }
  void onNotificationException(Kiv::AttributeId id) noexcept override {
    told("exception " + std::to_string(id), false);
  }
  void onZeroReferences() noexcept override { told("zero", false); }

  std::function<void()> then;

 private:
  void told(const std::string& what, bool act = true) {
    log_.push_back(name_ + what);
    // A copy, because the function may destroy this object.
    if (const auto action = then; act && action) action();
  }

  Log& log_;
  std::string name_;
};

/// Returns the log since the last call and empties it.
inline Log take(Log& log) {
  return std::exchange(log, {});
}

}  // namespace Sample
