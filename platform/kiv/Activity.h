// Activities: when the notifications of a reactor are delivered.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <tuple>
#include <unordered_set>

#include "platform/kiv/Attribute.h"
#include "platform/kiv/Hash.h"
#include "platform/kiv/Ptr.h"

namespace Kiv {

class Notifiee;

/// One notification that waits to be delivered: a reactor, an attribute and, for a collection
/// entry, its key.
class PendingNotification {
 public:
  PendingNotification(Notifiee& reactor, AttributeId attribute)
      : reactor_(&reactor), attribute_(attribute) {}
  virtual ~PendingNotification() = default;

  /// The reactor to tell; null when it went meanwhile.
  Notifiee* reactor() const noexcept { return reactor_; }
  AttributeId attribute() const noexcept { return attribute_; }
  void cancel() noexcept { reactor_ = nullptr; }

  /// Calls the reactor's callback.
  virtual void deliver(Notifiee& reactor) const = 0;
  virtual uint32_t hash() const = 0;
  virtual bool isSame(const PendingNotification& other) const = 0;

 private:
  Notifiee* reactor_;
  AttributeId attribute_;
};

/// The scheduling context of reactors. This one delivers at once: a callback runs inside the call
/// that made the change.
class ActivityConfig : public Object {
 public:
  using Ptr = Kiv::Ptr<ActivityConfig>;

  /// True when notifications wait for the activity to run.
  bool queues() const noexcept { return queues_; }
  /// Takes a notification that is to wait. Only for an activity that queues.
  virtual void enqueue(std::unique_ptr<PendingNotification> notification);
  /// Forgets what waits for `reactor`.
  virtual void cancel(Notifiee& /*reactor*/) noexcept {}
  /// Delivers to `reactor` the notification for which this activity is calling it.
  virtual void deliverCurrent(Notifiee& /*reactor*/) {}

  ActivityConfig() = default;

 protected:
  explicit ActivityConfig(bool queues) : queues_(queues) {}

 private:
  bool queues_ = false;
};

/// An activity that keeps notifications until it is run.
///
/// The same reactor, attribute and key wait once, however often they are announced, in the place
/// of their first announcement.
class QueueingActivity final : public ActivityConfig {
 public:
  using Ptr = Kiv::Ptr<QueueingActivity>;

  QueueingActivity() : ActivityConfig(true) {}

  /// Delivers all that waits now; what is announced meanwhile waits for the next run.
  /// \returns how many notifications were delivered.
  size_t run();
  /// The number of notifications that wait.
  size_t pending() const noexcept { return known_.size(); }

  void enqueue(std::unique_ptr<PendingNotification> notification) override;
  void cancel(Notifiee& reactor) noexcept override;
  void deliverCurrent(Notifiee& reactor) override;

 private:
  struct HashPending {
    size_t operator()(const PendingNotification* pending) const { return pending->hash(); }
  };
  struct SamePending {
    bool operator()(const PendingNotification* a, const PendingNotification* b) const {
      return a->isSame(*b);
    }
  };

  std::deque<std::unique_ptr<PendingNotification>> queue_;
  std::unordered_set<const PendingNotification*, HashPending, SamePending> known_;
  const PendingNotification* current_ = nullptr;
};

/// A waiting notification of attribute `Attribute`; `Key` is empty for a scalar and for the
/// announcement of a whole collection.
template <class Attribute, class... Key>
class PendingNotificationOf final : public PendingNotification {
 public:
  explicit PendingNotificationOf(Notifiee& reactor, const Key&... key)
      : PendingNotification(reactor, Attribute::kInfo.id), key_(key...) {}

  void deliver(Notifiee& reactor) const override {
    std::apply([&reactor](const Key&... key) { Attribute::deliver(reactor, key...); }, key_);
  }
  uint32_t hash() const override {
    uint32_t ofKey = 0;
    if constexpr (sizeof...(Key) == 1) ofKey = Hash<Key...>()(std::get<0>(key_));
    return hashWords(reinterpret_cast<uintptr_t>(reactor()), (uint64_t{attribute()} << 32) | ofKey);
  }
  bool isSame(const PendingNotification& other) const override {
    if (other.reactor() != reactor() || other.attribute() != attribute()) return false;
    const auto* same = dynamic_cast<const PendingNotificationOf*>(&other);
    return same != nullptr && same->key_ == key_;
  }

 private:
  std::tuple<Key...> key_;
};

}  // namespace Kiv
