#include "platform/rovel/AdjacencyHelper.h"

namespace Rovel {

template class AdjacencyTable<ViaSet>;
template class AdjacencyTable<Via6Set>;
template class BasicAdjacencyHelper<Routing::Host::Status, Tovan::Fib::ForwardingStatus>;
template class BasicAdjacencyHelper<Routing6::Host::Status, Tovan::Fib6::ForwardingStatus>;

}  // namespace Rovel
