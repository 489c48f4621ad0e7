// The keys of first-hop redundancy: a VRF and a virtual address in it.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <ostream>
#include <utility>

#include "platform/kiv/containers/Hash.h"
#include "platform/l3/VrfName.h"
#include "platform/zemit/AnyAddrWithMask.h"

namespace Routing::Fhrp {

/// A VRF and an address in it.
template <class Address>
class BasicVrfPair {
 public:
  BasicVrfPair() = default;
  BasicVrfPair(L3::VrfName vrfName, const Address& address)
      : vrfName_(std::move(vrfName)), address_(address) {}

  const L3::VrfName& vrfName() const noexcept { return vrfName_; }
  uint32_t hash() const { return Kiv::hashWords(vrfName_.hash(), address_.hash()); }

  friend bool operator==(const BasicVrfPair&, const BasicVrfPair&) = default;
  friend auto operator<=>(const BasicVrfPair&, const BasicVrfPair&) = default;
  /// Prints the VRF and the address: "default 10.0.0.1/24".
  friend std::ostream& operator<<(std::ostream& os, const BasicVrfPair& pair) {
    return os << pair.vrfName_ << ' ' << pair.address_;
  }

 protected:
  const Address& address() const noexcept { return address_; }

 private:
  L3::VrfName vrfName_;
  Address address_;
};

/// A virtual address of either family with its mask, in a VRF.
class VrfIpWithMaskPair : public BasicVrfPair<Zemit::AnyAddrWithMask> {
 public:
  using BasicVrfPair::BasicVrfPair;

  const Zemit::AnyAddrWithMask& ipWithMask() const noexcept { return address(); }
  /// The IPv4 virtual address; nothing for an IPv6 address.
  std::optional<Zemit::IpAddr> v4Addr() const { return address().v4Addr(); }
};

/// An IPv6 virtual address in a VRF.
class VrfIpPair : public BasicVrfPair<Zemit::Ip6Addr> {
 public:
  using BasicVrfPair::BasicVrfPair;

  const Zemit::Ip6Addr& vrfIp() const noexcept { return address(); }
};

}  // namespace Routing::Fhrp
