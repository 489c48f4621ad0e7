// rtnetlink messages, read as values. No socket: bytes in, values out.
#pragma once

#include <linux/netlink.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>

#include "linux/Values.h"

namespace Linux {

/// A message is invalid for its type. what() names the type and the fault.
class MessageError : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

/// Reads one rtnetlink message. \return nothing for kinds that this system does not use (cached
/// routes, multicast routes, other families, messages about bridge ports).
///
/// The last one of a repeated attribute counts. A change from a dump (NLM_F_MULTI) has no sender.
///
/// \param message  one whole message with its header (struct nlmsghdr).
/// \throws MessageError when the message is incomplete, an attribute has a wrong size, or a
///         necessary attribute is missing.
std::optional<Change> readMessage(std::span<const std::byte> message);

/// Calls `visit` with each message of a datagram or file, and with a copy of its header.
/// \throws MessageError when the last message is incomplete.
template <class Visit>
void forEachMessage(std::span<const std::byte> datagram, const Visit& visit) {
  while (!datagram.empty()) {
    nlmsghdr header;
    if (datagram.size() < sizeof header) throw MessageError("a message's header is cut short");
    std::memcpy(&header, datagram.data(), sizeof header);
    if (header.nlmsg_len < sizeof header || header.nlmsg_len > datagram.size())
      throw MessageError("message type " + std::to_string(header.nlmsg_type) + " is cut short");
    visit(header, datagram.first(header.nlmsg_len));
    datagram = datagram.subspan(std::min<size_t>(NLMSG_ALIGN(header.nlmsg_len), datagram.size()));
  }
}

}  // namespace Linux
