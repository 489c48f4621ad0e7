#include "platform/kiv/Activity.h"

#include "platform/kiv/Exception.h"
#include "platform/kiv/Notifiee.h"

namespace Kiv {

void ActivityConfig::enqueue(std::unique_ptr<PendingNotification> /*notification*/) {
  throw Exception("this activity delivers at once and has no queue");
}

void QueueingActivity::enqueue(std::unique_ptr<PendingNotification> notification) {
  if (!known_.insert(notification.get()).second) return;
  queue_.push_back(std::move(notification));
}

void QueueingActivity::cancel(Notifiee& reactor) noexcept {
  for (const auto& notification : queue_) {
    if (notification->reactor() != &reactor) continue;
    known_.erase(notification.get());
    notification->cancel();
  }
}

size_t QueueingActivity::run() {
  size_t delivered = 0;
  for (size_t left = queue_.size(); left != 0; --left) {
    const auto notification = std::move(queue_.front());
    queue_.pop_front();
    Notifiee* reactor = notification->reactor();
    if (reactor == nullptr) continue;
    // Forgotten before it is delivered: what its handler announces again must wait again.
    known_.erase(notification.get());
    if (!reactor->acceptsNotifications()) continue;
    const Kiv::Ptr<Notifiee> alive(reactor);
    current_ = notification.get();
    reactor->handleNotification(*this);
    ++delivered;
  }
  current_ = nullptr;
  return delivered;
}

void QueueingActivity::deliverCurrent(Notifiee& reactor) {
  if (current_ == nullptr) return;
  try {
    current_->deliver(reactor);
  } catch (...) {
    reactor.onNotificationException(current_->attribute());
  }
}

}  // namespace Kiv
