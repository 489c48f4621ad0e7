// rtnetlink messages, read as values.
#include "linux/Messages.h"

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/lwtunnel.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace Linux {
namespace {

using Bytes = std::span<const std::byte>;

// Defined in <linux/if.h>, which conflicts with <net/if.h>.
constexpr uint32_t kLowerUp = 1U << 16;

/// One message that is being read. Its errors name its type.
class MessageReader {
 public:
  explicit MessageReader(uint16_t type) : type_(type) {}

  [[noreturn]] void refuse(const std::string& why) const {
    throw MessageError(std::string(name()) + ": " + why);
  }

  /// The struct at the beginning of `bytes`, and the bytes after it.
  template <class T>
  T take(Bytes& bytes) const {
    if (bytes.size() < sizeof(T)) refuse("cut short");
    T value;
    std::memcpy(&value, bytes.data(), sizeof value);
    bytes = bytes.subspan(std::min<size_t>(NLMSG_ALIGN(sizeof value), bytes.size()));
    return value;
  }

 private:
  std::string_view name() const {
    switch (type_) {
      case RTM_NEWLINK:
        return "RTM_NEWLINK";
      case RTM_DELLINK:
        return "RTM_DELLINK";
      case RTM_NEWADDR:
        return "RTM_NEWADDR";
      case RTM_DELADDR:
        return "RTM_DELADDR";
      case RTM_NEWNEIGH:
        return "RTM_NEWNEIGH";
      case RTM_DELNEIGH:
        return "RTM_DELNEIGH";
      case RTM_NEWROUTE:
        return "RTM_NEWROUTE";
      case RTM_DELROUTE:
        return "RTM_DELROUTE";
      case RTM_NEWNEXTHOP:
        return "RTM_NEWNEXTHOP";
      default:
        return "RTM_DELNEXTHOP";
    }
  }

  uint16_t type_;
};

/// The attributes of a message, or those nested in one, up to type kMax.
template <size_t kMax>
class Attributes {
 public:
  Attributes(const MessageReader& reader, Bytes bytes) : reader_(reader) {
    while (bytes.size() >= sizeof(nlattr)) {
      nlattr header;
      std::memcpy(&header, bytes.data(), sizeof header);
      const size_t type = header.nla_type & NLA_TYPE_MASK;
      if (header.nla_len < sizeof header || header.nla_len > bytes.size())
        reader_.refuse("attribute " + std::to_string(type) + " is cut short");
      if (type <= kMax) {
        payloads_[type] = bytes.subspan(sizeof header, header.nla_len - sizeof header);
        present_[type] = true;
      }
      bytes = bytes.subspan(std::min<size_t>(NLA_ALIGN(header.nla_len), bytes.size()));
    }
  }

  bool has(size_t type) const { return present_[type]; }
  Bytes bytes(size_t type) const { return payloads_[type]; }
  /// The attribute's value, or `otherwise` when it is missing.
  template <class T>
  T number(size_t type, T otherwise = 0) const {
    if (!has(type)) return otherwise;
    requireSize(type, sizeof(T));
    T value;
    std::memcpy(&value, payloads_[type].data(), sizeof value);
    return value;
  }
  /// An address of this family; none when the attribute is missing.
  std::optional<Address> address(size_t type, int family) const {
    if (!has(type)) return std::nullopt;
    requireSize(type, family == AF_INET ? 4 : 16);
    return addressAt(payloads_[type], family);
  }
  static Address addressAt(Bytes bytes, int family) {
    if (family == AF_INET) {
      uint32_t value = 0;
      std::memcpy(&value, bytes.data(), sizeof value);
      return Zemit::IpAddr(ntohl(value));
    }
    uint64_t words[2] = {};
    for (size_t i = 0; i < 16; ++i) {
      words[i / 8] = words[i / 8] << 8 | std::to_integer<uint64_t>(bytes[i]);
    }
    return Zemit::Ip6Addr(words[0], words[1]);
  }
  /// An Ethernet address; zero for one of another kind.
  Zemit::EthAddr mac(size_t type) const {
    Zemit::EthAddr::Bytes mac{};
    if (payloads_[type].size() == mac.size())
      std::memcpy(mac.data(), payloads_[type].data(), mac.size());
    return Zemit::EthAddr(mac);
  }
  void requireSize(size_t type, size_t size) const {
    if (payloads_[type].size() == size) return;
    reader_.refuse("attribute " + std::to_string(type) + " has " +
                   std::to_string(payloads_[type].size()) + " bytes instead of " +
                   std::to_string(size));
  }

 private:
  const MessageReader& reader_;
  std::array<Bytes, kMax + 1> payloads_;
  std::array<bool, kMax + 1> present_{};
};

/// A text up to its first zero byte.
std::string_view textOf(Bytes bytes) {
  const std::string_view whole(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  return whole.substr(0, whole.find('\0'));
}

bool isIp(int family) {
  return family == AF_INET || family == AF_INET6;
}

Prefix prefixOf(const Address& addr, uint32_t len) {
  if (const auto* addr4 = std::get_if<Zemit::IpAddr>(&addr))
    return Zemit::Prefix::enclosing(*addr4, len);
  return Zemit::Ip6Prefix::enclosing(std::get<Zemit::Ip6Addr>(addr), len);
}

uint32_t bitsOf(int family) {
  return family == AF_INET ? 32 : 128;
}

/// Whether IFLA_LINK of this kind of interface names its other end and not a lower interface.
bool isPair(std::string_view kind) {
  return kind == "veth" || kind == "netkit" || kind == "vxcan";
}

std::optional<Object> readLink(const MessageReader& reader, Bytes bytes) {
  const auto head = reader.take<ifinfomsg>(bytes);
  // Bridges use these message types for their ports, too.
  if (head.ifi_family != AF_UNSPEC) return std::nullopt;
  if (head.ifi_index <= 0) reader.refuse("no interface");
  const Attributes<IFLA_LINK_NETNSID> attributes(reader, bytes);
  // Wireless drivers send events in messages without data of the interface.
  if (!attributes.has(IFLA_IFNAME)) return std::nullopt;
  Link link;
  link.index = static_cast<LinkIndex>(head.ifi_index);
  link.name = textOf(attributes.bytes(IFLA_IFNAME));
  if (link.name.empty() || link.name.size() >= IFNAMSIZ)
    reader.refuse("an interface name of " + std::to_string(link.name.size()) + " bytes");
  link.master = attributes.number<uint32_t>(IFLA_MASTER);
  link.mac = attributes.mac(IFLA_ADDRESS);
  link.isUp = (head.ifi_flags & IFF_UP) != 0;
  link.hasCarrier = (head.ifi_flags & kLowerUp) != 0;
  link.isLoopback = (head.ifi_flags & IFF_LOOPBACK) != 0;
  link.isNoArp = (head.ifi_flags & IFF_NOARP) != 0;
  if (attributes.has(IFLA_LINKINFO)) {
    const Attributes<IFLA_INFO_SLAVE_KIND> info(reader, attributes.bytes(IFLA_LINKINFO));
    link.kind = textOf(info.bytes(IFLA_INFO_KIND));
    link.masterKind = textOf(info.bytes(IFLA_INFO_SLAVE_KIND));
    if (info.has(IFLA_INFO_DATA) && link.kind == "vrf") {
      const Attributes<IFLA_VRF_TABLE> data(reader, info.bytes(IFLA_INFO_DATA));
      link.vrfTable = data.number<uint32_t>(IFLA_VRF_TABLE);
    } else if (info.has(IFLA_INFO_DATA) && link.kind == "vlan") {
      const Attributes<IFLA_VLAN_ID> data(reader, info.bytes(IFLA_INFO_DATA));
      link.vlan = data.number<uint16_t>(IFLA_VLAN_ID);
    }
  }
  if (!attributes.has(IFLA_LINK_NETNSID) && !isPair(link.kind))
    link.lower = attributes.number<uint32_t>(IFLA_LINK);
  return link;
}

std::optional<Object> readAddress(const MessageReader& reader, Bytes bytes) {
  const auto head = reader.take<ifaddrmsg>(bytes);
  const int family = head.ifa_family;
  if (!isIp(family)) return std::nullopt;
  if (head.ifa_prefixlen > bitsOf(family)) reader.refuse("too great a prefix length");
  const Attributes<IFA_FLAGS> attributes(reader, bytes);
  const auto local = attributes.address(IFA_LOCAL, family);
  const auto other = attributes.address(IFA_ADDRESS, family);
  if (!local && !other) reader.refuse("no address");
  const auto flags = attributes.number<uint32_t>(IFA_FLAGS, head.ifa_flags);
  InterfaceAddress addr;
  addr.link = head.ifa_index;
  addr.addr = local ? *local : *other;
  addr.len = head.ifa_prefixlen;
  if (local && other && *local != *other) {
    addr.peer = other;
    addr.len = bitsOf(family);
  }
  // For an IPv6 address the same bit means a temporary address.
  addr.isSecondary = family == AF_INET && (flags & IFA_F_SECONDARY) != 0;
  addr.isTentative = (flags & IFA_F_TENTATIVE) != 0;
  addr.isDuplicate = (flags & IFA_F_DADFAILED) != 0;
  return addr;
}

std::optional<Object> readNeighbor(const MessageReader& reader, Bytes bytes) {
  const auto head = reader.take<ndmsg>(bytes);
  const int family = head.ndm_family;
  if (!isIp(family) && family != AF_BRIDGE) return std::nullopt;
  const Attributes<NDA_MASTER> attributes(reader, bytes);
  const auto link = static_cast<LinkIndex>(head.ndm_ifindex);
  if (family == AF_BRIDGE) {
    if (!attributes.has(NDA_LLADDR)) reader.refuse("no link-layer address");
    if (attributes.bytes(NDA_LLADDR).size() != 6) return std::nullopt;
    FdbEntry entry;
    entry.port = link;
    entry.bridge = attributes.number<uint32_t>(NDA_MASTER);
    entry.mac = attributes.mac(NDA_LLADDR);
    entry.vlan = attributes.number<uint16_t>(NDA_VLAN);
    entry.isPermanent = (head.ndm_state & NUD_PERMANENT) != 0;
    return entry;
  }
  const auto addr = attributes.address(NDA_DST, family);
  if (!addr) reader.refuse("no address");
  Neighbor neighbor;
  neighbor.link = link;
  neighbor.addr = *addr;
  neighbor.mac = attributes.mac(NDA_LLADDR);
  neighbor.state = head.ndm_state;
  neighbor.isProxy = (head.ndm_flags & NTF_PROXY) != 0;
  neighbor.isLearnedByControlPlane = (head.ndm_flags & NTF_EXT_LEARNED) != 0;
  return neighbor;
}

/// One next hop, from the attributes of a route or of an entry of RTA_MULTIPATH.
NextHop hopOf(const MessageReader& reader, const Attributes<RTA_NH_ID>& attributes, int family,
              uint32_t flags) {
  NextHop hop;
  hop.gateway = attributes.address(RTA_GATEWAY, family);
  if (attributes.has(RTA_VIA)) {
    Bytes via = attributes.bytes(RTA_VIA);
    if (via.size() < sizeof(uint16_t)) reader.refuse("RTA_VIA is cut short");
    uint16_t viaFamily = 0;
    std::memcpy(&viaFamily, via.data(), sizeof viaFamily);
    via = via.subspan(sizeof viaFamily);
    if (isIp(viaFamily)) {
      if (via.size() != (viaFamily == AF_INET ? 4U : 16U))
        reader.refuse("RTA_VIA has an address of " + std::to_string(via.size()) + " bytes");
      hop.gateway = Attributes<0>::addressAt(via, viaFamily);
    }
  }
  hop.isTunnelled =
      attributes.number<uint16_t>(RTA_ENCAP_TYPE, LWTUNNEL_ENCAP_NONE) != LWTUNNEL_ENCAP_NONE ||
      attributes.has(RTA_ENCAP) || attributes.has(RTA_NEWDST);
  hop.isDead = (flags & RTNH_F_DEAD) != 0;
  hop.isLinkDown = (flags & RTNH_F_LINKDOWN) != 0;
  return hop;
}

std::vector<NextHop> hopsOf(const MessageReader& reader, Bytes bytes, int family) {
  std::vector<NextHop> hops;
  while (!bytes.empty()) {
    rtnexthop head;
    if (bytes.size() < sizeof head) reader.refuse("RTA_MULTIPATH is cut short");
    std::memcpy(&head, bytes.data(), sizeof head);
    if (head.rtnh_len < sizeof head || head.rtnh_len > bytes.size())
      reader.refuse("RTA_MULTIPATH is cut short");
    const Attributes<RTA_NH_ID> attributes(reader,
                                           bytes.subspan(sizeof head, head.rtnh_len - sizeof head));
    NextHop& hop = hops.emplace_back(hopOf(reader, attributes, family, head.rtnh_flags));
    hop.link = static_cast<LinkIndex>(head.rtnh_ifindex);
    hop.weight = static_cast<uint8_t>(std::min(head.rtnh_hops + 1, 255));
    bytes = bytes.subspan(std::min<size_t>(RTNH_ALIGN(head.rtnh_len), bytes.size()));
  }
  return hops;
}

std::optional<Object> readRoute(const MessageReader& reader, Bytes bytes) {
  const auto head = reader.take<rtmsg>(bytes);
  const int family = head.rtm_family;
  if (!isIp(family) || (head.rtm_flags & RTM_F_CLONED) != 0) return std::nullopt;
  if (head.rtm_dst_len > bitsOf(family)) reader.refuse("too great a prefix length");
  const Attributes<RTA_NH_ID> attributes(reader, bytes);
  const auto destination = attributes.address(RTA_DST, family);
  if (!destination && head.rtm_dst_len != 0) reader.refuse("no destination");
  Route route;
  route.table = attributes.number<uint32_t>(RTA_TABLE, head.rtm_table);
  const Address none = family == AF_INET ? Address(Zemit::IpAddr()) : Address(Zemit::Ip6Addr());
  route.prefix = prefixOf(destination.value_or(none), head.rtm_dst_len);
  route.metric = attributes.number<uint32_t>(RTA_PRIORITY);
  route.protocol = head.rtm_protocol;
  route.type = head.rtm_type;
  route.tos = head.rtm_tos;
  route.hasSource = head.rtm_src_len != 0;
  route.nexthop = attributes.number<uint32_t>(RTA_NH_ID);
  route.preferredSource = attributes.address(RTA_PREFSRC, family);
  if (attributes.has(RTA_MULTIPATH)) {
    route.hops = hopsOf(reader, attributes.bytes(RTA_MULTIPATH), family);
  } else {
    const NextHop& hop = route.hops.emplace_back(hopOf(reader, attributes, family, head.rtm_flags));
    route.hops.front().link = attributes.number<uint32_t>(RTA_OIF);
    if (hop.link == 0 && !hop.gateway) route.hops.clear();
  }
  return route;
}

std::optional<Object> readNexthop(const MessageReader& reader, Bytes bytes) {
  const auto head = reader.take<nhmsg>(bytes);
  const Attributes<NHA_MAX> attributes(reader, bytes);
  Nexthop nexthop;
  nexthop.id = attributes.number<uint32_t>(NHA_ID);
  if (nexthop.id == 0) reader.refuse("no id");
  // Nexthop objects of forwarding databases (NHA_FDB) are not used by routes.
  if (attributes.has(NHA_FDB)) return std::nullopt;
  const int family = head.nh_family;
  if (isIp(family)) nexthop.family = family == AF_INET ? 4 : 6;
  nexthop.isBlackhole = attributes.has(NHA_BLACKHOLE);
  if (attributes.has(NHA_GROUP)) {
    const Bytes group = attributes.bytes(NHA_GROUP);
    if (group.size() % sizeof(nexthop_grp) != 0)
      reader.refuse("a group of " + std::to_string(group.size()) + " bytes");
    for (size_t at = 0; at < group.size(); at += sizeof(nexthop_grp)) {
      nexthop_grp member;
      std::memcpy(&member, group.data() + at, sizeof member);
      // From Linux 6.12 on, the reserved byte is the high byte of the weight.
      const int weight = (member.resvd1 << 8 | member.weight) + 1;
      nexthop.group.emplace_back(member.id, static_cast<uint8_t>(std::min(weight, 255)));
    }
  } else if (isIp(family) && !nexthop.isBlackhole) {
    NextHop& hop = nexthop.hop.emplace();
    hop.link = attributes.number<uint32_t>(NHA_OIF);
    hop.gateway = attributes.address(NHA_GATEWAY, family);
    hop.isTunnelled =
        attributes.number<uint16_t>(NHA_ENCAP_TYPE, LWTUNNEL_ENCAP_NONE) != LWTUNNEL_ENCAP_NONE;
    hop.isDead = (head.nh_flags & RTNH_F_DEAD) != 0;
    hop.isLinkDown = (head.nh_flags & RTNH_F_LINKDOWN) != 0;
  }
  return nexthop;
}

std::optional<Object> readObject(uint16_t type, Bytes bytes) {
  const MessageReader reader(type);
  switch (type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      return readLink(reader, bytes);
    case RTM_NEWADDR:
    case RTM_DELADDR:
      return readAddress(reader, bytes);
    case RTM_NEWNEIGH:
    case RTM_DELNEIGH:
      return readNeighbor(reader, bytes);
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      return readRoute(reader, bytes);
    case RTM_NEWNEXTHOP:
    case RTM_DELNEXTHOP:
      return readNexthop(reader, bytes);
    default:
      return std::nullopt;
  }
}

}  // namespace

std::optional<Change> readMessage(std::span<const std::byte> message) {
  nlmsghdr header;
  if (message.size() < sizeof header) throw MessageError("a message's header is cut short");
  std::memcpy(&header, message.data(), sizeof header);
  if (header.nlmsg_len < sizeof header || header.nlmsg_len > message.size())
    throw MessageError("message type " + std::to_string(header.nlmsg_type) + " is cut short");
  std::optional<Object> object = readObject(
      header.nlmsg_type, message.subspan(sizeof header, header.nlmsg_len - sizeof header));
  if (!object) return std::nullopt;
  const bool isDumped = (header.nlmsg_flags & NLM_F_MULTI) != 0;
  // The kernel numbers each new kind NEW, DEL, GET, SET from a multiple of four.
  return Change{.object = *std::move(object),
                .present = header.nlmsg_type % 4 == 0,
                .replaces = !isDumped && (header.nlmsg_flags & NLM_F_REPLACE) != 0,
                .appends = !isDumped && (header.nlmsg_flags & NLM_F_APPEND) != 0,
                .sender = isDumped ? 0 : header.nlmsg_pid};
}

}  // namespace Linux
