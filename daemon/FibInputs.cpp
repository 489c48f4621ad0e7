// A copy of the FIB's routes and FECs in a switch's tables.
#include "daemon/FibInputs.h"

#include "platform/tovan/Exceptions.h"

namespace Daemon {
namespace {

/// Calls `read`, and reports the damage that ends it.
template <class Table, class Read>
void reading(const Table& table, Read read) {
  try {
    read();
  } catch (const Tovan::CorruptionDetectedException& damage) {
    table.corruptionDetected(damage.what());
  }
}

}  // namespace

FibInputs::FibInputs(const Switch& sw) {
  forEachFamily([&](auto family) {
    using F = decltype(family);
    auto& inputs = std::get<Inputs<F>>(inputs_);
    const auto& forwarding = *sw.shared<F>().forwarding;
    reading(forwarding, [&] {
      for (auto fec = forwarding.fecIterator(); fec; ++fec) inputs.fecs.push_back(fec.value());
    });
    for (const auto& named : sw.vrfs()) {
      auto& routes = inputs.routes[named.first];
      const auto& table = *named.second.template routing<F>().routeStatus;
      reading(table, [&] {
        table.forEachRoute([&](const typename F::Route& route) {
          if (route.key.len() != F::Prefix::kMaxLen) routes.push_back(route);
        });
      });
    }
  });
}

void FibInputs::restore(Switch& sw) const {
  forEachFamily([&](auto family) {
    using F = decltype(family);
    const auto& inputs = std::get<Inputs<F>>(inputs_);
    for (const auto& fec : inputs.fecs) {
      if (sw.shared<F>().forwarding->fec(fec.id()) != fec) sw.setFec(fec);
    }
    for (const auto& named : inputs.routes) {
      const auto& table = *sw.vrf(named.first).template routing<F>().routeStatus;
      for (const auto& route : named.second) {
        if (table.route(route.key) != route) sw.setRoute(named.first, route);
      }
    }
  });
}

}  // namespace Daemon
