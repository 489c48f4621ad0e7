#include "platform/kiv/runtime/Activity.h"

#include <utility>

#include "platform/kiv/runtime/Notifiee.h"

namespace Kiv {

void ActivityConfig::enqueue(std::unique_ptr<PendingNotification> notification) {
  deliver(*notification);
}

std::vector<std::unique_ptr<PendingNotification>> ActivityConfig::withdraw(Notifiee& /*reactor*/) {
  return {};
}

void ActivityConfig::deliverCurrent(Notifiee& reactor) {
  if (current_ != nullptr && &current_->reactor() == &reactor) current_->deliver();
}

bool ActivityConfig::deliver(const PendingNotification& notification) {
  Notifiee& reactor = notification.reactor();
  if (!reactor.acceptsNotifications()) return false;
  const Kiv::Ptr<Notifiee> alive(&reactor);
  const auto* outer = std::exchange(current_, &notification);
  try {
    reactor.handleNotification(*this);
  } catch (...) {
    reactor.onNotificationException(notification.attribute());
  }
  current_ = outer;
  return true;
}

void QueueingActivity::enqueue(std::unique_ptr<PendingNotification> notification) {
  // The queue comes first: if it fails, waiting_ must not refer to the notification.
  queue_.push_back(std::move(notification));
  bool isNew = false;
  try {
    isNew = waiting_.insert({queue_.back().get()});
  } catch (...) {
    queue_.pop_back();
    throw;
  }
  if (!isNew) queue_.pop_back();
}

std::vector<std::unique_ptr<PendingNotification>> QueueingActivity::withdraw(Notifiee& reactor) {
  std::vector<std::unique_ptr<PendingNotification>> withdrawn;
  if (waiting_.empty()) return withdrawn;
  for (auto& notification : queue_) {
    if (notification == nullptr || &notification->reactor() != &reactor) continue;
    withdrawn.push_back(std::move(notification));
    waiting_.erase({withdrawn.back().get()});
  }
  return withdrawn;
}

size_t QueueingActivity::run() {
  if (isDelivering()) return 0;
  const Ptr alive(this);  // a callback may drop the last reactor that has a handle to this
  size_t delivered = 0;
  for (size_t left = queue_.size(); left != 0; --left) {
    const auto notification = std::move(queue_.front());
    queue_.pop_front();
    if (notification == nullptr) continue;
    // It does not count as waiting while it is delivered: if its callback announces the same change
    // again, that is queued again.
    waiting_.erase({notification.get()});
    if (deliver(*notification)) ++delivered;
  }
  return delivered;
}

}  // namespace Kiv
