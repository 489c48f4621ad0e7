// Writes the operations on a switch in the replay format.
#include "replay/Recording.h"

#include <concepts>
#include <type_traits>

#include "replay/HopText.h"
#include "replay/Json.h"
#include "replay/Time.h"

namespace Replay {
namespace {

using namespace Daemon;

/// One event. The fields keep the order in which they are added, as in a hand-written replay.
class Line {
 public:
  explicit Line(std::string_view op) : text_("{\"op\":") { text_ += jsonString(op); }

  Line& add(std::string_view field, std::string_view text) { return raw(field, jsonString(text)); }
  Line& add(std::string_view field, Zemit::IntfId intf) { return add(field, intf.name().view()); }
  template <Zemit::HasText Value>
  Line& add(std::string_view field, const Value& value) {
    return raw(field, '"' + toString(value) + '"');
  }
  Line& add(std::string_view field, std::integral auto number) {
    return raw(field, std::to_string(number));
  }
  Line& add(std::string_view field, bool value) { return raw(field, jsonBool(value)); }
  /// Leaves out the default VRF.
  Line& addVrf(std::string_view vrf) {
    return vrf == Switch::kDefaultVrf ? *this : add("vrf", vrf);
  }
  /// Leaves out `true`, the default.
  Line& addPresent(bool present) { return present ? *this : add("present", false); }
  /// Adds a field whose value is JSON text.
  Line& raw(std::string_view field, std::string_view json) {
    text_.append(",\"").append(field).append("\":").append(json);
    return *this;
  }
  std::string end() { return std::move(text_ += "}\n"); }

 private:
  std::string text_;
};

std::string write(const SetVrf& op) {
  return Line("vrf").add("name", op.vrf).end();
}

std::string write(const SetInterface& op) {
  return Line("intf").addVrf(op.vrf).add("name", op.intf).addPresent(op.present).end();
}

template <class F>
std::string write(const SetAddress<F>& op) {
  Line line("addr");
  line.add("intf", op.intf).add("addr", op.addr);
  if (op.secondary) line.add("secondary", true);
  return line.addPresent(op.present).end();
}

std::string write(const SetNeighborTable& op) {
  return Line("neighborTable").add("intf", op.intf).addPresent(op.present).end();
}

template <class F>
std::string write(const SetNeighbor<F>& op) {
  Line line("neighbor");
  line.add("intf", op.intf).add("ip", op.neighbor.ipAddr);
  if (!op.neighbor.mac.isZero()) line.add("mac", op.neighbor.mac);
  return line.addPresent(op.present).end();
}

template <class F>
std::string write(const SetFec<F>& op) {
  Line line("fec");
  line.add("id", op.fec.id()).add("family", F::kNumber);
  if (!op.present) return line.addPresent(false).end();
  std::string vias;
  for (const auto& via : op.fec) {
    vias.append(vias.empty() ? "{" : ",{").append("\"intf\":");
    vias += jsonString(via.intf.name());
    if (!via.hop.isZero()) vias.append(",\"hop\":\"").append(hopText(via.hop)).append("\"");
    vias += '}';
  }
  return line.raw("vias", '[' + vias + ']').end();
}

template <class F>
std::string write(const SetRoute<F>& op) {
  constexpr Routing::RoutePreference kDefaultPreference = 1;
  const auto& route = op.route;
  Line line("route");
  line.addVrf(op.vrf).add("prefix", route.key);
  if (!op.present) return line.addPresent(false).end();
  line.add("type", Routing::routeTypeName(route.routeType));
  if (route.fecId != Tovan::Fib::invalidFecId) line.add("fec", route.fecId);
  if (route.metricPref.metric != 0) line.add("metric", route.metricPref.metric);
  if (route.metricPref.preference != kDefaultPreference) {
    line.add("preference", route.metricPref.preference);
  }
  return line.end();
}

template <class F>
std::string write(const SetVirtualIp<F>& op) {
  Line line("virtualIp");
  line.addVrf(op.vrf);
  if constexpr (std::is_same_v<F, Ipv4>) {
    line.add("addr", op.addr);
  } else {
    line.add("addr", op.addr.addr());
  }
  return line.addPresent(op.present).end();
}

std::string write(const SetInitialized& op) {
  return Line("initialized").addVrf(op.vrf).add("value", op.value).end();
}

std::string write(const SetRibReady& op) {
  return Line("ribReady").addVrf(op.vrf).add("value", op.value).end() +
         Line("startRibReadyVerification").addVrf(op.vrf).add("value", op.value).end();
}

}  // namespace

std::string linesOf(const Operation& operation) {
  return std::visit([](const auto& op) { return write(op); }, operation);
}

std::string timeLine(std::chrono::microseconds sinceEpoch) {
  return Line("time").add("at", timeText(sinceEpoch)).end();
}

}  // namespace Replay
