// Sets of interfaces.
#pragma once

#include <algorithm>
#include <vector>

#include "platform/kiv/containers/Ptr.h"
#include "platform/zemit/IntfId.h"

namespace Obu {

/// A set of interfaces, such as the outgoing interfaces of a FEC. Iterates in the order of the
/// interface ids.
class IntfDir final : public Kiv::Object {
 public:
  using Ptr = Kiv::Ptr<IntfDir>;
  using PtrConst = Kiv::Ptr<const IntfDir>;

  /// A new, empty set.
  static Ptr IntfDirIs() { return Kiv::make<IntfDir>(); }

  /// Adds an interface.
  void intfNameIs(const Kiv::String8& name) { intfIs(Zemit::IntfId::of(name)); }
  void intfIs(Zemit::IntfId intf) {
    const auto at = std::lower_bound(intfs_.begin(), intfs_.end(), intf);
    if (at == intfs_.end() || *at != intf) intfs_.insert(at, intf);
  }
  bool intfName(const Kiv::String8& name) const {
    const auto known = Zemit::IntfId::find(name);
    return known && contains(*known);
  }
  bool contains(Zemit::IntfId intf) const {
    return std::binary_search(intfs_.begin(), intfs_.end(), intf);
  }
  size_t count() const noexcept { return intfs_.size(); }
  auto begin() const noexcept { return intfs_.begin(); }
  auto end() const noexcept { return intfs_.end(); }

 private:
  std::vector<Zemit::IntfId> intfs_;
};

}  // namespace Obu
