// Reads any bytes as netlink messages, and applies them to a mirror. Each message is read or
// refused. The mirror can be walked, and is empty after a dump without objects.
#include <cstdint>
#include <cstdlib>
#include <span>

#include "linux/Messages.h"
#include "linux/Mirror.h"
#include "platform/kiv/containers/Hash.h"
#include "tests/linux/MirrorText.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  Kiv::hashSeedIs({.add = 1, .multiply = 0x9E3779B97F4A7C15});  // makes runs repeatable
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Linux::Mirror mirror(205);
  try {
    const auto take = [&](const nlmsghdr& header, std::span<const std::byte> message) {
      // A type that the kernel does not use begins a dump.
      if (header.nlmsg_type == NLMSG_NOOP) mirror.beginDump();
      if (header.nlmsg_type == NLMSG_DONE) mirror.endDump();
      try {
        if (const auto change = Linux::readMessage(message)) mirror.apply(*change);
      } catch (const Linux::MessageError&) {
      }
    };
    Linux::forEachMessage(std::as_bytes(std::span(data, size)), take);
  } catch (const Linux::MessageError&) {
  }
  textOf(mirror);
  mirror.beginDump();
  mirror.endDump();
  if (!textOf(mirror).empty()) std::abort();
  return 0;
}
