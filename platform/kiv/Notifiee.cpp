#include "platform/kiv/Notifiee.h"

#include <algorithm>

#include "platform/kiv/Activity.h"
#include "platform/kiv/Entity.h"

namespace Kiv {

Notifiee::~Notifiee() {
  for (auto* walk = walk_; walk != nullptr; walk = walk->outer_) walk->current_ = nullptr;
  notifierEntityIs(nullptr);
}

void Notifiee::isRegisteredNotifieeIs(bool registered) {
  if (registered == registered_ || notifier_ == nullptr) return;
  registered_ = registered;
  if (registered) {
    notifier_->notifierList().add(*this);
  } else {
    notifier_->notifierList().remove(*this);
    if (activity_) activity_->withdraw(*this);
    if (hold_ == Hold::kWeak) notifier_ = nullptr;
  }
}

void Notifiee::kivFwkActivityIs(const Ptr<ActivityConfig>& activity) {
  if (activity == activity_) return;
  const auto former = std::exchange(activity_, activity);
  if (!former) return;
  auto waiting = former->withdraw(*this);
  if (waiting.empty()) return;
  const Ptr<Notifiee> alive(this);
  const auto next = activity_ ? activity_ : make<ActivityConfig>();
  for (auto& notification : waiting) next->enqueue(std::move(notification));
}

void Notifiee::handleNotification(ActivityConfig& config) {
  config.deliverCurrent(*this);
}

void Notifiee::notifierEntityIs(const Entity* notifier) {
  if (notifier == notifier_) return;
  const bool holds = hold_ == Hold::kStrong;
  // Let go of last: the old notifier may be all that holds the new one.
  const auto former = holds ? Ptr<const Entity>::adopt(notifier_) : nullptr;
  isRegisteredNotifieeIs(false);
  notifier_ = notifier;
  if (notifier == nullptr) return;
  if (holds) notifier->retain();
  isRegisteredNotifieeIs(true);
  if (acceptsNotifications()) kivImmediate();
}

void Notifiee::notifierIsGone() noexcept {
  registered_ = false;
  notifier_ = nullptr;
  if (activity_) activity_->withdraw(*this);
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
