// The common part of the reflective interfaces to the IPv4 and IPv6 roots.
#pragma once

#include <utility>

#include "platform/kiv/reflection/GenericIf.h"

namespace Reflection {

/// A notifiee of a root that passes each notification on to an observer. It holds no reference to
/// the root.
template <class Root>
class RootAdapter : public Root::NotifieeConst {
 public:
  /// \param observer  must outlive the adapter.
  explicit RootAdapter(Kiv::GenericObserver& observer)
      : Root::NotifieeConst(Kiv::Notifiee::Hold::kWeak), observer_(&observer) {}

  void onNotificationException(Kiv::AttributeId id) noexcept override {
    if (observer_ != nullptr) observer_->onNotificationException(id);
  }
  void onZeroReferences() noexcept override {
    if (observer_ != nullptr) observer_->onZeroReferences();
  }
  /// Removes the observer. It gets no more notifications, even while a walk over the root is in
  /// progress.
  void retire() override {
    observer_ = nullptr;
    Root::NotifieeConst::retire();
  }

 protected:
  template <class Attribute>
  void tell() {
    if (observer_ != nullptr) observer_->onAttribute(Attribute::kInfo.id, {});
  }
  template <class Attribute, class Key>
  void tell(const Key& key) {
    if (observer_ != nullptr) {
      observer_->onAttribute(Attribute::kInfo.id, Kiv::GenericValue::of(key));
    }
  }

 private:
  Kiv::GenericObserver* observer_;
};

/// The interface to a root, with an optional observer.
template <class Root>
class RootInterface : public Kiv::GenericIfOf<Root> {
 public:
  using Kiv::GenericIfOf<Root>::GenericIfOf;
  /// A second interface to the same root, without an observer.
  RootInterface(const RootInterface& other) : Kiv::GenericIfOf<Root>(other) {}
  RootInterface& operator=(const RootInterface&) = delete;
  ~RootInterface() override {
    if (adapter_) adapter_->retire();
  }

  void observerIs(Kiv::GenericObserver* observer) override {
    if (const auto former = std::exchange(adapter_, nullptr)) former->retire();
    if (observer == nullptr) return;
    const auto adapter = Kiv::make<typename Root::GenericIf_::GenericIf_Adapter_>(*observer);
    // Stored before the first notifications: during these the observer may remove itself, set
    // another observer, or release this interface.
    adapter_ = adapter;
    try {
      adapter->notifierIs(Kiv::Ptr<const Root>(static_cast<const Root*>(this->entity().get())));
    } catch (...) {
      adapter->retire();
      throw;
    }
  }

 private:
  Kiv::Ptr<RootAdapter<Root>> adapter_;
};

}  // namespace Reflection
