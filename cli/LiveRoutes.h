// Reads the route tables that another process keeps in shared memory.
#pragma once

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "daemon/Family.h"
#include "platform/tovan/RouteTableReader.h"
#include "replay/ShownRoute.h"

namespace Cli {

/// Called with each damage in a table.
using DamageReport = std::function<void(const std::string&)>;

/// One route table with the FECs of its routes.
template <class F>
class LiveRoutes {
 public:
  using Reader =
      Tovan::BasicRouteTableReader<typename F::RouteStatus, typename F::ForwardingStatus>;
  using Shown = std::vector<Replay::ShownRoute<F>>;

  /// \throws Tovan::OpenException.
  LiveRoutes(const std::string& name, const std::string& vrf) : reader_(name, vrf) {}

  Tovan::RouteTableState state() const { return reader_.state(); }
  /// True when a process keeps the table up to date.
  bool isLive() const { return reader_.hasWriter(); }
  /// False when the table was removed, or replaced by a new one, after it was opened.
  bool isCurrent() const { return reader_.isCurrent(); }
  size_t size() const { return reader_.size(); }

  /// All routes, sorted by prefix. A damaged route is reported and left out. A route with a damaged
  /// FEC has no next hops.
  Shown all(const DamageReport& report) const {
    Shown shown;
    reader_.forEach([&](const auto& found) { shown.push_back(shownOf(found)); }, report);
    std::sort(shown.begin(), shown.end(),
              [](const auto& a, const auto& b) { return a.route.key < b.route.key; });
    return shown;
  }
  /// The route with this prefix and those around it, the longest prefix first.
  Shown covering(const typename F::Prefix& prefix, const DamageReport& report) const {
    Shown shown;
    const auto add = [&](const auto& found) {
      shown.push_back(shownOf(found));
      return true;
    };
    reader_.forEachAround(prefix, add, report);
    return shown;
  }

 private:
  static Replay::ShownRoute<F> shownOf(const typename Reader::Resolved& found) {
    return {found.route, Replay::sorted<F>({found.fec.begin(), found.fec.end()})};
  }

  Reader reader_;
};

}  // namespace Cli
