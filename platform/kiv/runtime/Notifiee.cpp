#include "platform/kiv/runtime/Notifiee.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>

#include "platform/kiv/runtime/Activity.h"
#include "platform/kiv/runtime/Entity.h"
#include "platform/kiv/runtime/Trace.h"

namespace Kiv {

namespace {

/// Shared, so that a hook may replace itself while it runs.
std::shared_ptr<const Notifiee::AttributeHook>& attributeHook() {
  static std::shared_ptr<const Notifiee::AttributeHook> hook;
  return hook;
}

std::atomic<uint64_t> lastTimeGiven = 0;

}  // namespace

constinit std::atomic<size_t> NotifierHook::optionalNeeded_ = 0;
constinit std::atomic<uint64_t> NotifierHook::version_ = 0;

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

bool Notifiee::hasAttributeHook() noexcept {
  return attributeHook() != nullptr;
}

uint64_t Notifiee::now() noexcept {
  return ++lastTimeGiven;
}

uint64_t Notifiee::lastTime() noexcept {
  return lastTimeGiven;
}

void Notifiee::wakeOnce() {
  if (!quiet_ || isAwake_ || !registered_) return;
  isAwake_ = true;
  notifier_->notifierList().awakeChanged(*this);
}

void Notifiee::notifierEntityIs(const Entity* notifier) {
  if (notifier == notifier_) return;
  const bool holds = hold_ == Hold::kStrong;
  // Dropped at the end: the former notifier may have the last handle to the new one.
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
  // NOLINTNEXTLINE(modernize-loop-convert): a hook may add another one, which moves the list
  for (size_t i = 0; i < hooks_.size(); ++i) {
    const auto hook = hooks_[i].hook;
    hook->beforeRegistering(*owner_);
  }
  const bool isLate = std::exchange(notifiee.isLate_, false);
  size_t at = slots_.size();
  if (isLate) {
    const auto follows = [&](const Notifiee* other) {
      return other == nullptr || notifiee.rank_ < other->rank_;
    };
    while (at != 0 && follows(slots_[at - 1])) --at;
  } else {
    notifiee.rank_ = {Notifiee::now(), 0};
  }
  // First, because a surplus entry is harmless if the next line fails.
  passedSlots_.insert(passedSlots_.end(), 0);
  slots_.insert(slots_.begin() + at, &notifiee);
  numberSlots(at);
  notifiee.toldIn_ = 0;
  ++count_;
  quiet_ += notifiee.isQuiet() ? 1U : 0U;
  if (!isLate) return;
  for (auto* walk = walk_; walk != nullptr; walk = walk->outerWalk_) {
    const bool isOlder = notifiee.rank_.time <= walk->began_;
    if (at > walk->end_ || (at == walk->end_ && !isOlder)) continue;
    ++walk->end_;
    if (at >= walk->at_) continue;
    ++walk->at_;
    if (isOlder && !notifiee.isQuiet()) walk->tellAfterwards(notifiee);
  }
}

void NotifierList::remove(Notifiee& notifiee) noexcept {
  if (notifiee.slot_ >= slots_.size() || slots_[notifiee.slot_] != &notifiee) return;
  slots_[notifiee.slot_] = nullptr;
  passedSlots_[notifiee.slot_] = 1;
  notifiee.isAwake_ = false;
  --count_;
  quiet_ -= notifiee.isQuiet() ? 1U : 0U;
  for (auto* walk = walk_; walk != nullptr; walk = walk->outerWalk_) {
    std::replace(walk->woken_.begin(), walk->woken_.end(), &notifiee,
                 static_cast<Notifiee*>(nullptr));
  }
  if (walk_ == nullptr && count_ <= slots_.size() / 2) closeGaps();
}

/// Stores the slots of the notifiees, from slot `first` on.
void NotifierList::numberSlots(size_t first) noexcept {
  for (size_t slot = first; slot < slots_.size(); ++slot) {
    Notifiee* const notifiee = slots_[slot];
    const bool isPassed = notifiee == nullptr || (notifiee->isQuiet() && !notifiee->isAwake_);
    passedSlots_[slot] = isPassed ? 1 : 0;
    if (notifiee != nullptr) notifiee->slot_ = static_cast<uint32_t>(slot);
  }
}

void NotifierList::closeGaps() noexcept {
  slots_.eraseFrom(std::remove(slots_.begin(), slots_.end(), nullptr));
  passedSlots_.eraseFrom(passedSlots_.begin() + slots_.size());
  numberSlots(0);
}

void NotifierList::quietChanged(Notifiee& notifiee) noexcept {
  quiet_ += notifiee.isQuiet() ? 1U : uint32_t{0} - 1;
  awakeChanged(notifiee);
  if (notifiee.isQuiet()) return;
  for (auto* walk = walk_; walk != nullptr; walk = walk->outerWalk_) {
    walk->tellAfterwards(notifiee);
  }
}

void NotifierList::awakeChanged(Notifiee& notifiee) noexcept {
  passedSlots_[notifiee.slot_] = notifiee.isQuiet() && !notifiee.isAwake_ ? 1 : 0;
}

bool NotifierList::tellsAll() const noexcept {
  return quiet_ == 0 || TraceFacility::anyBuilds();
}

size_t NotifierList::next(size_t from, size_t to, bool tellsAll) const noexcept {
  if (tellsAll) {
    while (from < to && slots_[from] == nullptr) ++from;
    return from;
  }
  constexpr size_t kFew = 8;
  const char* const passed = passedSlots_.begin();
  for (const size_t few = std::min(to, from + kFew); from < few; ++from) {
    if (passed[from] == 0) return from;
  }
  if (from >= to) return to;
  const void* const found = std::memchr(passed + from, 0, to - from);
  return found == nullptr ? to : static_cast<size_t>(static_cast<const char*>(found) - passed);
}

void NotifierList::hookIs(const std::shared_ptr<NotifierHook>& hook, const Entity& owner) {
  if (hookedSince(*hook) != 0) return;
  hooks_.push_back({hook, Notifiee::now()});
  owner_ = &owner;
  isHooked_ = true;
  hasNecessaryHook_ = hasNecessaryHook_ || !hook->isOptional();
}

uint64_t NotifierList::hookedSince(const NotifierHook& hook) const noexcept {
  for (const Hooked& hooked : hooks_) {
    if (hooked.hook.get() == &hook) return hooked.since;
  }
  return 0;
}

bool NotifierList::isTraced() noexcept {
  return TraceFacility::anyBuilds();
}

void NotifierList::callNeededHooks(AttributeId id, const void* key, bool isRepeat) {
  const bool callsAll = isTraced();
  // NOLINTNEXTLINE(modernize-loop-convert): a hook may add another one, which moves the list
  for (size_t i = 0; i < hooks_.size(); ++i) {
    const auto hook = hooks_[i].hook;
    if (callsAll || hook->isNeeded()) hook->beforeTelling(*owner_, id, key, isRepeat);
  }
}

void NotifierList::ownerIsGone() noexcept {
  for (Notifiee*& notifiee : slots_) {
    if (notifiee != nullptr) notifiee->notifierIsGone();
    notifiee = nullptr;
  }
  std::fill(passedSlots_.begin(), passedSlots_.end(), char{1});
  for (auto* walk = walk_; walk != nullptr; walk = walk->outerWalk_) {
    std::fill(walk->woken_.begin(), walk->woken_.end(), nullptr);
  }
  owner_ = nullptr;
  isHooked_ = false;
  count_ = 0;
  orphaned_ = true;
  if (walk_ == nullptr) delete this;
}

void NotifierList::endWalk(SnapshotIterator* outer) noexcept {
  walk_ = outer;
  if (walk_ != nullptr) return;
  if (orphaned_) {
    delete this;
  } else if (count_ != slots_.size()) {
    closeGaps();
  }
}

Notifiee* SnapshotIterator::next() {
  Notifiee* notifiee = nullptr;
  do {
    if (at_ < end_) {
      at_ = list_.next(at_, end_, tellsAll_);
      if (at_ < end_) notifiee = list_.slots_[at_++];
      continue;
    }
    if (wokenAt_ == woken_.size() && id_ != 0 && NotifierHook::version() != hooksVersion_) {
      hooksVersion_ = NotifierHook::version();
      list_.callHooks(id_, key_, true);
      continue;
    }
    if (wokenAt_ == woken_.size()) break;
    notifiee = woken_[wokenAt_++];
  } while (notifiee == nullptr);
  standOn(notifiee);
  if (notifiee == nullptr) return nullptr;
  notifiee->toldIn_ = number_;
  // An inner walk leaves the notifiee awake for the outer walk.
  if (notifiee->isAwake_ && outerWalk_ == nullptr) {
    notifiee->isAwake_ = false;
    list_.awakeChanged(*notifiee);
  }
  return notifiee;
}

}  // namespace Kiv
