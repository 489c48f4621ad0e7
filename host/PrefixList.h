// The prefixes that resolve through one FEC.
#pragma once

#include <string>

#include "platform/kiv/containers/Export.h"
#include "platform/kiv/runtime/Attributes.h"
#include "platform/tovan/FibTypes.h"
#include "platform/zemit/Prefix.h"

namespace Routing::Host {

/// The IPv4 prefixes to process again when one FEC changes.
class KIV_EXPORT PrefixList final : public Kiv::Entity {
 public:
  using Ptr = Kiv::Ptr<PrefixList>;
  using PtrConst = Kiv::Ptr<const PrefixList>;

  KIV_REFLECTED(PrefixList);

  /// Derive from this to be told of changes. A callback runs after the change it reports.
  class NotifieeConst : public Kiv::NotifieeOf<PrefixList> {
   public:
    virtual void onPrefix(const Zemit::Prefix&) {}
    virtual void onPrefixkivImmediate() {}

   protected:
    void kivImmediate() override { onPrefixkivImmediate(); }
  };

  explicit PrefixList(Tovan::Fib::FecId fecId) : fecId_(fecId) {}
  /// A new, empty list.
  static Ptr PrefixListIs(Tovan::Fib::FecId fecId) { return Kiv::make<PrefixList>(fecId); }

  /// The FEC: the list's key.
  Tovan::Fib::FecId fecId() const noexcept { return fecId_; }
  Kiv::Name name() const override { return Kiv::Name(std::to_string(fecId_)); }

  /// The prefixes.
  KIV_SET(258, prefix, Prefix, Zemit::Prefix)

 private:
  Tovan::Fib::FecId fecId_;
};

}  // namespace Routing::Host
