// Notifiees, which are told of changes, and the lists in which a notifier keeps them.
#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "platform/kiv/containers/Export.h"
#include "platform/kiv/containers/Ptr.h"
#include "platform/kiv/containers/SmallVector.h"
#include "platform/kiv/runtime/Activity.h"
#include "platform/kiv/runtime/Attribute.h"

namespace Kiv {

class Entity;
class NotifierList;
class SnapshotIterator;

/// The base of all reactors: one notifier, an activity, and whether they may act.
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
  /// Switches delivery on or off without unregistering. Notifications that come meanwhile are lost.
  virtual void hasNotificationActiveIs(bool active) { active_ = active; }

  bool isZombie() const noexcept { return zombie_; }
  /// Puts this reactor, and every reactor it owns, into or out of the state in which no callback
  /// is delivered.
  virtual void kivDoZombieReactors(bool zombie) { zombie_ = zombie; }
  /// Its owner has removed or replaced it, or is going: it becomes a zombie and leaves its
  /// notifier, so that whoever still holds it holds one that reacts to nothing and keeps no
  /// notifier alive.
  virtual void retire() {
    kivDoZombieReactors(true);
    notifierEntityIs(nullptr);
  }

  bool isRegisteredNotifiee() const noexcept { return registered_; }
  /// Enters this into the notifier's list or takes it out; without a notifier nothing happens. What
  /// waits to be delivered is dropped on leaving, and one that does not hold its notifier forgets
  /// it, of whose end it would not be told.
  void isRegisteredNotifieeIs(bool registered);

  bool isQuiet() const noexcept { return quiet_; }
  /// A quiet notifiee is told of changes only while something is traced. For one that knows, for
  /// the time being, that a change of its notifier, whatever the attribute, would move it to
  /// nothing but trace statements: where many watch, those whom a change does not concern cost
  /// nothing. One that ceases to be quiet while others are told is told after them.
  void isQuietIs(bool quiet);
  /// Tells a quiet notifiee of the next change all the same, or of the present one if its turn is
  /// still to come.
  void wakeOnce();

  /// The place of a notifiee among those of its notifier, which are told in the order of ranks.
  struct Rank {
    uint64_t time = 0;   ///< of the registration; see now()
    uint64_t order = 0;  ///< among those of the same time
    friend auto operator<=>(const Rank&, const Rank&) = default;
  };
  /// A time that is later than all that were given before.
  static uint64_t now() noexcept;
  /// The last time that was given.
  static uint64_t lastTime() noexcept;
  /// The next registration is one that was left out earlier, while nothing concerned this notifiee:
  /// it gets the place that it would have had, and a walk that is under way reaches it.
  void registersLate(const Rank& rank) noexcept {
    rank_ = rank;
    isLate_ = true;
  }

  /// The activity that delivers to this reactor; null means at once.
  const Ptr<ActivityConfig>& kivFwkActivity() const noexcept { return activity_; }
  /// Moves to another activity, with the notifications that wait; one that does not queue delivers
  /// them now. A reactor that owns reactors passes it on to them.
  virtual void kivFwkActivityIs(const Ptr<ActivityConfig>& activity);

  /// Called by an activity that queued a notification for this reactor: delivers it.
  virtual void handleNotification(ActivityConfig& config);

  /// Offered a notification before its handler runs; true means that a reflective observer has
  /// consumed it. Asks the hook of this process, if there is one.
  ///
  /// \param value  the key or value the notification is about.
  virtual bool kivOnAttribute(AttributeId id, const void* value);

  /// A reflective observer: returns true to keep a notification from the reactor's handler.
  using AttributeHook =
      std::function<bool(const Notifiee& reactor, AttributeId id, const void* value)>;
  /// Makes `hook` the one of this process; an empty one takes it away. For the reactors' thread.
  static void attributeHookIs(AttributeHook hook);
  static bool hasAttributeHook() noexcept;

  /// A callback for attribute `id` has raised; the exception is std::current_exception().
  virtual void onNotificationException(AttributeId /*id*/) noexcept {}

  /// As Entity::tracedLevels(): a reactor has those of the entity for which it acts.
  virtual uint32_t tracedLevels() const noexcept { return 0; }

  /// The last handle to the notifier was dropped. Comes only to a notifiee that does not hold it.
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
  SnapshotIterator* walk_ = nullptr;  // the innermost one that stands here
  Ptr<ActivityConfig> activity_;
  Rank rank_;
  uint32_t slot_ = 0;    // where it stands in the notifier's list, while registered
  uint64_t toldIn_ = 0;  // the last walk that came here
  Hold hold_;
  bool isLate_ = false;   // until it is registered
  bool isAwake_ = false;  // though quiet
  bool registered_ = false;
  bool active_ = true;
  bool zombie_ = false;
  bool quiet_ = false;
};

/// Base of a type's `NotifieeConst`: a notifiee of one T.
template <class T>
class NotifieeOf : public Notifiee {
 public:
  /// The object watched, or null.
  Ptr<const T> notifier() const noexcept { return Ptr<const T>(notifierRaw()); }
  /// notifier() for the length of a call, without touching its count.
  const T* notifierRaw() const noexcept { return static_cast<const T*>(notifierEntity()); }
  /// Watches `notifier` in place of the present one, then runs the immediate callbacks. Null is
  /// allowed, and watching the present one again changes nothing.
  void notifierIs(const Ptr<const T>& notifier) { notifierEntityIs(notifier.get()); }

 protected:
  using Notifiee::Notifiee;
};

/// Called before the notifiees of an entity are told of a change. It may register notifiees that
/// were left out because no change concerned them, and wake quiet ones.
///
/// One hook may serve many entities. It must not change an attribute of any entity.
class NotifierHook {
 public:
  NotifierHook(const NotifierHook&) = delete;
  NotifierHook& operator=(const NotifierHook&) = delete;
  virtual ~NotifierHook() { isNeededIs(false); }

  /// `notifier` is going to announce a change of the attribute `id`.
  ///
  /// \param key       of the changed entry of a collection; null for a value or a whole collection.
  /// \param isRepeat  true at the end of the walk, if version() has changed meanwhile.
  virtual void beforeTelling(const Entity& notifier, AttributeId id, const void* key,
                             bool isRepeat) = 0;
  /// A notifiee is going to be registered with `notifier`.
  virtual void beforeRegistering(const Entity& /*notifier*/) {}

  /// False while beforeTelling() need not be called unless something is traced.
  bool isNeeded() const noexcept { return isNeeded_ || !isOptional_; }
  bool isOptional() const noexcept { return isOptional_; }

  /// True while some optional hook is needed.
  static bool anyOptionalIsNeeded() noexcept {
    return optionalNeeded_.load(std::memory_order_relaxed) != 0;
  }
  /// Goes up when beforeTelling() of some hook may concern other notifiees than before.
  static uint64_t version() noexcept { return version_.load(std::memory_order_relaxed); }

 protected:
  /// \param isOptional  whether it is needed only now and then: not yet.
  explicit NotifierHook(bool isOptional) : isOptional_(isOptional) {}
  /// Of an optional hook.
  void isNeededIs(bool isNeeded) noexcept {
    if (isNeeded == isNeeded_) return;
    isNeeded_ = isNeeded;
    optionalNeeded_.fetch_add(isNeeded ? 1 : size_t{0} - 1, std::memory_order_relaxed);
  }
  static void versionIsNext() noexcept { version_.fetch_add(1, std::memory_order_relaxed); }

 private:
  // Of the whole process, so that an announcement need not look at the hooks of its notifier.
  KIV_EXPORT static inline constinit std::atomic<size_t> optionalNeeded_{0};
  KIV_EXPORT static inline constinit std::atomic<uint64_t> version_{0};

  const bool isOptional_;
  bool isNeeded_ = false;
};

/// The notifiees of one entity.
///
/// May be changed while it is walked: notifiees that leave are skipped, new ones wait for the next
/// walk, unless they register late.
class NotifierList {
 public:
  bool empty() const noexcept { return count_ == 0 && !hasNeededHook(); }
  void add(Notifiee& notifiee);
  /// Takes constant time, averaged over the removals.
  void remove(Notifiee& notifiee) noexcept;
  /// A notifiee in the list has become quiet, or is so no longer.
  void quietChanged(Notifiee& notifiee) noexcept;
  /// A quiet notifiee in the list is awake for the next change, or has been told of it.
  void awakeChanged(Notifiee& notifiee) noexcept;
  bool isWalked() const noexcept { return walk_ != nullptr; }
  /// Calls `visit` with each notifiee to tell of a change now. It must change neither them nor the
  /// list.
  template <class Visit>
  void forEachToTell(Visit visit) const {
    const bool tellsAll = this->tellsAll();
    for (size_t slot = next(0, slots_.size(), tellsAll); slot < slots_.size();
         slot = next(slot + 1, slots_.size(), tellsAll)) {
      visit(*slots_[slot]);
    }
  }

  /// Has `hook` called from now on for changes of `owner`, whose list this is.
  void hookIs(const std::shared_ptr<NotifierHook>& hook, const Entity& owner);
  /// The time from which this hook is called; 0 if it is not.
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

  /// The entity goes: its notifiees lose their notifier. Deletes the list when no walk is under
  /// way, else the last walk does.
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
  /// The first slot in [from, to) with a notifiee to tell; `to` for none.
  size_t next(size_t from, size_t to, bool tellsAll) const noexcept;
  /// True when callNeededHooks() may have something to call.
  bool hasNeededHook() const noexcept {
    return isHooked_ && (hasNecessaryHook_ || NotifierHook::anyOptionalIsNeeded() || isTraced());
  }
  static bool isTraced() noexcept;
  void callNeededHooks(AttributeId id, const void* key, bool isRepeat);

  // First what each announcement reads: one cache line, or two.
  [[no_unique_address]] SmallVector<Notifiee*, 2> slots_;  // null: has left
  uint32_t count_ = 0;
  // Of each slot: 1 when there is none to tell, unless all are told.
  [[no_unique_address]] SmallVector<char, 8> passedSlots_;
  uint32_t quiet_ = 0;
  SnapshotIterator* walk_ = nullptr;  // the innermost one
  uint64_t walks_ = 0;                // how many began
  bool orphaned_ = false;
  bool isHooked_ = false;
  bool hasNecessaryHook_ = false;  // one that is not optional
  std::vector<Hooked> hooks_;
  const Entity* owner_ = nullptr;  // only with hooks
};

/// Walks the notifiees that a list had when the walk began and still has; those that are quiet all
/// the while only if something is traced.
class SnapshotIterator {
 public:
  /// The walk of an announcement of attribute `id`, or of none that hooks concern; see
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
  /// The last result of next(), also if it has left the list; null once it is destroyed.
  Notifiee* current() const noexcept { return current_; }

 private:
  friend class Notifiee;
  friend class NotifierList;
  void standOn(Notifiee* notifiee) noexcept {
    if (current_ != nullptr) current_->walk_ = outer_;
    current_ = notifiee;
    if (current_ != nullptr) outer_ = std::exchange(current_->walk_, this);
  }
  /// A notifiee is no longer quiet, or has registered late: tells it if its turn is over.
  void tellAfterwards(Notifiee& notifiee) {
    if (notifiee.slot_ < at_ && notifiee.toldIn_ < number_) woken_.push_back(&notifiee);
  }

  NotifierList& list_;
  AttributeId id_;
  const void* key_;
  size_t at_ = 0;
  size_t end_;  // of those that were there when the walk began
  const bool tellsAll_;
  const uint64_t began_;
  const uint64_t number_;
  uint64_t hooksVersion_;
  std::vector<Notifiee*> woken_;  // to be told when all others are; null: has left
  size_t wokenAt_ = 0;
  Notifiee* current_ = nullptr;
  SnapshotIterator* outer_ = nullptr;  // another that stands on `current_`, further up the stack
  SnapshotIterator* const outerWalk_;  // of the same list
};

}  // namespace Kiv
