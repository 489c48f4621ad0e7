// The records of a state machine for its operators: counts, a history, its own trace levels.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "platform/kiv/containers/SmallVector.h"
#include "platform/kiv/runtime/Clock.h"
#include "platform/tovan/FibTypes.h"
#include "platform/zemit/IntfId.h"

namespace HostCore {

/// The kind of an event that reached a machine.
enum class CauseKind : uint8_t {
  Unknown,          ///< a direct call of a handler, or a write by other code
  NeighborLearned,  ///< a neighbour was announced; for a history: one that had no host route
  NeighborChanged,  ///< a neighbour that had a host route was announced
  NeighborLost,     ///< a neighbour was removed
  NeighborTable,    ///< an interface's neighbour table was added, or removed with its neighbours
  Route,            ///< a FIB route was announced
  Fec,              ///< a FEC changed
  Address,          ///< an address of an interface changed
  Interface,        ///< an interface joined or left the VRF
  VirtualIp,        ///< a virtual address of a first-hop redundancy group changed
  Initialization,   ///< the VRF was initialized, or is not initialized any more
  RibReady,         ///< the RIB is ready, or readiness is to be verified
  Settling,         ///< a neighbour was announced again after a change of a route or a FEC
};
inline constexpr size_t kCauseKinds = 13;

/// Why a neighbour gets no host route under the FIB route that covers its address.
enum class Lack : uint8_t {
  None,
  RouteStatus,  ///< the machine has no route table
  HostStatus,   ///< the machine has no host-route status
  Table,        ///< there is no neighbour table
  Cover,        ///< no FIB route covers the address
  Record,       ///< the covering prefix has no route any more
  Fec,          ///< the covering route has no FEC
  Interface,    ///< the FEC does not leave through the neighbour's interface
  DirectVia,    ///< the FEC has only vias with a gateway on that interface
  Skipped,      ///< the interface is a management port
};
inline constexpr size_t kLacks = 10;

#ifdef HOSTROUTE_WITHOUT_COUNTERS
/// Counts nothing, so that a benchmark can measure the cost of counting.
struct Count {
  constexpr Count() = default;
  constexpr Count(uint64_t) {}
  constexpr operator uint64_t() const { return 0; }
  constexpr Count& operator++() { return *this; }
  constexpr Count& operator--() { return *this; }
};
inline constexpr bool kCounts = false;
#else
using Count = uint64_t;
inline constexpr bool kCounts = true;
#endif

/// A machine's counters, since it was made.
struct Counts {
  std::array<Count, kCauseKinds> events{};  ///< by CauseKind
  std::array<Count, kLacks> refused{};      ///< by Lack: neighbours that were looked up
  Count repairs = 0;                        ///< neighbours that were filed under a FIB route
  Count merges = 0;                         ///< addresses that were merged
  Count exceptions = 0;                     ///< callbacks that ended with an exception
  /// The host routes that the machine has in the route table now, by type.
  std::array<Count, 32> hostRoutes{};
};

/// An event with its subject. A field that is not part of the subject is null.
template <class P>
struct Cause {
  CauseKind kind = CauseKind::Unknown;
  Zemit::IntfId intf = {};
  P prefix = P::null();
  Tovan::Fib::FecId fec = Tovan::Fib::invalidFecId;
};

/// One change of a host route in the route table.
template <class R, class Via>
struct RouteChange {
  enum class Kind : uint8_t { Added, Changed, Removed };

  double time = 0;  ///< of the event, by Kiv::now()
  Kind kind = Kind::Added;
  R route = {};  ///< the new route; of a removal, the old one
  Kiv::SmallVector<Via> vias = {};
  Cause<decltype(R::key)> cause = {};
};

/// The last changes of a machine's host routes, in preallocated memory.
template <class R, class Via>
class RouteLog {
 public:
  using Change = RouteChange<R, Via>;
  using Prefix = decltype(R::key);
  using Observer = std::function<void(const Change&)>;

  /// \param capacity  how many changes are kept; may be 0.
  explicit RouteLog(size_t capacity) { changes_.resize(capacity); }

  size_t capacity() const noexcept { return changes_.size(); }
  /// Calls `observer` with each change; an empty function ends the calls.
  void observerIs(Observer observer) { observer_ = std::move(observer); }

  /// An event begins. No other event has caused it.
  void eventBegins(const Cause<Prefix>& cause) {
    cause_ = cause;
    time_.reset();
  }
  void eventEnds() { eventBegins({}); }
  void add(typename Change::Kind kind, const R& route, Kiv::SmallVector<Via> vias) {
    if (!time_) time_ = Kiv::now();
    Change change{
        .time = *time_, .kind = kind, .route = route, .vias = std::move(vias), .cause = cause_};
    if (cause_.kind == CauseKind::Unknown) time_.reset();  // its end is not reported
    if (observer_) observer_(change);
    if (changes_.empty()) return;
    changes_[next_] = std::move(change);
    next_ = next_ + 1 == changes_.size() ? 0 : next_ + 1;
    if (count_ < changes_.size()) ++count_;
  }

  /// Calls `visit` with each change that is kept, the oldest first.
  template <class Visit>
  void forEach(Visit visit) const {
    for (size_t i = 0; i < count_; ++i) {
      visit(changes_[(next_ + changes_.size() - count_ + i) % changes_.size()]);
    }
  }

 private:
  Observer observer_;
  std::vector<Change> changes_;
  size_t next_ = 0;
  size_t count_ = 0;
  Cause<Prefix> cause_;
  std::optional<double> time_;  // of the current event, once it was read
};

/// A machine's records for its operators. No table depends on them.
template <class R, class Fec>
struct Account {
  using Prefix = decltype(R::key);
  using Addr = typename Prefix::Addr;
  using Via = std::remove_cvref_t<decltype(*std::declval<const Fec&>().begin())>;
  using Log = RouteLog<R, Via>;

  /// The trace levels of this machine, in addition to those that are on for all.
  struct Tracing {
    uint32_t levels = 0;       ///< as bits
    uint32_t now = 0;          ///< the levels for the address that is being handled, as bits
    bool isOff = false;        ///< the only traced address is of the other family
    std::optional<Addr> only;  ///< the only address that is traced
  };

  Counts counts;
  uint32_t events = 0;  ///< the number of nested events
  Tracing tracing;
  /// A flag of the daemon, true while it announces neighbours again; or null.
  const bool* isSettling = nullptr;
  std::unique_ptr<Log> log;  ///< null without a history
};

}  // namespace HostCore
