// The instantiations of the tables of both families.
#include "platform/tovan/ForwardingStatus.h"
#include "platform/tovan/RouteStatus.h"

namespace Tovan {

template class TovanMap<Zemit::Prefix, RouteRecord<Fib::Route>>;
template class TovanMap<Zemit::Ip6Prefix, RouteRecord<Fib6::Route>>;
template class BasicRouteStatus<Fib::Route>;
template class BasicRouteStatus<Fib6::Route>;

template class TovanMap<Fib::FecId, Fib::ForwardingStatus::Record>;
template class TovanMap<Fib::FecId, Fib6::ForwardingStatus::Record>;
template class TovanMap<Fib::ForwardingStatus::ViaKey, Fib::ForwardingStatus::RawVia>;
template class TovanMap<Fib6::ForwardingStatus::ViaKey, Fib6::ForwardingStatus::RawVia>;
template class BasicForwardingStatus<Zemit::IpAddr>;
template class BasicForwardingStatus<Zemit::Ip6Addr>;

}  // namespace Tovan
