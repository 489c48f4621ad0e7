// The message of a refused operation.
#pragma once

#include <string>

#include "platform/kiv/containers/Exception.h"

/// Runs `operation` and returns the message of its exception.
template <class Operation>
std::string refusal(Operation operation) {
  try {
    operation();
  } catch (const Kiv::Exception& e) {
    return e.what();
  }
  return "(not refused)";
}
