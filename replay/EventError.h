// The error of a line that is not a valid event.
#pragma once

#include <stdexcept>

namespace Replay {

/// A line is not a valid event. what() names the wrong field and gives the reason.
class EventError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace Replay
