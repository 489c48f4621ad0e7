// The scope of a handler: where the short cuts may rely on the merge at its end.
#pragma once

#include <exception>
#include <utility>

#include "hostcore/Family.h"
#include "hostcore/fast/Relevance.h"
#include "hostcore/fast/Trust.h"

namespace HostCore {

/// The scope of a handler. A handler merges all that it changes, unless an exception ends it.
template <Family F>
class HandlerScope {
 public:
  explicit HandlerScope(typename F::RouteSm& sm) : sm_(sm) { ++sm_.fast().handlers; }
  /// The handler of a FIB route, which was announced.
  HandlerScope(typename F::RouteSm& sm, const typename F::Prefix& prefix) : HandlerScope(sm) {
    ++sm_.fast().coverVersion;
    const bool isRead = std::exchange(sm_.fast().routeIsRead, false);
    if (!sm_.initialized()) return;
    Trust<F>(sm_).routeHandedOver(isRead);
    Relevance<F>(sm_).routeAnnounced(prefix);
  }
  /// The handler of a FEC, which was announced.
  HandlerScope(typename F::RouteSm& sm, Tovan::Fib::FecId fecId) : HandlerScope(sm) {
    Relevance<F>(sm_).fecChanged(fecId);
  }
  HandlerScope(const HandlerScope&) = delete;
  HandlerScope& operator=(const HandlerScope&) = delete;
  ~HandlerScope() {
    --sm_.fast().handlers;
    if (std::uncaught_exceptions() != 0) Trust<F>(sm_).handlerFailed();
  }

 private:
  typename F::RouteSm& sm_;
};

}  // namespace HostCore
