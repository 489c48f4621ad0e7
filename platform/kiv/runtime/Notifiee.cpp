#include "platform/kiv/runtime/Notifiee.h"

#include <algorithm>
#include <iterator>
#include <memory>

#include "platform/kiv/runtime/Activity.h"
#include "platform/kiv/runtime/Entity.h"
#include "platform/kiv/runtime/Trace.h"

namespace Kiv {

namespace {

/// Shared, so that a hook may put another in its place.
std::shared_ptr<const Notifiee::AttributeHook>& attributeHook() {
  static std::shared_ptr<const Notifiee::AttributeHook> hook;
  return hook;
}

}  // namespace

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

void Notifiee::isQuietIs(bool quiet) {
  if (quiet == quiet_) return;
  quiet_ = quiet;
  if (registered_) notifier_->notifierList().quietChanged(*this);
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

bool Notifiee::kivOnAttribute(AttributeId id, const void* value) {
  const auto hook = attributeHook();
  return hook != nullptr && (*hook)(*this, id, value);
}

void Notifiee::attributeHookIs(AttributeHook hook) {
  attributeHook() = hook ? std::make_shared<const AttributeHook>(std::move(hook)) : nullptr;
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
  notifiee.slot_ = static_cast<uint32_t>(slots_.size());
  slots_.push_back(&notifiee);
  ++count_;
  quiet_ += notifiee.isQuiet() ? 1 : 0;
  alertIsStale_ = true;
}

void NotifierList::remove(Notifiee& notifiee) noexcept {
  if (notifiee.slot_ >= slots_.size() || slots_[notifiee.slot_] != &notifiee) return;
  slots_[notifiee.slot_] = nullptr;
  --count_;
  quiet_ -= notifiee.isQuiet() ? 1 : 0;
  alertIsStale_ = true;
  if (walks_ != 0) {
    std::replace(alert_.begin(), alert_.end(), &notifiee, static_cast<Notifiee*>(nullptr));
  } else if (count_ <= slots_.size() / 2) {
    closeGaps();
  }
}

void NotifierList::closeGaps() noexcept {
  std::erase(slots_, nullptr);
  for (uint32_t slot = 0; slot < slots_.size(); ++slot) slots_[slot]->slot_ = slot;
}

void NotifierList::quietChanged(Notifiee& notifiee) noexcept {
  quiet_ += notifiee.isQuiet() ? 1 : size_t{0} - 1;
  if (walks_ != 0 && !notifiee.isQuiet()) wake(notifiee);
  alertIsStale_ = true;
}

/// Has the walks over alert_ that are under way come to `notifiee`, if it was there when they
/// began.
void NotifierList::wake(Notifiee& notifiee) noexcept {
  if (notifiee.slot_ >= judged_) return;
  if (std::find(alert_.begin(), alert_.end(), &notifiee) != alert_.end()) return;
  // There is room for all that were judged; without it no walk is over alert_.
  if (alert_.size() != alert_.capacity()) alert_.push_back(&notifiee);
}

const std::vector<Notifiee*>& NotifierList::toTell() {
  if (quiet_ == 0 || TraceFacility::anyBuilds()) return slots_;
  if (alertIsStale_) {
    // Another walk may be on the stale list. To tell a quiet one too is never wrong.
    if (walks_ != 0) return slots_;
    alert_.clear();
    alert_.reserve(slots_.size());
    judged_ = slots_.size();
    std::copy_if(
        slots_.begin(), slots_.end(), std::back_inserter(alert_),
        [](const Notifiee* notifiee) { return notifiee != nullptr && !notifiee->isQuiet(); });
    alertIsStale_ = false;
  }
  return alert_;
}

void NotifierList::ownerIsGone() noexcept {
  for (Notifiee*& notifiee : slots_) {
    if (notifiee != nullptr) notifiee->notifierIsGone();
    notifiee = nullptr;
  }
  std::fill(alert_.begin(), alert_.end(), nullptr);
  count_ = 0;
  orphaned_ = true;
  if (walks_ == 0) delete this;
}

void NotifierList::endWalk() noexcept {
  if (--walks_ != 0) return;
  if (orphaned_) {
    delete this;
  } else if (count_ != slots_.size()) {
    closeGaps();
  }
}

}  // namespace Kiv
