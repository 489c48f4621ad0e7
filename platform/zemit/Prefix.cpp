#include "platform/zemit/Prefix.h"

#include "platform/kiv/containers/Exception.h"

namespace Zemit {

template <>
void Prefix::refuse() {
  throw Kiv::RangeException("Prefix::validAsPrefix != true not allowed");
}
template <>
void Ip6Prefix::refuse() {
  throw Kiv::RangeException("Ip6Prefix::validAsPrefix != true not allowed");
}

}  // namespace Zemit
