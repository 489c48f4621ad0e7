// Writes host routes and probes into the kernel, on libmnl.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "linux/Probing.h"
#include "linux/RouteRequest.h"

struct mnl_socket;
struct nlmsghdr;

namespace Linux {

/// Writes host routes and probes through one socket, in batches.
///
/// The kernel carries out a batch before the call that sends it returns. It answers refused
/// requests and the last message of the batch only, so successful requests need no answers.
class RequestSocket final : public RouteChannel {
 public:
  /// \param protocol  the protocol number of our routes.
  /// \throws NetlinkError when the socket cannot be opened.
  explicit RequestSocket(uint8_t protocol);
  ~RequestSocket() override;

  /// The socket's netlink port, which identifies notifications of its own requests.
  uint32_t port() const;
  void perform(std::span<const RouteRequest> requests, std::span<int> results) override;
  /// Sets neighbours to NUD_PROBE, so that the kernel probes them. Entries that do not exist any
  /// more are skipped.
  void probe(std::span<const Probe> probes);

 private:
  struct CloseSocket {
    void operator()(mnl_socket* socket) const;
  };

  template <class Write>
  void exchange(size_t count, std::span<int> results, Write write);
  void send(size_t length, uint32_t last, std::span<int> results);
  bool takeAnswers(uint32_t last, std::span<int> results);

  std::unique_ptr<mnl_socket, CloseSocket> socket_;
  uint8_t protocol_;
  uint32_t sequence_ = 1;  // of the first message of the batch
  size_t mostMessages_ = 0;
  std::vector<char> batch_, answers_;
};

}  // namespace Linux
