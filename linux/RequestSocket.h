// Writes host routes and probes into the kernel, on libmnl.
#pragma once

#include <cstdint>
#include <span>

#include "linux/KernelRoutes.h"
#include "linux/Probing.h"

namespace Linux {

/// Writes host routes and probes through one socket, in batches.
class RequestSocket final : public RouteChannel {
 public:
  /// \param protocol  the protocol number of our routes.
  explicit RequestSocket(uint8_t protocol);

  /// The socket's netlink port, by which its own notifications are known.
  uint32_t port() const;
  void perform(std::span<const RouteRequest> requests, std::span<int> results) override;
  void probe(std::span<const Probe> probes);
};

}  // namespace Linux
