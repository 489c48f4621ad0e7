// Notifiees, which are notified of changes, and the list of the notifiees of an entity.
#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "platform/kiv/containers/Ptr.h"
#include "platform/kiv/containers/SmallVector.h"
#include "platform/kiv/runtime/Activity.h"
#include "platform/kiv/runtime/Attribute.h"

namespace Kiv {

class Entity;
class NotifierList;
class SnapshotIterator;

/// The base of all reactors. A reactor has one notifier and one activity.
///
/// A type's own `NotifieeConst` derives from this through NotifieeOf and adds one callback for each
/// attribute. A callback runs after the change that it reports.
class Notifiee : public Object {
 public:
  /// Whether a notifiee keeps its notifier alive.
  enum class Hold : uint8_t { kStrong, kWeak };

  ~Notifiee() override;

  /// True while callbacks may act: not being destroyed, not a zombie.
  bool isLive() const noexcept { return !isDestructing() && !zombie_; }
  /// True when a notification sent now would be delivered.
  bool acceptsNotifications() const noexcept { return registered_ && active_ && isLive(); }

  bool hasNotificationActive() const noexcept { return active_; }
  /// Switches delivery on or off without unregistering. Notifications are lost while it is off.
  virtual void hasNotificationActiveIs(bool active) { active_ = active; }

  bool isZombie() const noexcept { return zombie_; }
  /// Puts this reactor, and every reactor it owns, into or out of the state in which no callback
  /// is delivered.
  virtual void kivDoZombieReactors(bool zombie) { zombie_ = zombie; }
  /// Called when the owner has removed or replaced this reactor, or is being destroyed. The reactor
  /// becomes a zombie and leaves its notifier. So if there are further handles to it, it does not
  /// react to anything and keeps no notifier alive.
  virtual void retire() {
    kivDoZombieReactors(true);
    notifierEntityIs(nullptr);
  }

  bool isRegisteredNotifiee() const noexcept { return registered_; }
  /// Adds this to the notifier's list or removes it; does nothing without a notifier. The removal
  /// drops the notifications that wait. It also resets notifier() of a notifiee that does not keep
  /// its notifier alive, because such a notifiee would not learn of the notifier's end.
  void isRegisteredNotifieeIs(bool registered);

  bool isQuiet() const noexcept { return quiet_; }
  /// A quiet notifiee is notified of changes only while something is traced. A notifiee may be
  /// quiet while it would react to a change of any attribute with trace statements only. So of many
  /// notifiees, those that a change does not concern take no time. A notifiee that stops being
  /// quiet during a walk is notified after the others.
  void isQuietIs(bool quiet);
  /// Notifies a quiet notifiee of the next change all the same. That is the present change if the
  /// walk has not yet passed the notifiee.
  void wakeOnce();

  /// The place of a notifiee in its notifier's list. Notifiees are notified in the order of ranks.
  struct Rank {
    uint64_t time = 0;   ///< of the registration; see now()
    uint64_t order = 0;  ///< among notifiees with the same time
    friend auto operator<=>(const Rank&, const Rank&) = default;
  };
  /// A number that is larger than all that were returned before. It counts registrations.
  static uint64_t now() noexcept;
  /// The last number that now() returned.
  static uint64_t lastTime() noexcept;
  /// Says that the next registration was omitted earlier, because no change concerned this
  /// notifiee. It gets the place that it would have had, and a walk that is under way visits it.
  void registersLate(const Rank& rank) noexcept {
    rank_ = rank;
    isLate_ = true;
  }

  /// The activity that delivers to this reactor. Null: notifications are delivered at once.
  const Ptr<ActivityConfig>& kivFwkActivity() const noexcept { return activity_; }
  /// Moves to another activity, with the notifications that wait. An activity that does not queue
  /// delivers them now. A reactor passes the activity on to the reactors that it owns.
  virtual void kivFwkActivityIs(const Ptr<ActivityConfig>& activity);

  /// Called by an activity that queued a notification for this reactor: delivers it.
  virtual void handleNotification(ActivityConfig& config);

  /// Called with a notification before its handler runs. Returns true if a reflective observer has
  /// consumed the notification. Calls the hook of this process, if there is one.
  ///
  /// \param value  the key or value the notification is about.
  virtual bool kivOnAttribute(AttributeId id, const void* value);

  /// A reflective observer. Returns true to consume a notification: its handler is then not called.
  using AttributeHook =
      std::function<bool(const Notifiee& reactor, AttributeId id, const void* value)>;
  /// Makes `hook` the hook of this process; an empty one removes it. Call it on the reactors'
  /// thread.
  static void attributeHookIs(AttributeHook hook);
  static bool hasAttributeHook() noexcept;

  /// A callback for attribute `id` has raised; the exception is std::current_exception().
  virtual void onNotificationException(AttributeId /*id*/) noexcept {}

  /// As Entity::tracedLevels(). A reactor has the levels of the entity for which it acts.
  virtual uint32_t tracedLevels() const noexcept { return 0; }

  /// The last handle to the notifier was dropped. Called only if the notifiee has no handle to it.
  virtual void onZeroReferences() noexcept {}

 protected:
  explicit Notifiee(Hold hold = Hold::kStrong) : hold_(hold) {}

  const Entity* notifierEntity() const noexcept { return notifier_; }
  /// Leaves the present notifier, registers with `notifier` and, if notifications are accepted,
  /// catches up with it.
  void notifierEntityIs(const Entity* notifier);

  /// Runs the immediate callbacks, by which the reactor catches up with a new notifier.
  virtual void kivImmediate() {}

 private:
  friend class NotifierList;
  friend class SnapshotIterator;
  friend class Tracer;

  void notifierIsGone() noexcept;

  const Entity* notifier_ = nullptr;
  SnapshotIterator* walk_ = nullptr;  // the innermost walk whose current() is this
  Ptr<ActivityConfig> activity_;
  Rank rank_;
  uint32_t slot_ = 0;    // the place in the notifier's list, while registered
  uint64_t toldIn_ = 0;  // the last walk that visited this
  Hold hold_;
  bool isLate_ = false;   // registersLate() was called, and it is not yet registered
  bool isAwake_ = false;  // wakeOnce() was called, and no change has been announced since
  bool registered_ = false;
  bool active_ = true;
  bool zombie_ = false;
  bool quiet_ = false;
};

/// Base of a type's `NotifieeConst`: a notifiee of one T.
template <class T>
class NotifieeOf : public Notifiee {
 public:
  /// The object that this watches, or null.
  Ptr<const T> notifier() const noexcept { return Ptr<const T>(notifierRaw()); }
  /// The notifier without a new handle, for the duration of a call.
  const T* notifierRaw() const noexcept { return static_cast<const T*>(notifierEntity()); }
  /// Watches `notifier` in place of the present one, then runs the immediate callbacks. Null is
  /// allowed, and watching the present one again changes nothing.
  void notifierIs(const Ptr<const T>& notifier) { notifierEntityIs(notifier.get()); }

 protected:
  using Notifiee::Notifiee;
};

/// Called before the notifiees of an entity are notified of a change. It may register notifiees
/// whose registration was omitted because no change concerned them, and wake quiet ones.
///
/// One hook may serve many entities. It must not change an attribute of any entity.
class NotifierHook {
 public:
  NotifierHook(const NotifierHook&) = delete;
  NotifierHook& operator=(const NotifierHook&) = delete;
  virtual ~NotifierHook() { isNeededIs(false); }

  /// `notifier` is going to announce a change of the attribute `id`.
  ///
  /// \param key       the key of a changed entry; null for a value or a whole collection.
  /// \param isRepeat  true at the end of the walk, if version() has changed meanwhile.
  virtual void beforeTelling(const Entity& notifier, AttributeId id, const void* key,
                             bool isRepeat) = 0;
  /// A notifiee is going to be registered with `notifier`.
  virtual void beforeRegistering(const Entity& /*notifier*/) {}

  /// If false, beforeTelling() is called only while something is traced.
  bool isNeeded() const noexcept { return isNeeded_ || !isOptional_; }
  bool isOptional() const noexcept { return isOptional_; }

  /// True while some optional hook of the process is needed.
  static bool anyOptionalIsNeeded() noexcept {
    return optionalNeeded_.load(std::memory_order_relaxed) != 0;
  }
  /// Goes up when beforeTelling() of any hook may register or wake other notifiees than before.
  static uint64_t version() noexcept { return version_.load(std::memory_order_relaxed); }

 protected:
  /// \param isOptional  whether the hook is needed only at times; it is not needed at first.
  explicit NotifierHook(bool isOptional) : isOptional_(isOptional) {}
  /// Says whether an optional hook is needed.
  void isNeededIs(bool isNeeded) noexcept {
    if (isNeeded == isNeeded_) return;
    isNeeded_ = isNeeded;
    optionalNeeded_.fetch_add(isNeeded ? 1 : size_t{0} - 1, std::memory_order_relaxed);
  }
  /// Says that beforeTelling() may now register or wake other notifiees than before.
  static void versionIsNext() noexcept { version_.fetch_add(1, std::memory_order_relaxed); }

 private:
  // For the whole process, so that an announcement need not read the hooks of its notifier.
  static std::atomic<size_t> optionalNeeded_;
  static std::atomic<uint64_t> version_;

  const bool isOptional_;
  bool isNeeded_ = false;
};

/// The notifiees of one entity.
///
/// The list may change during a walk. The walk skips notifiees that leave. It does not visit new
/// notifiees, except those that register late.
class NotifierList {
 public:
  bool empty() const noexcept { return count_ == 0 && !hasNeededHook(); }
  void add(Notifiee& notifiee);
  /// Takes constant time, averaged over the removals.
  void remove(Notifiee& notifiee) noexcept;
  /// A notifiee in the list has become quiet, or has stopped being quiet.
  void quietChanged(Notifiee& notifiee) noexcept;
  /// A quiet notifiee in the list has been woken for the next change, or has been notified of it.
  void awakeChanged(Notifiee& notifiee) noexcept;
  bool isWalked() const noexcept { return walk_ != nullptr; }
  /// Calls `visit` with each notifiee that a change would now be announced to. `visit` must change
  /// neither the notifiees nor the list.
  template <class Visit>
  void forEachToTell(Visit visit) const {
    const bool tellsAll = this->tellsAll();
    for (size_t slot = next(0, slots_.size(), tellsAll); slot < slots_.size();
         slot = next(slot + 1, slots_.size(), tellsAll)) {
      visit(*slots_[slot]);
    }
  }

  /// Calls `hook` for changes of `owner` from now on. \pre this is the list of `owner`
  void hookIs(const std::shared_ptr<NotifierHook>& hook, const Entity& owner);
  /// The result of Notifiee::now() when the hook was added; 0 if the list does not have it.
  uint64_t hookedSince(const NotifierHook& hook) const noexcept;
  /// Calls `visit` with each hook.
  template <class Visit>
  void forEachHook(Visit visit) const {
    for (const Hooked& hooked : hooks_) visit(*hooked.hook);
  }
  void callHooks(AttributeId id, const void* key, bool isRepeat = false) {
    if (hasNeededHook()) [[unlikely]]
      callNeededHooks(id, key, isRepeat);
  }

  /// Called when the entity is destroyed: its notifiees lose their notifier. Deletes the list if no
  /// walk is under way; else the last walk deletes it.
  void ownerIsGone() noexcept;

 private:
  friend class SnapshotIterator;
  struct Hooked {
    std::shared_ptr<NotifierHook> hook;
    uint64_t since;
  };

  ~NotifierList() = default;
  void endWalk(SnapshotIterator* outer) noexcept;
  void closeGaps() noexcept;
  void numberSlots(size_t first) noexcept;
  bool tellsAll() const noexcept;
  /// The first slot in [from, to) whose notifiee is to be notified; `to` if there is none.
  size_t next(size_t from, size_t to, bool tellsAll) const noexcept;
  /// False if callNeededHooks() would call no hook.
  bool hasNeededHook() const noexcept {
    return isHooked_ && (hasNecessaryHook_ || NotifierHook::anyOptionalIsNeeded() || isTraced());
  }
  static bool isTraced() noexcept;
  void callNeededHooks(AttributeId id, const void* key, bool isRepeat);

  // First the members that each announcement reads: one cache line, or two.
  [[no_unique_address]] SmallVector<Notifiee*, 2> slots_;  // null: the notifiee has left
  uint32_t count_ = 0;
  // For each slot: 1 if a walk that is not traced skips it.
  [[no_unique_address]] SmallVector<char, 8> passedSlots_;
  uint32_t quiet_ = 0;
  SnapshotIterator* walk_ = nullptr;  // the innermost walk
  uint64_t walks_ = 0;                // the number of walks so far
  bool orphaned_ = false;
  bool isHooked_ = false;
  bool hasNecessaryHook_ = false;  // a hook that is not optional
  std::vector<Hooked> hooks_;
  const Entity* owner_ = nullptr;  // set if there are hooks
};

/// Visits the notifiees that were in a list when the walk began and have not left it. Visits quiet
/// notifiees only if something is traced, or if they stop being quiet during the walk.
class SnapshotIterator {
 public:
  /// Begins the walk of an announcement of attribute `id`. Hooks are not called for id 0; see
  /// NotifierHook.
  explicit SnapshotIterator(NotifierList& list, AttributeId id = 0, const void* key = nullptr)
      : list_(list),
        id_(id),
        key_(key),
        end_(list.slots_.size()),
        tellsAll_(list.tellsAll()),
        began_(Notifiee::lastTime()),
        number_(++list.walks_),
        hooksVersion_(NotifierHook::version()),
        outerWalk_(std::exchange(list.walk_, this)) {}
  SnapshotIterator(const SnapshotIterator&) = delete;
  SnapshotIterator& operator=(const SnapshotIterator&) = delete;
  ~SnapshotIterator() {
    standOn(nullptr);
    list_.endWalk(outerWalk_);
  }

  /// The next notifiee, or null at the end.
  Notifiee* next();
  /// The last result of next(), even if it has left the list; null if it was destroyed.
  Notifiee* current() const noexcept { return current_; }

 private:
  friend class Notifiee;
  friend class NotifierList;
  void standOn(Notifiee* notifiee) noexcept {
    if (current_ != nullptr) current_->walk_ = outer_;
    current_ = notifiee;
    if (current_ != nullptr) outer_ = std::exchange(current_->walk_, this);
  }
  /// A notifiee has stopped being quiet, or has registered late. If the walk has already passed it,
  /// the walk visits it at the end.
  void tellAfterwards(Notifiee& notifiee) {
    if (notifiee.slot_ < at_ && notifiee.toldIn_ < number_) woken_.push_back(&notifiee);
  }

  NotifierList& list_;
  AttributeId id_;
  const void* key_;
  size_t at_ = 0;
  size_t end_;  // the end of the slots that existed when the walk began
  const bool tellsAll_;
  const uint64_t began_;
  const uint64_t number_;
  uint64_t hooksVersion_;
  std::vector<Notifiee*> woken_;  // visited after all others; null: has left
  size_t wokenAt_ = 0;
  Notifiee* current_ = nullptr;
  SnapshotIterator* outer_ = nullptr;  // the walk outside this one with the same `current_`
  SnapshotIterator* const outerWalk_;  // the walk outside this one of the same list
};

}  // namespace Kiv
