// What the reflective interfaces to the two halves' roots have in common.
#pragma once

#include <utility>

#include "platform/kiv/GenericIf.h"

namespace Reflection {

/// Told of the changes of a root by the ids of its attributes.
class RootObserver {
 public:
  virtual ~RootObserver() = default;

  /// An attribute changed. `key` is that of the entry; none where all of a collection may have
  /// changed, or where the attribute is no collection.
  virtual void onAttribute(Kiv::AttributeId id, const Kiv::GenericValue& key) = 0;
  /// onAttribute() has raised; the exception is std::current_exception().
  virtual void onNotificationException(Kiv::AttributeId id) = 0;
  /// The last handle to the root was dropped.
  virtual void onZeroReferences() = 0;
};

/// A notifiee of a root that hands everything on to an observer. It does not keep the root.
template <class Root>
class RootAdapter : public Root::NotifieeConst {
 public:
  /// \param observer  must outlive the adapter.
  explicit RootAdapter(RootObserver& observer)
      : Root::NotifieeConst(Kiv::Notifiee::Hold::kWeak), observer_(observer) {}

  void onNotificationException(Kiv::AttributeId id) noexcept override {
    observer_.onNotificationException(id);
  }
  void onZeroReferences() noexcept override { observer_.onZeroReferences(); }

 protected:
  template <class Attribute>
  void tell() {
    observer_.onAttribute(Attribute::kInfo.id, {});
  }
  template <class Attribute, class Key>
  void tell(const Key& key) {
    observer_.onAttribute(Attribute::kInfo.id, Kiv::GenericValue::of(key));
  }

 private:
  RootObserver& observer_;
};

/// The interface to a root, with an observer if one is set.
template <class Root>
class RootInterface : public Kiv::GenericIfOf<Root> {
 public:
  using Kiv::GenericIfOf<Root>::GenericIfOf;
  /// A second interface to the same root, without an observer.
  RootInterface(const RootInterface& other) : Kiv::GenericIfOf<Root>(other) {}

  /// Tells `observer` of changes from now on, in place of another; null: nobody. It is told of all
  /// collections at once, and must outlive this interface or be taken back.
  void observerIs(RootObserver* observer) {
    adapter_ = nullptr;
    if (observer == nullptr) return;
    adapter_ = Kiv::make<typename Root::GenericIf_::GenericIf_Adapter_>(*observer);
    adapter_->notifierIs(Kiv::Ptr<const Root>(static_cast<const Root*>(this->entity().get())));
  }

 private:
  Kiv::Ptr<RootAdapter<Root>> adapter_;
};

}  // namespace Reflection
