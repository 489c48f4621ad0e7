#include "platform/kiv/Notifiee.h"

#include <algorithm>

#include "platform/kiv/Activity.h"
#include "platform/kiv/Entity.h"

namespace Kiv {

Notifiee::~Notifiee() {
  if (activity_) activity_->cancel(*this);
  leaveNotifier();
}

void Notifiee::isRegisteredNotifieeIs(bool registered) {
  if (registered == registered_ || notifier_ == nullptr) return;
  registered_ = registered;
  if (registered) {
    notifier_->notifierList().add(*this);
  } else {
    notifier_->notifierList().remove(*this);
  }
}

void Notifiee::kivFwkActivityIs(const Ptr<ActivityConfig>& activity) {
  if (activity == activity_) return;
  if (activity_) activity_->cancel(*this);
  activity_ = activity;
}

void Notifiee::handleNotification(ActivityConfig& config) {
  config.deliverCurrent(*this);
}

void Notifiee::notifierEntityIs(const Entity* notifier) {
  if (notifier == notifier_) return;
  leaveNotifier();
  notifier_ = notifier;
  if (notifier_ == nullptr) return;
  if (hold_ == Hold::kStrong) notifier_->retain();
  isRegisteredNotifieeIs(true);
  kivImmediate();
}

void Notifiee::notifierIsGone() noexcept {
  registered_ = false;
  notifier_ = nullptr;
}

void Notifiee::leaveNotifier() noexcept {
  if (notifier_ == nullptr) return;
  isRegisteredNotifieeIs(false);
  const Entity* left = std::exchange(notifier_, nullptr);
  if (hold_ == Hold::kStrong) left->release();
}

void NotifierList::add(Notifiee& notifiee) {
  slots_.push_back(&notifiee);
  ++count_;
}

void NotifierList::remove(Notifiee& notifiee) noexcept {
  const auto slot = std::find(slots_.begin(), slots_.end(), &notifiee);
  if (slot == slots_.end()) return;
  --count_;
  if (walks_ == 0) {
    slots_.erase(slot);
  } else {
    *slot = nullptr;
  }
}

void NotifierList::ownerIsGone() noexcept {
  for (Notifiee*& notifiee : slots_) {
    if (notifiee != nullptr) notifiee->notifierIsGone();
    notifiee = nullptr;
  }
  count_ = 0;
  orphaned_ = true;
  if (walks_ == 0) delete this;
}

void NotifierList::endWalk() noexcept {
  if (--walks_ != 0) return;
  if (orphaned_) {
    delete this;
  } else if (count_ != slots_.size()) {
    std::erase(slots_, nullptr);
  }
}

}  // namespace Kiv
