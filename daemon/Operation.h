// The operations on a switch as values that can be applied, compared and recorded.
#pragma once

#include <string>
#include <variant>

#include "daemon/Switch.h"

namespace Daemon {

// Each operation stands for a call of the Switch method with its name. Its members are the
// arguments.

/// Creates a VRF.
struct SetVrf {
  std::string vrf;

  friend bool operator==(const SetVrf&, const SetVrf&) = default;
};

/// Puts an interface into a VRF, or removes it with its addresses.
struct SetInterface {
  Zemit::IntfId intf;
  std::string vrf;
  bool present = true;

  friend bool operator==(const SetInterface&, const SetInterface&) = default;
};

/// Sets or removes an address of an interface. Only an IPv4 address can be secondary.
template <class F>
struct SetAddress {
  Zemit::IntfId intf;
  typename F::AddrWithMask addr;
  bool secondary = false;
  bool present = true;

  friend bool operator==(const SetAddress&, const SetAddress&) = default;
};

/// Creates an interface's neighbour table, or removes it with its entries.
struct SetNeighborTable {
  Zemit::IntfId intf;
  bool present = true;

  friend bool operator==(const SetNeighborTable&, const SetNeighborTable&) = default;
};

/// Sets or removes a neighbour on an interface.
template <class F>
struct SetNeighbor {
  Zemit::IntfId intf;
  typename F::Neighbor neighbor;
  bool present = true;

  friend bool operator==(const SetNeighbor&, const SetNeighbor&) = default;
};

/// Sets or removes a FEC.
template <class F>
struct SetFec {
  typename F::Fec fec;
  bool present = true;

  friend bool operator==(const SetFec&, const SetFec&) = default;
};

/// Sets or removes a FIB route of a VRF.
template <class F>
struct SetRoute {
  std::string vrf;
  typename F::Route route;
  bool present = true;

  friend bool operator==(const SetRoute&, const SetRoute&) = default;
};

/// Sets or removes a virtual address. An IPv6 virtual address has no length; the length here is
/// 128.
template <class F>
struct SetVirtualIp {
  std::string vrf;
  typename F::AddrWithMask addr;
  bool present = true;

  friend bool operator==(const SetVirtualIp&, const SetVirtualIp&) = default;
};

/// Tells both machines of a VRF whether their inputs are complete.
struct SetInitialized {
  std::string vrf;
  bool value = true;

  friend bool operator==(const SetInitialized&, const SetInitialized&) = default;
};

/// Sets both flags of a VRF's readiness record: "RIB ready" and "start verification".
struct SetRibReady {
  std::string vrf;
  bool value = true;

  friend bool operator==(const SetRibReady&, const SetRibReady&) = default;
};

using Operation = std::variant<SetVrf, SetInterface, SetAddress<Ipv4>, SetAddress<Ipv6>,
                               SetNeighborTable, SetNeighbor<Ipv4>, SetNeighbor<Ipv6>, SetFec<Ipv4>,
                               SetFec<Ipv6>, SetRoute<Ipv4>, SetRoute<Ipv6>, SetVirtualIp<Ipv4>,
                               SetVirtualIp<Ipv6>, SetInitialized, SetRibReady>;

/// Applies `operation` to `sw`.
/// \throws the exceptions of the Switch method.
void apply(Switch& sw, const Operation& operation);

}  // namespace Daemon
