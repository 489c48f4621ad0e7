#include "linux/RouteValuePool.h"

namespace Linux {

RouteValuePool::Id RouteValuePool::take(RouteValue value) {
  // Most routes have the value of the last one.
  if (slots_[last_].users != 0 && slots_[last_].at->first == value) return share(last_);
  const auto [at, isNew] = index_.try_emplace(std::move(value), 0);
  if (isNew) {
    if (unused_.empty()) {
      at->second = static_cast<Id>(slots_.size());
      slots_.emplace_back();
    } else {
      at->second = unused_.back();
      unused_.pop_back();
    }
    slots_[at->second].at = at;
  }
  last_ = at->second;
  return share(last_);
}

void RouteValuePool::drop(Id id) {
  if (id == 0 || --slots_[id].users != 0) return;
  index_.erase(slots_[id].at);
  unused_.push_back(id);
}

}  // namespace Linux
