// The entries of the FIB tables: routes, and the FECs with vias that routes refer to.
#pragma once

#include <compare>
#include <cstdint>
#include <initializer_list>
#include <ostream>

#include "platform/kiv/containers/Exception.h"
#include "platform/kiv/containers/SmallVector.h"
#include "platform/routing/MetricPref.h"
#include "platform/routing/RouteTypes.h"
#include "platform/zemit/IntfId.h"
#include "platform/zemit/Prefix.h"

namespace Tovan {

namespace Fib {

/// The id of a forwarding equivalence class, in either family.
using FecId = uint64_t;
/// "No FEC".
inline constexpr FecId invalidFecId = 0;

/// The place of a via in its FEC.
class ViaIndex {
 public:
  static constexpr uint32_t min = 0;
  static constexpr uint32_t max = 127;

  /// \throws Kiv::RangeException when `value` is over `max`.
  constexpr explicit ViaIndex(uint32_t value) : value_(value) {
    KIV_REQUIRE(value <= max, "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed");
  }
  constexpr uint32_t value() const { return value_; }

 private:
  uint32_t value_;
};

}  // namespace Fib

/// A route of the FIB. A look-up that finds no route returns a route with another key than the
/// requested one.
template <class P, class Type>
struct BasicRoute {
  static constexpr size_t kMaxText = P::kMaxText + Routing::MetricPref::kMaxText + 42;

  P key{};
  Routing::MetricPref metricPref{};
  Type routeType = Type{};
  Fib::FecId fecId = Fib::invalidFecId;

  /// Writes "10.0.0.5/32 attached_ metric 0 preference 1 fec 0x1f".
  char* write(char* out) const {
    using namespace Zemit::detail;
    out = writeText(writeText(key.write(out), " "), Routing::routeTypeName(routeType));
    out = metricPref.write(writeText(out, " "));
    return writeHex(writeText(out, " fec 0x"), fecId);
  }

  friend constexpr auto operator<=>(const BasicRoute&, const BasicRoute&) = default;
};

template <class P, class Type>
std::ostream& operator<<(std::ostream& os, const BasicRoute<P, Type>& route) {
  return Zemit::print(os, route);
}

/// One next hop: the router to send to and the interface to it. The zero address says that the
/// destination itself is reached there.
template <class A>
struct BasicVia {
  A hop{};
  Zemit::IntfId intf{};

  uint32_t hash() const { return hop.hashWith(intf.value()); }

  friend constexpr auto operator<=>(const BasicVia&, const BasicVia&) = default;
};

/// Prints the interface and the hop: "Ethernet1 0.0.0.0".
template <class A>
std::ostream& operator<<(std::ostream& os, const BasicVia<A>& via) {
  return os << via.intf << ' ' << via.hop;
}

/// A forwarding equivalence class: the next hops over which its routes share their traffic. The
/// default value says that there is no such FEC.
template <class V>
class BasicFec {
 public:
  BasicFec() = default;
  explicit BasicFec(Fib::FecId id, std::initializer_list<V> vias = {}) : id_(id) {
    for (const V& via : vias) newVia(via);
  }

  Fib::FecId id() const noexcept { return id_; }
  /// The number of vias. May be over ViaIndex::max: not all of them can then be read.
  size_t viaCount() const noexcept { return vias_.size(); }
  /// The via at `index`, which must be below viaCount().
  const V& via(Fib::ViaIndex index) const noexcept { return vias_[index.value()]; }
  /// All vias, also those beyond ViaIndex::max.
  const V* begin() const noexcept { return vias_.begin(); }
  const V* end() const noexcept { return vias_.end(); }
  /// Adds a via at the end.
  void newVia(const V& via) { vias_.insert(vias_.end(), via); }

  friend bool operator==(const BasicFec&, const BasicFec&) = default;

 private:
  Fib::FecId id_ = Fib::invalidFecId;
  Kiv::SmallVector<V> vias_;
};

namespace Fib {
using Route = BasicRoute<Zemit::Prefix, Routing::Fib::RouteType>;
using Via = BasicVia<Zemit::IpAddr>;
using Fec = BasicFec<Via>;
}  // namespace Fib

namespace Fib6 {
using Route = BasicRoute<Zemit::Ip6Prefix, Routing6::Fib::RouteType>;
using Via = BasicVia<Zemit::Ip6Addr>;
using Fec = BasicFec<Via>;
}  // namespace Fib6

static_assert(sizeof(Fib::Route) == 32 && sizeof(Fib6::Route) == 40, "tables of a million");

}  // namespace Tovan
