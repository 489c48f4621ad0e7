// rtnetlink sockets, on libmnl.
#include "linux/Netlink.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/filter.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <future>
#include <optional>
#include <span>
#include <system_error>
#include <utility>
#include <vector>

#include "linux/Messages.h"

namespace Linux {
namespace {

// The kernel fills up to 32 KiB at a time with a dump; one message may be larger.
constexpr size_t kBufferSize = 64 << 10;
// Datagrams that are read with one call.
constexpr size_t kBuffers = 16;

[[noreturn]] void refuse(const char* call) {
  throw NetlinkError(std::string(call) + " of a netlink socket", errno);
}

SocketPtr openSocket() {
  SocketPtr socket(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC));
  if (!socket) refuse("opening");
  return socket;
}

void bindSocket(const SocketPtr& socket) {
  if (mnl_socket_bind(socket.get(), 0, MNL_SOCKET_AUTOPID) != 0) refuse("binding");
}

void join(const SocketPtr& socket, int group) {
  if (mnl_socket_setsockopt(socket.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof group) != 0)
    refuse("joining a group");
}

// A filter reads the words of a message as if they were in network byte order.
constexpr uint32_t kTypeOffset = offsetof(nlmsghdr, nlmsg_type);
constexpr uint32_t kPortOffset = offsetof(nlmsghdr, nlmsg_pid);
constexpr uint32_t kWholeMessage = UINT32_MAX;

sock_filter load(uint16_t size, uint32_t offset) {
  return BPF_STMT(static_cast<uint16_t>(BPF_LD | size | BPF_ABS), offset);
}
sock_filter jumpIfEqual(uint32_t value, uint8_t ifSo, uint8_t otherwise) {
  return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, value, ifSo, otherwise);
}
sock_filter accept(uint32_t bytes) {
  return BPF_STMT(BPF_RET | BPF_K, bytes);
}

void setFilter(const SocketPtr& socket, std::span<sock_filter> filter) {
  const sock_fprog program{.len = static_cast<uint16_t>(filter.size()), .filter = filter.data()};
  const int fd = mnl_socket_get_fd(socket.get());
  if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0)
    refuse("filtering");
}

void passOverRoutesOf(const SocketPtr& socket, uint32_t port) {
  std::array filter = {
      load(BPF_W, kPortOffset),
      jumpIfEqual(htonl(port), 0, 3),
      load(BPF_H, kTypeOffset),
      jumpIfEqual(htons(RTM_NEWROUTE), 2, 0),
      jumpIfEqual(htons(RTM_DELROUTE), 1, 0),
      accept(kWholeMessage),
      accept(0),
  };
  setFilter(socket, filter);
}

void hearOnly(const SocketPtr& socket, uint16_t type) {
  std::array filter = {
      load(BPF_H, kTypeOffset),
      jumpIfEqual(htons(type), 0, 1),
      accept(kWholeMessage),
      accept(0),
  };
  setFilter(socket, filter);
}

/// Reads a message and hands on its change, or reports that it is unreadable.
void takeMessage(std::span<const std::byte> message, const TakeChange& take, const Warn& warn) {
  std::optional<Change> change;
  try {
    change = readMessage(message);
  } catch (const MessageError& error) {
    if (warn) warn(error.what());
  }
  if (change) take(*change);
}

/// A kind of objects to dump.
struct Kind {
  uint16_t request;
  uint16_t deletion;  ///< the message about a deletion
  int family;
  size_t headerSize;
  std::array<int, 2> groups;  ///< of notifications about deletions
};

constexpr std::array kKinds = {
    Kind{RTM_GETLINK, RTM_DELLINK, AF_UNSPEC, sizeof(ifinfomsg), {RTNLGRP_LINK}},
    Kind{RTM_GETADDR,
         RTM_DELADDR,
         AF_UNSPEC,
         sizeof(ifaddrmsg),
         {RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR}},
    Kind{RTM_GETNEXTHOP, RTM_DELNEXTHOP, AF_UNSPEC, sizeof(nhmsg), {RTNLGRP_NEXTHOP}},
    Kind{RTM_GETROUTE, RTM_DELROUTE, AF_INET, sizeof(rtmsg), {RTNLGRP_IPV4_ROUTE}},
    Kind{RTM_GETROUTE, RTM_DELROUTE, AF_INET6, sizeof(rtmsg), {RTNLGRP_IPV6_ROUTE}},
    Kind{RTM_GETNEIGH, RTM_DELNEIGH, AF_UNSPEC, sizeof(ndmsg), {RTNLGRP_NEIGH}},
    Kind{RTM_GETNEIGH, RTM_DELNEIGH, AF_BRIDGE, sizeof(ndmsg), {RTNLGRP_NEIGH}},
};

/// Detects deletions of objects of a kind.
class DeletionWatch {
 public:
  explicit DeletionWatch(const Kind& kind) : socket_(openSocket()) {
    bindSocket(socket_);
    hearOnly(socket_, kind.deletion);
    for (const int group : kind.groups) {
      if (group != 0) join(socket_, group);
    }
  }
  bool sawAny() {
    const int fd = mnl_socket_get_fd(socket_.get());
    return recv(fd, nullptr, 0, MSG_DONTWAIT | MSG_TRUNC) >= 0 || errno != EAGAIN;
  }

 private:
  SocketPtr socket_;
};

/// Dumps all objects of a kind.
class Dump {
 public:
  Dump(const TakeChange& take, const Warn& warn) : take_(take), warn_(warn), socket_(openSocket()) {
    bindSocket(socket_);
    // With strict checking the kernel evaluates the whole header: no cached routes, no statistics.
    int on = 1;
    mnl_socket_setsockopt(socket_.get(), NETLINK_GET_STRICT_CHK, &on, sizeof on);
  }

  /// \return false when it was interrupted.
  bool run(const Kind& kind) {
    request(kind);
    isInterrupted_ = false;
    auto datagram = receive(buffers_[0]);
    for (size_t next = 1; !isLast(datagram); next = 1 - next) {
      auto following = readAhead(buffers_[next], datagram.size() > kThreadBytes);
      handle(kind, datagram);
      datagram = following.get();
    }
    handle(kind, datagram);
    return !isInterrupted_;
  }

 private:
  using Datagram = std::span<const std::byte>;

  /// The size in bytes above which reading the next datagram in a thread saves time.
  static constexpr size_t kThreadBytes = 16 << 10;

  void request(const Kind& kind) {
    std::array<std::byte, 256> buffer{};
    nlmsghdr* const message = mnl_nlmsg_put_header(buffer.data());
    message->nlmsg_type = kind.request;
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    message->nlmsg_seq = ++sequence_;
    auto* const head =
        static_cast<unsigned char*>(mnl_nlmsg_put_extra_header(message, kind.headerSize));
    *head = static_cast<unsigned char>(kind.family);  // the first member of each kind of header
    if (kind.request == RTM_GETLINK)
      mnl_attr_put_u32(message, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
    if (mnl_socket_sendto(socket_.get(), message, message->nlmsg_len) < 0) refuse("writing");
  }

  /// Reads the next datagram while the caller handles the former one, if there are many objects:
  /// the kernel makes a datagram within the call that reads it. Without a thread, get() reads it.
  std::future<Datagram> readAhead(std::vector<std::byte>& buffer, bool areMany) {
    const auto read = [this, &buffer] { return receive(buffer); };
    if (areMany) {
      try {
        return std::async(std::launch::async, read);
      } catch (const std::system_error&) {  // the system refuses a thread
      }
    }
    return std::async(std::launch::deferred, read);
  }
  Datagram receive(std::vector<std::byte>& buffer) {
    while (true) {
      const ssize_t size = mnl_socket_recvfrom(socket_.get(), buffer.data(), buffer.size());
      if (size >= 0) return Datagram(buffer).first(static_cast<size_t>(size));
      if (errno != EINTR) refuse("reading");
    }
  }

  bool endsDump(const nlmsghdr& header) const {
    return header.nlmsg_seq == sequence_ &&
           (header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR);
  }
  bool isLast(Datagram datagram) const {
    bool isLast = false;
    forEachMessage(datagram, [&](const nlmsghdr& header, Datagram) {
      if (endsDump(header)) isLast = true;
    });
    return isLast;
  }
  void handle(const Kind& kind, Datagram datagram) {
    forEachMessage(datagram, [&](const nlmsghdr& header, Datagram message) {
      if (header.nlmsg_seq != sequence_) return;
      if ((header.nlmsg_flags & NLM_F_DUMP_INTR) != 0) isInterrupted_ = true;
      if (endsDump(header)) {
        finish(kind, message);
      } else {
        takeMessage(message, take_, warn_);
      }
    });
  }

  void finish(const Kind& kind, std::span<const std::byte> message) {
    int error = 0;
    if (message.size() < sizeof(nlmsghdr) + sizeof error) return;
    std::memcpy(&error, message.data() + sizeof(nlmsghdr), sizeof error);
    // Kernels before 5.3 have no nexthop objects.
    if (error == 0 || (error == -EOPNOTSUPP && kind.request == RTM_GETNEXTHOP)) return;
    errno = -error;
    refuse("dumping the objects");
  }

  const TakeChange& take_;
  const Warn& warn_;
  SocketPtr socket_;
  std::array<std::vector<std::byte>, 2> buffers_{std::vector<std::byte>(kBufferSize),
                                                 std::vector<std::byte>(kBufferSize)};
  uint32_t sequence_ = 0;
  bool isInterrupted_ = false;
};

/// The kernel's table of neighbours of one family, in all namespaces.
struct NeighborTable {
  ndt_config config = {};
  uint32_t threshold = 0;  ///< gc_thresh1

  /// Identifies the hash table. The kernel chooses other numbers when it enlarges the table.
  std::pair<uint32_t, uint32_t> hash() const {
    return {config.ndtc_hash_mask, config.ndtc_hash_rnd};
  }
};

/// Reads a message about a neighbour table (RTM_NEWNEIGHTBL). Nothing for a message about the
/// table's parameters on one interface.
std::optional<NeighborTable> neighborTableOf(std::span<const std::byte> message) {
  const auto* const header = reinterpret_cast<const nlmsghdr*>(message.data());
  const nlattr* config = nullptr;
  const nlattr* threshold = nullptr;
  const auto* attribute =
      static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(header, sizeof(ndtmsg)));
  const auto* end = static_cast<const char*>(mnl_nlmsg_get_payload_tail(header));
  while (mnl_attr_ok(attribute, static_cast<int>(end - reinterpret_cast<const char*>(attribute)))) {
    if (mnl_attr_get_type(attribute) == NDTA_CONFIG) config = attribute;
    if (mnl_attr_get_type(attribute) == NDTA_THRESH1) threshold = attribute;
    attribute = mnl_attr_next(attribute);
  }
  NeighborTable table;
  if (config == nullptr || mnl_attr_get_payload_len(config) < sizeof table.config) return {};
  if (threshold == nullptr || mnl_attr_validate(threshold, MNL_TYPE_U32) < 0) return {};
  std::memcpy(&table.config, mnl_attr_get_payload(config), sizeof table.config);
  table.threshold = mnl_attr_get_u32(threshold);
  return table;
}

/// \return nothing if the kernel does not report it.
std::optional<NeighborTable> neighborTable(int family) {
  const SocketPtr socket = openSocket();
  bindSocket(socket);
  std::array<std::byte, 64> request{};
  nlmsghdr* const message = mnl_nlmsg_put_header(request.data());
  message->nlmsg_type = RTM_GETNEIGHTBL;
  message->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  auto* const head = static_cast<ndtmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(ndtmsg)));
  head->ndtm_family = family == 4 ? AF_INET : AF_INET6;
  if (mnl_socket_sendto(socket.get(), message, message->nlmsg_len) < 0) refuse("writing");
  std::vector<std::byte> buffer(kBufferSize);
  std::optional<NeighborTable> result;
  for (bool isMore = true; isMore;) {
    const ssize_t size = mnl_socket_recvfrom(socket.get(), buffer.data(), buffer.size());
    if (size < 0 && errno == EINTR) continue;
    if (size < 0) refuse("reading");
    forEachMessage(std::span(buffer).first(static_cast<size_t>(size)),
                   [&](const nlmsghdr& header, std::span<const std::byte> answer) {
                     if (header.nlmsg_type == NLMSG_DONE || header.nlmsg_type == NLMSG_ERROR) {
                       isMore = false;
                     } else if (header.nlmsg_type == RTM_NEWNEIGHTBL && !result) {
                       result = neighborTableOf(answer);
                     }
                   });
  }
  return result;
}

using Hashes = std::array<std::pair<uint32_t, uint32_t>, 2>;

/// The hashes of both families; zero for an unknown one.
Hashes neighborHashes() {
  const auto hashOf = [](int family) {
    return neighborTable(family).value_or(NeighborTable()).hash();
  };
  return {hashOf(4), hashOf(6)};
}

}  // namespace

void CloseSocket::operator()(mnl_socket* socket) const {
  mnl_socket_close(socket);
}

/// The buffers of recvmmsg(). Pages without messages take no memory.
struct NotificationSocket::Buffers {
  std::unique_ptr<std::array<std::byte, kBufferSize>[]> bytes {
    new std::array<std::byte, kBufferSize>[ kBuffers ]
  };
  std::array<sockaddr_nl, kBuffers> senders{};
  std::array<iovec, kBuffers> vectors{};
  std::array<mmsghdr, kBuffers> messages{};

  Buffers() {
    for (size_t i = 0; i < kBuffers; ++i) {
      vectors[i] = {.iov_base = bytes[i].data(), .iov_len = kBufferSize};
      messages[i].msg_hdr.msg_iov = &vectors[i];
      messages[i].msg_hdr.msg_iovlen = 1;
      messages[i].msg_hdr.msg_name = &senders[i];
      messages[i].msg_hdr.msg_namelen = sizeof(sockaddr_nl);
    }
  }
};

NotificationSocket::NotificationSocket(const Options& options)
    : warn_(options.warn), socket_(openSocket()), buffers_(std::make_unique<Buffers>()) {
  // The kernel doubles the size, for its overhead.
  const int size = static_cast<int>(std::min<size_t>(options.receiveBuffer, INT32_MAX) / 2);
  if (setsockopt(fd(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0)
    setsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  if (options.ownPort != 0) passOverRoutesOf(socket_, options.ownPort);
  bindSocket(socket_);
  for (const int group : {RTNLGRP_LINK, RTNLGRP_NEIGH, RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR,
                          RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE})
    join(socket_, group);
  // Kernels before 5.3 have no nexthop objects.
  int group = RTNLGRP_NEXTHOP;
  mnl_socket_setsockopt(socket_.get(), NETLINK_ADD_MEMBERSHIP, &group, sizeof group);
}

NetlinkError::NetlinkError(const std::string& call, int error)
    : std::runtime_error(call + ": " + std::strerror(error)), number_(error) {}

NotificationSocket::~NotificationSocket() = default;

int NotificationSocket::fd() const {
  return mnl_socket_get_fd(socket_.get());
}

size_t NotificationSocket::receiveBuffer() const {
  int size = 0;
  socklen_t length = sizeof size;
  if (getsockopt(fd(), SOL_SOCKET, SO_RCVBUF, &size, &length) != 0) refuse("asking for the buffer");
  return static_cast<size_t>(size);
}

bool NotificationSocket::read(size_t most, const TakeChange& take) {
  auto& messages = buffers_->messages;
  for (size_t count = 0; count < most;) {
    const int received =
        recvmmsg(fd(), messages.data(), static_cast<unsigned>(kBuffers), MSG_DONTWAIT, nullptr);
    if (received < 0) {
      if (errno == EAGAIN) return true;
      if (errno == EINTR) continue;
      if (errno == ENOBUFS) return drain();
      refuse("reading");
    }
    const auto datagrams = static_cast<size_t>(received);
    for (size_t i = 0; i < datagrams; ++i, ++count) {
      // Other processes may send to this socket, too.
      if (buffers_->senders[i].nl_pid != 0) continue;
      if ((messages[i].msg_hdr.msg_flags & MSG_TRUNC) != 0) return drain();
      const auto datagram =
          std::span<const std::byte>(buffers_->bytes[i]).first(messages[i].msg_len);
      try {
        forEachMessage(datagram, [&](const nlmsghdr&, std::span<const std::byte> message) {
          takeMessage(message, take, warn_);
        });
      } catch (const MessageError& error) {
        if (warn_) warn_(error.what());
      }
    }
    // The socket was empty. Later messages and losses make it readable again.
    if (datagrams < kBuffers) return true;
  }
  return true;
}

/// Empties the socket. Until it is empty, the kernel drops further notifications without a report.
bool NotificationSocket::drain() {
  while (recv(fd(), nullptr, 0, MSG_DONTWAIT | MSG_TRUNC) >= 0 || errno == EINTR ||
         errno == ENOBUFS)
    continue;
  if (errno != EAGAIN) refuse("reading");
  return false;
}

bool mayCollectNeighbors(int family) {
  const auto table = neighborTable(family);
  // With many idle hosts, some new ones may fill the table at once.
  return !table || uint64_t{2} * table->config.ndtc_entries >= table->threshold;
}

bool dumpAll(const TakeChange& take, const Warn& warn) {
  constexpr int kAttempts = 4;
  Dump dump(take, warn);
  for (const Kind& kind : kKinds) {
    bool isWhole = false;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
      DeletionWatch watch(kind);
      const bool isHashed = kind.request == RTM_GETNEIGH && kind.family == AF_UNSPEC;
      const auto before = isHashed ? neighborHashes() : Hashes();
      try {
        isWhole = dump.run(kind);
      } catch (const MessageError& error) {
        throw NetlinkError(std::string("a dump: ") + error.what(), EBADMSG);
      }
      if (isWhole && !watch.sawAny() && (!isHashed || neighborHashes() == before)) break;
    }
    if (!isWhole) return false;
  }
  return true;
}

}  // namespace Linux
