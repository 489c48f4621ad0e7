// One line of a replay: an event, whose fields are checked when they are read.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include <nlohmann/json.hpp>

#include "daemon/Switch.h"
#include "replay/EventError.h"
#include "replay/HopText.h"

namespace Replay {

/// The fields of one event, or of an object inside one.
///
/// Each accessor throws EventError when the field has another type or a value that is not allowed,
/// and when a field without a default is missing.
class Event {
 public:
  static constexpr uint64_t kMaxFecId = std::numeric_limits<uint32_t>::max();

  /// \throws EventError when `line` is not a JSON object with an "op".
  static Event parse(std::string_view line);

  const std::string& op() const { return string("op"); }
  bool has(const char* field) const { return object_.contains(field); }
  /// \throws EventError when there is a field that is neither "op" nor one of `fields`.
  void refuseOthersThan(std::span<const std::string_view> fields) const;

  const std::string& string(const char* field) const;
  bool flag(const char* field) const;
  bool flag(const char* field, bool byDefault) const {
    return has(field) ? flag(field) : byDefault;
  }
  uint64_t number(const char* field, uint64_t min, uint64_t max) const;
  uint64_t number(const char* field, uint64_t min, uint64_t max, uint64_t byDefault) const {
    return has(field) ? number(field, min, max) : byDefault;
  }

  bool present() const { return flag("present", true); }
  /// The VRF that the event names, or the default one.
  std::string_view vrf(const char* field = "vrf") const;
  Zemit::IntfId intf(const char* field = "intf") const;
  /// Parses the field's text, such as an address. `what` names the expected value in the error
  /// message.
  template <class Value>
  Value value(const char* field, const char* what) const {
    const auto parsed = Value::parse(string(field));
    if (!parsed) refuse(field, what);
    return *parsed;
  }
  template <class Prefix>
  Prefix prefix(const char* field) const;
  template <class RouteType>
  RouteType routeType(const char* field, RouteType byDefault) const;
  /// The FEC that the event describes. Its vias may be left out when `present` is false.
  template <class F>
  typename F::Fec fec() const;

  /// The next hop in the field "hop" of a via of a FEC; the zero address when the field is missing.
  template <class F>
  typename F::Addr hop() const;

  /// True when the field "family" is `family` (4 or 6) or missing.
  bool concerns(int family) const { return !has("family") || this->family() == family; }
  int family() const;
  /// Calls `visit` with the family of the address or prefix in `field`.
  template <class Visit>
  void withFamilyOf(const char* field, Visit visit) const {
    if (string(field).find(':') == std::string::npos) {
      visit(Daemon::Ipv4());
    } else {
      visit(Daemon::Ipv6());
    }
  }

  /// \throws EventError "FIELD: VALUE is not WHAT".
  [[noreturn]] void refuse(const char* field, const std::string& what) const;

 private:
  explicit Event(nlohmann::json object) : object_(std::move(object)) {}
  const nlohmann::json& at(const char* field) const;

  nlohmann::json object_;
};

template <class Prefix>
Prefix Event::prefix(const char* field) const {
  using AddrWithMask = Zemit::BasicAddrWithMask<typename Prefix::Addr>;
  const auto parsed = value<AddrWithMask>(field, "a prefix");
  if (parsed.subnetAddr() != parsed.addr()) refuse(field, "a prefix: it has host bits set");
  return Prefix(parsed.addr(), parsed.len());
}

template <class RouteType>
RouteType Event::routeType(const char* field, RouteType byDefault) const {
  if (!has(field)) return byDefault;
  const auto parsed = Routing::parseRouteType<RouteType>(string(field));
  if (!parsed || *parsed == RouteType{}) refuse(field, "a type of a route of that family");
  return *parsed;
}

template <class F>
typename F::Addr Event::hop() const {
  if (!has("hop")) return {};
  if constexpr (std::is_same_v<F, Daemon::Ipv4>) {
    if (string("hop") == kIpv6NextHopText) return Daemon::kIpv6NextHop;
  }
  return value<typename F::Addr>("hop", "an address of the FEC's family");
}

template <class F>
typename F::Fec Event::fec() const {
  typename F::Fec fec(number("id", 1, kMaxFecId));
  if (!has("vias") && !present()) return fec;
  const auto& vias = at("vias");
  if (!vias.is_array()) refuse("vias", "a list");
  for (const auto& member : vias) {
    if (!member.is_object()) refuse("vias", "a list of objects");
    const Event via(member);
    static constexpr std::string_view kFields[] = {"intf", "hop"};
    via.refuseOthersThan(kFields);
    fec.newVia({.hop = via.hop<F>(), .intf = via.intf()});
  }
  return fec;
}

}  // namespace Replay
