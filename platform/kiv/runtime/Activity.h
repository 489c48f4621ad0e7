// Activities: when the notifications of a reactor are delivered.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <utility>
#include <vector>

#include "platform/kiv/containers/Hash.h"
#include "platform/kiv/containers/HashMap.h"
#include "platform/kiv/containers/Ptr.h"
#include "platform/kiv/runtime/Attribute.h"

namespace Kiv {

class Notifiee;

/// A notification that waits to be delivered: a reactor, an attribute and, for an entry of a
/// collection, its key.
class PendingNotification {
 public:
  PendingNotification(Notifiee& reactor, AttributeId attribute)
      : reactor_(reactor), attribute_(attribute) {}
  virtual ~PendingNotification() = default;

  /// The reactor. It withdraws its notifications when it is destroyed.
  Notifiee& reactor() const noexcept { return reactor_; }
  AttributeId attribute() const noexcept { return attribute_; }

  /// Calls the reactor's callback.
  virtual void deliver() const = 0;
  virtual uint32_t hash() const = 0;
  virtual bool isSame(const PendingNotification& other) const = 0;

 protected:
  /// A hash of the reactor, the attribute and the key. \param hashOfKey  0 without a key.
  uint32_t hashWith(uint32_t hashOfKey) const noexcept {
    return hashWords(reinterpret_cast<uintptr_t>(&reactor_),
                     (uint64_t{attribute_} << 32) | hashOfKey);
  }
  bool concernsSame(const PendingNotification& other) const noexcept {
    return &other.reactor_ == &reactor_ && other.attribute_ == attribute_;
  }

 private:
  Notifiee& reactor_;
  AttributeId attribute_;
};

/// The scheduling context of reactors. The base class delivers at once: a callback runs inside the
/// call that made the change.
class ActivityConfig : public Object {
 public:
  using Ptr = Kiv::Ptr<ActivityConfig>;

  ActivityConfig() = default;

  /// True when notifications wait for the activity to run.
  bool queues() const noexcept { return queues_; }
  /// Delivers `notification`: at once, or when the activity runs if it queues.
  virtual void enqueue(std::unique_ptr<PendingNotification> notification);
  /// Removes the notifications that wait for `reactor`, and returns them in the order of arrival.
  virtual std::vector<std::unique_ptr<PendingNotification>> withdraw(Notifiee& reactor);
  /// Called by `reactor`'s handleNotification(): calls the callback of the notification that is
  /// being delivered.
  void deliverCurrent(Notifiee& reactor);

 protected:
  explicit ActivityConfig(bool queues) : queues_(queues) {}

  /// Calls the reactor's handleNotification(). An exception is reported to the reactor.
  /// \returns false when the reactor accepts no notifications.
  bool deliver(const PendingNotification& notification);
  bool isDelivering() const noexcept { return current_ != nullptr; }

 private:
  const PendingNotification* current_ = nullptr;
  bool queues_ = false;
};

/// An activity that keeps notifications until it is run.
///
/// If an attribute is announced repeatedly to a reactor under the same key, one notification waits,
/// at the place of the first announcement.
class QueueingActivity final : public ActivityConfig {
 public:
  using Ptr = Kiv::Ptr<QueueingActivity>;

  QueueingActivity() : ActivityConfig(true) {}

  /// Delivers all notifications that wait now; later ones wait for the next run. A call from within
  /// a callback delivers nothing.
  /// \returns how many notifications were delivered.
  size_t run();
  /// The number of notifications that wait.
  size_t pending() const noexcept { return waiting_.size(); }

  void enqueue(std::unique_ptr<PendingNotification> notification) override;
  std::vector<std::unique_ptr<PendingNotification>> withdraw(Notifiee& reactor) override;

 private:
  /// A notification as a key: the same reactor, attribute and key are equal.
  struct Waiting {
    const PendingNotification* notification;

    uint32_t hash() const { return notification->hash(); }
    friend bool operator==(const Waiting& a, const Waiting& b) {
      return a.notification->isSame(*b.notification);
    }
  };

  std::deque<std::unique_ptr<PendingNotification>> queue_;  // null: withdrawn
  HashMap<Waiting, Present> waiting_;
};

/// A waiting notification of attribute `Attribute`, of a scalar or of a whole collection.
template <class Attribute, class... Key>
class PendingNotificationOf final : public PendingNotification {
 public:
  explicit PendingNotificationOf(Notifiee& reactor)
      : PendingNotification(reactor, Attribute::kInfo.id) {}

  void deliver() const override { Attribute::deliver(reactor()); }
  uint32_t hash() const override { return hashWith(0); }
  bool isSame(const PendingNotification& other) const override {
    return concernsSame(other) && dynamic_cast<const PendingNotificationOf*>(&other) != nullptr;
  }
};

/// A waiting notification of the entry of a collection under a `Key`.
template <class Attribute, class Key>
class PendingNotificationOf<Attribute, Key> final : public PendingNotification {
 public:
  PendingNotificationOf(Notifiee& reactor, Key key)
      : PendingNotification(reactor, Attribute::kInfo.id), key_(std::move(key)) {}

  void deliver() const override { Attribute::deliver(reactor(), key_); }
  uint32_t hash() const override { return hashWith(Hash<Key>()(key_)); }
  bool isSame(const PendingNotification& other) const override {
    if (!concernsSame(other)) return false;
    const auto* same = dynamic_cast<const PendingNotificationOf*>(&other);
    return same != nullptr && same->key_ == key_;
  }

 private:
  Key key_;
};

}  // namespace Kiv
