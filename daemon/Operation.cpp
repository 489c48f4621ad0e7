// The operations on a switch as values that can be applied, compared and recorded.
#include "daemon/Operation.h"

#include <type_traits>

namespace Daemon {
namespace {

void run(Switch& sw, const SetVrf& op) {
  sw.vrf(op.vrf);
}

void run(Switch& sw, const SetInterface& op) {
  if (op.present) {
    sw.setInterface(op.intf, op.vrf);
  } else {
    sw.removeInterface(op.intf);
  }
}

template <class F>
void run(Switch& sw, const SetAddress<F>& op) {
  if constexpr (std::is_same_v<F, Ipv4>) {
    sw.setAddress(op.intf, op.addr, op.secondary, op.present);
  } else {
    sw.setAddress(op.intf, op.addr, op.present);
  }
}

void run(Switch& sw, const SetNeighborTable& op) {
  sw.setNeighborTable(op.intf, op.present);
}

template <class F>
void run(Switch& sw, const SetNeighbor<F>& op) {
  sw.setNeighbor(op.intf, op.neighbor, op.present);
}

template <class F>
void run(Switch& sw, const SetFec<F>& op) {
  sw.setFec(op.fec, op.present);
}

template <class F>
void run(Switch& sw, const SetRoute<F>& op) {
  sw.setRoute(op.vrf, op.route, op.present);
}

template <class F>
void run(Switch& sw, const SetVirtualIp<F>& op) {
  const L3::VrfName vrf{Kiv::String(op.vrf)};
  if constexpr (std::is_same_v<F, Ipv4>) {
    sw.setVirtualIp(Routing::Fhrp::VrfIpWithMaskPair(vrf, op.addr), op.present);
  } else {
    sw.setVirtualIp(Routing::Fhrp::VrfIpPair(vrf, op.addr.addr()), op.present);
  }
}

void run(Switch& sw, const SetInitialized& op) {
  forEachFamily([&](auto family) { sw.setInitialized<decltype(family)>(op.vrf, op.value); });
}

void run(Switch& sw, const SetRibReady& op) {
  sw.setRibReady(op.vrf, op.value);
  sw.setStartRibReadyVerification(op.vrf, op.value);
}

}  // namespace

void apply(Switch& sw, const Operation& operation) {
  std::visit([&](const auto& op) { run(sw, op); }, operation);
}

}  // namespace Daemon
