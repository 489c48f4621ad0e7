// Notifiees, which are told of changes, and the lists in which a notifier keeps them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "platform/kiv/containers/Ptr.h"
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
  uint32_t slot_ = 0;  // where it stands in the notifier's list, while registered
  Hold hold_;
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

/// The notifiees of one entity.
///
/// May be changed while it is walked: notifiees that leave are skipped, new ones wait for the next
/// walk.
class NotifierList {
 public:
  bool empty() const noexcept { return count_ == 0; }
  void add(Notifiee& notifiee);
  /// Takes constant time, averaged over the removals.
  void remove(Notifiee& notifiee) noexcept;
  /// A notifiee in the list has become quiet, or is so no longer.
  void quietChanged(Notifiee& notifiee) noexcept;
  /// Those to tell of a change now, null where one has left. Good until the list changes.
  const std::vector<Notifiee*>& toTell();
  /// The entity goes: its notifiees lose their notifier. Deletes the list when no walk is under
  /// way, else the last walk does.
  void ownerIsGone() noexcept;

 private:
  friend class SnapshotIterator;
  ~NotifierList() = default;
  void endWalk() noexcept;
  void closeGaps() noexcept;

  void wake(Notifiee& notifiee) noexcept;

  std::vector<Notifiee*> slots_;  // null: has left
  // Those of the first `judged_` in slots_ that are not quiet, and behind them those that ceased to
  // be so during a walk; see alertIsStale_.
  std::vector<Notifiee*> alert_;
  size_t judged_ = 0;
  size_t count_ = 0;
  size_t quiet_ = 0;
  unsigned walks_ = 0;
  bool alertIsStale_ = false;
  bool orphaned_ = false;
};

/// Walks the notifiees that a list had when the walk began and still has; those that are quiet all
/// the while only if something is traced.
class SnapshotIterator {
 public:
  explicit SnapshotIterator(NotifierList& list)
      : list_(list),
        slots_(list.toTell()),
        // Notifiees that are woken meanwhile stand behind the others.
        end_(&slots_ == &list.alert_ ? SIZE_MAX : slots_.size()) {
    ++list_.walks_;
  }
  SnapshotIterator(const SnapshotIterator&) = delete;
  SnapshotIterator& operator=(const SnapshotIterator&) = delete;
  ~SnapshotIterator() {
    standOn(nullptr);
    list_.endWalk();
  }

  /// The next notifiee, or null at the end.
  Notifiee* next() noexcept {
    Notifiee* notifiee = nullptr;
    while (at_ < end_ && at_ < slots_.size() && notifiee == nullptr) notifiee = slots_[at_++];
    standOn(notifiee);
    return notifiee;
  }
  /// The last result of next(), also if it has left the list; null once it is destroyed.
  Notifiee* current() const noexcept { return current_; }

 private:
  friend class Notifiee;
  void standOn(Notifiee* notifiee) noexcept {
    if (current_ != nullptr) current_->walk_ = outer_;
    current_ = notifiee;
    if (current_ != nullptr) outer_ = std::exchange(current_->walk_, this);
  }

  NotifierList& list_;
  const std::vector<Notifiee*>& slots_;  // may grow and lose members meanwhile
  size_t at_ = 0;
  size_t end_;
  Notifiee* current_ = nullptr;
  SnapshotIterator* outer_ = nullptr;  // another that stands on `current_`, further up the stack
};

}  // namespace Kiv
