// rtnetlink messages, read and made. No socket: bytes in, values out, and the other way round.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "linux/Values.h"

namespace Linux {

/// A message is not what its type says. what() names the type and what is wrong with it.
class MessageError : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

/// What one rtnetlink message says; nothing for kinds that this system does not use (cached routes,
/// multicast routes, other families).
///
/// \param message  one whole message with its header (struct nlmsghdr), in place in a buffer.
/// \throws MessageError when it is cut short or an attribute has a wrong size.
std::optional<Change> readMessage(std::span<const std::byte> message);

/// Calls `visit` with each message of a datagram (or file) of messages, headers included.
/// \throws MessageError when the last message is cut short.
template <class Visit>
void forEachMessage(std::span<const std::byte> datagram, Visit visit);

}  // namespace Linux
