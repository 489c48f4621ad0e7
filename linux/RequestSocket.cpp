#include "linux/RequestSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <string>

#include "linux/Netlink.h"

namespace Linux {
namespace {

using Verb = RouteRequest::Verb;

/// The wanted size of the receive buffer and of the send buffer.
constexpr int kSocketBuffer = 4 << 20;
/// The room that one refusal needs in the receive buffer, with the kernel's overhead.
constexpr size_t kAnswerCost = 1024;
/// A longer batch is not faster.
constexpr size_t kMostMessages = 1024;
/// The most next hops of a route, and the size of the longest message.
constexpr size_t kMostVias = 256;
constexpr size_t kLongestMessage = 16384;
constexpr size_t kBatchBytes = 128 << 10;
/// The size of the buffer for a datagram, which has one answer.
constexpr size_t kAnswerBytes = 8192;

[[noreturn]] void fail(const char* call) {
  throw NetlinkError(std::string("netlink: ") + call, errno);
}

/// Sets the size of a socket's buffer, above the system's limit if the process may.
/// \return the size that the kernel granted.
size_t setBuffer(int fd, int force, int option) {
  if (::setsockopt(fd, SOL_SOCKET, force, &kSocketBuffer, sizeof kSocketBuffer) != 0) {
    ::setsockopt(fd, SOL_SOCKET, option, &kSocketBuffer, sizeof kSocketBuffer);
  }
  int size = 0;
  socklen_t length = sizeof size;
  ::getsockopt(fd, SOL_SOCKET, option, &size, &length);
  return static_cast<size_t>(size);
}

/// An address in network order.
struct WireAddr {
  std::array<uint8_t, 16> bytes{};
  size_t length = 0;

  explicit WireAddr(const Zemit::IpAddr& addr) : length(4) { put(addr.value(), 0); }
  explicit WireAddr(const Zemit::Ip6Addr& addr) : length(16) {
    put(addr.high(), 0);
    put(addr.low(), 8);
  }
  explicit WireAddr(const Address& addr)
      : WireAddr(std::visit([](const auto& a) { return WireAddr(a); }, addr)) {}

  template <class Word>
  void put(Word word, size_t at) {
    for (size_t i = 0; i < sizeof word; ++i) {
      bytes[at + i] = static_cast<uint8_t>(word >> 8 * (sizeof word - 1 - i));
    }
  }
};

uint8_t addressFamily(int family) {
  return family == 4 ? AF_INET : AF_INET6;
}

void putAddr(nlmsghdr* message, uint16_t type, const WireAddr& addr) {
  ::mnl_attr_put(message, type, addr.length, addr.bytes.data());
}

/// Adds the gateway of a next hop, if it has one.
void putGateway(nlmsghdr* message, const RouteVia& via, int family) {
  if (!via.gateway) return;
  const WireAddr gateway(*via.gateway);
  if (familyOf(*via.gateway) == family) {
    putAddr(message, RTA_GATEWAY, gateway);
    return;
  }
  // struct rtvia: the family of the gateway before its address.
  std::array<uint8_t, 18> bytes{};
  const uint16_t viaFamily = addressFamily(familyOf(*via.gateway));
  std::memcpy(bytes.data(), &viaFamily, sizeof viaFamily);
  std::memcpy(bytes.data() + 2, gateway.bytes.data(), gateway.length);
  ::mnl_attr_put(message, RTA_VIA, 2 + gateway.length, bytes.data());
}

void putVias(nlmsghdr* message, const std::vector<RouteVia>& vias, int family) {
  if (vias.size() == 1) {
    putGateway(message, vias.front(), family);
    ::mnl_attr_put_u32(message, RTA_OIF, vias.front().link);
    return;
  }
  auto* const nest = ::mnl_attr_nest_start(message, RTA_MULTIPATH);
  for (const auto& via : vias) {
    auto* const hop = static_cast<rtnexthop*>(::mnl_nlmsg_get_payload_tail(message));
    const uint32_t begin = message->nlmsg_len;
    *hop = {};
    hop->rtnh_ifindex = static_cast<int>(via.link);
    message->nlmsg_len += MNL_ALIGN(sizeof *hop);
    putGateway(message, via, family);
    hop->rtnh_len = static_cast<uint16_t>(message->nlmsg_len - begin);
  }
  ::mnl_attr_nest_end(message, nest);
}

/// Writes the message of a request. \return 0, or the errno of a request that cannot be sent.
int putRequest(nlmsghdr* message, const RouteRequest& request, uint8_t protocol) {
  const auto& vias = request.value.vias;
  const bool adds = request.verb == Verb::Add || request.verb == Verb::AddBlackhole;
  if (request.verb == Verb::Add && vias.empty()) return EINVAL;
  if (vias.size() > kMostVias) return EMSGSIZE;

  message->nlmsg_type = adds ? RTM_NEWROUTE : RTM_DELROUTE;
  message->nlmsg_flags = NLM_F_REQUEST;
  if (adds) message->nlmsg_flags |= NLM_F_CREATE | NLM_F_EXCL;
  const int family = familyOf(request.key.prefix);
  auto* const route = static_cast<rtmsg*>(::mnl_nlmsg_put_extra_header(message, sizeof(rtmsg)));
  route->rtm_family = addressFamily(family);
  route->rtm_table = RT_TABLE_UNSPEC;
  route->rtm_protocol = protocol;
  // A deletion removes a route of any scope and type.
  route->rtm_scope = adds ? RT_SCOPE_UNIVERSE : RT_SCOPE_NOWHERE;
  if (adds) route->rtm_type = request.verb == Verb::Add ? RTN_UNICAST : RTN_BLACKHOLE;
  std::visit(
      [&](const auto& prefix) {
        route->rtm_dst_len = static_cast<uint8_t>(prefix.len());
        putAddr(message, RTA_DST, WireAddr(prefix.addr()));
      },
      request.key.prefix);
  ::mnl_attr_put_u32(message, RTA_TABLE, request.key.table);
  ::mnl_attr_put_u32(message, RTA_PRIORITY, request.value.metric);
  if (request.verb != Verb::Add) return 0;

  const bool isDirect =
      std::ranges::none_of(vias, [](const auto& via) { return bool(via.gateway); });
  if (family == 4 && isDirect) route->rtm_scope = RT_SCOPE_LINK;
  if (request.value.preferredSource) {
    putAddr(message, RTA_PREFSRC, WireAddr(*request.value.preferredSource));
  }
  putVias(message, vias, family);
  return 0;
}

/// Writes a probe. NLM_F_REPLACE is not set, because it would clear the MAC address and the router
/// flag. NLM_F_CREATE is not set, because it would create an entry.
void putProbe(nlmsghdr* message, const Probe& probe) {
  message->nlmsg_type = RTM_NEWNEIGH;
  message->nlmsg_flags = NLM_F_REQUEST;
  auto* const neighbor = static_cast<ndmsg*>(::mnl_nlmsg_put_extra_header(message, sizeof(ndmsg)));
  neighbor->ndm_family = addressFamily(familyOf(probe.addr));
  neighbor->ndm_ifindex = static_cast<int>(probe.link);
  neighbor->ndm_state = NUD_PROBE;
  putAddr(message, NDA_DST, WireAddr(probe.addr));
}

}  // namespace

void RequestSocket::CloseSocket::operator()(mnl_socket* socket) const {
  ::mnl_socket_close(socket);
}

RequestSocket::RequestSocket(uint8_t protocol)
    : socket_(::mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK)),
      protocol_(protocol),
      batch_(kBatchBytes + kLongestMessage),
      answers_(kAnswerBytes) {
  if (!socket_) fail("socket");
  if (::mnl_socket_bind(socket_.get(), 0, MNL_SOCKET_AUTOPID) != 0) fail("bind");
  // Refusals do not contain the request then.
  int on = 1;
  ::mnl_socket_setsockopt(socket_.get(), NETLINK_CAP_ACK, &on, sizeof on);
  const int fd = ::mnl_socket_get_fd(socket_.get());
  setBuffer(fd, SO_SNDBUFFORCE, SO_SNDBUF);
  // The kernel may refuse all messages of a batch.
  const size_t receiveBuffer = setBuffer(fd, SO_RCVBUFFORCE, SO_RCVBUF);
  mostMessages_ = std::clamp<size_t>(receiveBuffer / kAnswerCost, 1, kMostMessages);
}

RequestSocket::~RequestSocket() = default;

uint32_t RequestSocket::port() const {
  return ::mnl_socket_get_portid(socket_.get());
}

void RequestSocket::perform(std::span<const RouteRequest> requests, std::span<int> results) {
  exchange(requests.size(), results, [&](nlmsghdr* message, size_t i) {
    return putRequest(message, requests[i], protocol_);
  });
}

void RequestSocket::probe(std::span<const Probe> probes) {
  std::vector<int> results(probes.size());
  exchange(probes.size(), results, [&](nlmsghdr* message, size_t i) {
    putProbe(message, probes[i]);
    return 0;
  });
}

/// Sends `count` messages, written by `write`, in batches. The sequence number of an answer
/// identifies the message.
template <class Write>
void RequestSocket::exchange(size_t count, std::span<int> results, Write write) {
  for (size_t first = 0, next = 0; first < count; first = next) {
    size_t length = 0;
    size_t messages = 0;
    nlmsghdr* last = nullptr;
    for (; next < count && messages < mostMessages_ && length < kBatchBytes; ++next) {
      auto* const message = ::mnl_nlmsg_put_header(batch_.data() + length);
      results[next] = write(message, next);
      if (results[next] != 0) continue;
      message->nlmsg_seq = sequence_ + static_cast<uint32_t>(next - first);
      length += MNL_ALIGN(message->nlmsg_len);
      last = message;
      ++messages;
    }
    if (last == nullptr) continue;
    last->nlmsg_flags |= NLM_F_ACK;
    send(length, last->nlmsg_seq, results.subspan(first, next - first));
    sequence_ += static_cast<uint32_t>(next - first);
  }
}

void RequestSocket::send(size_t length, uint32_t last, std::span<int> results) {
  const auto set = [&](int from, int to) { std::ranges::replace(results, from, to); };
  ssize_t sent = 0;
  do {
    sent = ::mnl_socket_sendto(socket_.get(), batch_.data(), length);
  } while (sent < 0 && errno == EINTR);
  // After an error the kernel has taken no message.
  if (sent < 0) return set(0, errno);
  if (!takeAnswers(last, results)) set(0, kUnknown);
}

/// Reads the answers to a batch up to that of its last message. All have arrived already. \return
/// false when some were lost.
bool RequestSocket::takeAnswers(uint32_t last, std::span<int> results) {
  bool isComplete = true;
  while (true) {
    const auto got = ::mnl_socket_recvfrom(socket_.get(), answers_.data(), answers_.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 && errno == ENOBUFS) {
      isComplete = false;
      continue;
    }
    if (got < 0) return false;
    int left = static_cast<int>(got);
    for (auto* message = reinterpret_cast<const nlmsghdr*>(answers_.data());
         ::mnl_nlmsg_ok(message, left); message = ::mnl_nlmsg_next(message, &left)) {
      if (message->nlmsg_type != NLMSG_ERROR) continue;
      if (::mnl_nlmsg_get_payload_len(message) < sizeof(nlmsgerr)) continue;
      const auto* const answer = static_cast<const nlmsgerr*>(::mnl_nlmsg_get_payload(message));
      const uint32_t at = message->nlmsg_seq - sequence_;
      if (at >= results.size()) continue;
      results[at] = -answer->error;
      if (message->nlmsg_seq == last) return isComplete;
    }
  }
}

}  // namespace Linux
