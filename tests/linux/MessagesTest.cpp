// Tests of the message reader with captured and with hand-made netlink messages.
#include "linux/Messages.h"

#include <gtest/gtest.h>
#include <linux/if_link.h>
#include <linux/lwtunnel.h>
#include <linux/neighbour.h>
#include <linux/nexthop.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <map>
#include <set>

#include "tests/Files.h"
#include "tests/Paths.h"
#include "tests/linux/MirrorText.h"

namespace Linux {
namespace {

using Bytes = std::vector<std::byte>;

Bytes bytesOf(const void* data, size_t size) {
  const auto* first = static_cast<const std::byte*>(data);
  return {first, first + size};
}

/// The messages of a capture.
std::vector<Bytes> captured(const std::string& name) {
  const std::string text = contents(sourcePath("tests/linux/captures/" + name + ".nl"));
  std::vector<Bytes> messages;
  forEachMessage(std::as_bytes(std::span(text)),
                 [&](const nlmsghdr&, std::span<const std::byte> m) {
                   messages.emplace_back(m.begin(), m.end());
                 });
  return messages;
}

constexpr const char* kCaptures[] = {"links",  "addresses", "neighbors",
                                     "routes", "routes6",   "nexthops"};

template <class T>
std::vector<T> objectsOf(const std::string& name, bool present = true) {
  std::vector<T> objects;
  for (const Bytes& message : captured(name)) {
    const auto change = readMessage(message);
    if (!change || change->present != present) continue;
    if (const auto* object = std::get_if<T>(&change->object)) objects.push_back(*object);
  }
  return objects;
}

/// Builds a message.
class Made {
 public:
  template <class Head>
  Made(uint16_t type, const Head& head, uint16_t flags = 0, uint32_t port = 0) {
    const nlmsghdr header{.nlmsg_len = 0,
                          .nlmsg_type = type,
                          .nlmsg_flags = flags,
                          .nlmsg_seq = 0,
                          .nlmsg_pid = port};
    append(&header, sizeof header);
    append(&head, sizeof head);
  }
  Made& add(uint16_t type, const void* data, size_t size) {
    const nlattr header{.nla_len = static_cast<uint16_t>(sizeof(nlattr) + size), .nla_type = type};
    append(&header, sizeof header);
    append(data, size);
    return *this;
  }
  Made& add(uint16_t type, std::string_view text) { return add(type, text.data(), text.size()); }
  template <std::integral T>
  Made& add(uint16_t type, T value) {
    return add(type, &value, sizeof value);
  }
  /// Adds a nested attribute. `fill` adds its content.
  Made& nest(uint16_t type, const std::function<void(Made&)>& fill) {
    const size_t at = bytes_.size();
    add(type, "");
    fill(*this);
    const auto size = static_cast<uint16_t>(bytes_.size() - at);
    std::memcpy(bytes_.data() + at, &size, sizeof size);
    return finish();
  }
  /// Adds an entry of RTA_MULTIPATH. `fill` adds its attributes.
  Made& hop(const rtnexthop& head, const std::function<void(Made&)>& fill) {
    const size_t at = bytes_.size();
    append(&head, sizeof head);
    fill(*this);
    const auto size = static_cast<uint16_t>(bytes_.size() - at);
    std::memcpy(bytes_.data() + at, &size, sizeof size);
    return *this;
  }
  // Converts to the bytes of the message. NOLINTNEXTLINE(google-explicit-constructor)
  operator std::span<const std::byte>() const { return bytes_; }

 private:
  void append(const void* data, size_t size) {
    const Bytes added = bytesOf(data, size);
    bytes_.insert(bytes_.end(), added.begin(), added.end());
    bytes_.resize(NLMSG_ALIGN(bytes_.size()));
    finish();
  }
  Made& finish() {
    const auto size = static_cast<uint32_t>(bytes_.size());
    std::memcpy(bytes_.data(), &size, sizeof size);
    return *this;
  }

  Bytes bytes_;
};

/// A message header with its family. All other members are zero.
template <class Head>
Head headOf(uint8_t family) {
  Head head{};
  std::memcpy(&head, &family, 1);
  return head;
}

Made linkMessage(int index, std::string_view name) {
  auto head = headOf<ifinfomsg>(AF_UNSPEC);
  head.ifi_index = index;
  return Made(RTM_NEWLINK, head).add(IFLA_IFNAME, std::string(name) + '\0');
}

Made routeMessage(uint8_t family = AF_INET, uint8_t length = 24) {
  rtmsg head{};
  head.rtm_family = family;
  head.rtm_dst_len = length;
  head.rtm_table = RT_TABLE_MAIN;
  head.rtm_protocol = RTPROT_STATIC;
  head.rtm_type = RTN_UNICAST;
  return {RTM_NEWROUTE, head, NLM_F_REPLACE | NLM_F_APPEND, 7};
}

constexpr uint8_t kNet[] = {10, 9, 0, 0};
constexpr uint8_t kGateway6[] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

template <class T>
T read(std::span<const std::byte> message) {
  return std::get<T>(readMessage(message).value().object);
}

// The expected text was read with `ip monitor` during the capture.
TEST(Messages, ReadsCapturedMessages) {
  std::multimap<std::string, Link> links;
  for (const Link& link : objectsOf<Link>("links")) links.emplace(link.name, link);
  ASSERT_TRUE(links.contains("vrrp4") && links.contains("br0") && links.contains("swp1"));
  const Link macvlan = std::prev(links.upper_bound("vrrp4"))->second;
  EXPECT_EQ(macvlan.kind, "macvlan");
  EXPECT_EQ(macvlan.mac, *Zemit::EthAddr::parse("00:00:5e:00:01:05"));
  EXPECT_EQ(macvlan.lower, links.find("h1")->second.index + 3) << "the index of e2";
  const auto enslaved = std::find_if(links.begin(), links.end(), [](const auto& entry) {
    return entry.first == "e1" && entry.second.master != 0;
  });
  ASSERT_NE(enslaved, links.end());
  EXPECT_EQ(enslaved->second.masterKind, "bridge");
  EXPECT_EQ(enslaved->second.master, links.find("br0")->second.index);
  EXPECT_EQ(enslaved->second.lower, 0U) << "the other end of a pair is none";
  EXPECT_EQ(objectsOf<Link>("links", false).size(), 2U);
  const auto learned = objectsOf<FdbEntry>("links");
  EXPECT_TRUE(std::any_of(learned.begin(), learned.end(), [](const FdbEntry& entry) {
    return entry.mac == *Zemit::EthAddr::parse("02:00:00:00:00:11") && !entry.isPermanent &&
           entry.bridge != 0 && entry.port != 0;
  }));

  std::set<std::string> addresses;
  for (const InterfaceAddress& a : objectsOf<InterfaceAddress>("addresses"))
    addresses.insert(toString(a.addr) + "/" + std::to_string(a.len) +
                     (a.peer ? " peer " + toString(*a.peer) : "") + (a.isSecondary ? " 2nd" : ""));
  for (const char* expected : {"10.0.1.9/24 2nd", "10.0.5.1/32 peer 10.0.5.2", "2001:db8:1::9/64",
                               "2001:db8:5::1/128 peer 2001:db8:5::2"})
    EXPECT_TRUE(addresses.contains(expected)) << expected;

  const auto neighbors = objectsOf<Neighbor>("neighbors");
  ASSERT_GE(neighbors.size(), 4U);
  EXPECT_EQ(neighbors[0].state, NUD_PERMANENT);
  EXPECT_EQ(neighbors[1].state, NUD_STALE);
  EXPECT_EQ(toString(neighbors[2].addr), "2001:db8:1::50");
  EXPECT_TRUE(neighbors[3].isLearnedByControlPlane);
}

/// The routes of a capture as text, without interface indexes.
std::vector<std::string> routesOf(const std::string& name, bool present = true) {
  std::vector<std::string> texts;
  for (Route route : objectsOf<Route>(name, present)) {
    for (NextHop& hop : route.hops) hop.link = 0;
    texts.push_back(toString(route));
  }
  return texts;
}

TEST(Messages, ReadsCapturedRoutes) {
  EXPECT_EQ(routesOf("routes"),
            (std::vector<std::string>{
                ("route 254 10.9.0.0/24 metric 0 protocol 3 type 1 tos 0 [link 0 via 10.0.1.2] "
                 "[link 0 via 10.0.2.2 weight 3]"),
                "route 254 10.10.0.0/24 metric 0 protocol 3 type 1 tos 0 [link 0 via fe80::1]",
                "route 1000 10.11.0.0/24 metric 5 protocol 12 type 1 tos 0 [link 0]",
                "route 1000 10.11.0.0/24 metric 5 protocol 3 type 1 tos 0 [link 0]",
                ("route 254 10.9.0.0/24 metric 0 protocol 3 type 1 tos 0 src 10.0.2.1 "
                 "[link 0 via 10.0.1.3]"),
                "route 254 10.12.0.0/24 metric 0 protocol 3 type 6 tos 0",
                "route 254 10.13.0.0/24 metric 0 protocol 3 type 7 tos 0",
                "route 254 10.14.0.0/24 metric 0 protocol 3 type 1 tos 4 [link 0]",
                "route 254 0.0.0.0/0 metric 0 protocol 3 type 1 tos 0 [link 0 via 10.0.1.254]",
                "route 255 10.15.0.0/24 metric 0 protocol 3 type 2 tos 0 [link 0]",
                "route 254 10.16.0.0/24 metric 0 protocol 3 type 1 tos 0 [link 0 tunnelled]",
                "route 254 10.18.0.0/24 metric 0 protocol 3 type 1 tos 0 [link 0 tunnelled]"}));
}

// Cuts messages to each length and sets each length in the header. The reader refuses such a
// message or reads the present part. Each copy ends with its memory, so that the sanitizers find a
// read beyond the end.
TEST(Messages, CutMessagesAreReadOrRefused) {
  size_t refused = 0;
  size_t read = 0;
  for (const char* name : kCaptures) {
    for (const Bytes& whole : captured(name)) {
      for (size_t size = 0; size < whole.size(); ++size) {
        Bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
        EXPECT_THROW(readMessage(cut), MessageError);
        if (size < sizeof(nlmsghdr)) continue;
        const auto length = static_cast<uint32_t>(size);
        std::memcpy(cut.data(), &length, sizeof length);
        cut.shrink_to_fit();
        try {
          readMessage(cut);
          ++read;
        } catch (const MessageError& error) {
          ++refused;
          EXPECT_STREQ(std::string(error.what()).substr(0, 4).c_str(), "RTM_");
        }
      }
    }
  }
  EXPECT_GT(refused, 10000U);
  EXPECT_GT(read, 1000U);
}

/// The offset of a message's attributes.
size_t attributesOf(const Bytes& message) {
  nlmsghdr header;
  std::memcpy(&header, message.data(), sizeof header);
  switch (header.nlmsg_type & ~3) {
    case RTM_NEWLINK:
      return sizeof header + sizeof(ifinfomsg);
    case RTM_NEWADDR:
    case RTM_NEWNEXTHOP:
      return sizeof header + 8;
    default:
      return sizeof header + 12;
  }
}

Bytes sized(Bytes message) {
  const auto size = static_cast<uint32_t>(message.size());
  std::memcpy(message.data(), &size, sizeof size);
  return message;
}

TEST(Messages, RepeatedAttributesChangeNothing) {
  for (const char* name : kCaptures) {
    for (const Bytes& message : captured(name)) {
      Bytes doubled = message;
      doubled.resize(NLMSG_ALIGN(doubled.size()));
      doubled.insert(doubled.end(), message.begin() + static_cast<ptrdiff_t>(attributesOf(message)),
                     message.end());
      EXPECT_EQ(readMessage(sized(doubled)), readMessage(message));
    }
  }
  const auto twice = routeMessage().add(RTA_DST, kGateway6, 4).add(RTA_DST, kNet, 4);
  EXPECT_EQ(toString(read<Route>(twice).prefix), "10.9.0.0/24") << "the last one counts";
}

TEST(Messages, MessagesWithoutOneAttributeAreReadOrRefused) {
  size_t refused = 0;
  for (const char* name : kCaptures) {
    for (const Bytes& message : captured(name)) {
      for (size_t at = attributesOf(message); at + sizeof(nlattr) <= message.size();) {
        nlattr attribute;
        std::memcpy(&attribute, &message[at], sizeof attribute);
        const size_t end = std::min<size_t>(at + NLA_ALIGN(attribute.nla_len), message.size());
        Bytes without(message.begin(), message.begin() + static_cast<ptrdiff_t>(at));
        without.insert(without.end(), message.begin() + static_cast<ptrdiff_t>(end), message.end());
        try {
          readMessage(sized(without));
        } catch (const MessageError& error) {
          EXPECT_NE(std::string(error.what()).find(": no "), std::string::npos) << error.what();
          ++refused;
        }
        at = end;
      }
    }
  }
  EXPECT_GT(refused, 20U) << "destinations, addresses, ids";
}

// The kernel of the captures has no VRF and no VLAN interfaces.
TEST(Messages, ReadsVrfsAndVlans) {
  const Link vrf = read<Link>(linkMessage(9, "red").nest(IFLA_LINKINFO, [](Made& info) {
    info.add(IFLA_INFO_KIND, "vrf");
    info.nest(IFLA_INFO_DATA, [](Made& data) { data.add(IFLA_VRF_TABLE, uint32_t{1001}); });
  }));
  EXPECT_EQ(vrf.kind, "vrf");
  EXPECT_EQ(vrf.vrfTable, 1001U);
  const auto vlanMessage =
      linkMessage(10, "e1.7")
          .add(IFLA_LINK, uint32_t{3})
          .add(IFLA_MASTER, uint32_t{9})
          .nest(IFLA_LINKINFO | NLA_F_NESTED, [](Made& info) {
            info.add(IFLA_INFO_KIND, std::string("vlan\0", 5));
            info.add(IFLA_INFO_SLAVE_KIND, "vrf");
            info.nest(IFLA_INFO_DATA, [](Made& data) { data.add(IFLA_VLAN_ID, uint16_t{7}); });
          });
  const Link vlan = read<Link>(vlanMessage);
  EXPECT_EQ(vlan.vlan, 7U);
  EXPECT_EQ(vlan.lower, 3U);
  EXPECT_EQ(vlan.master, 9U);
  EXPECT_EQ(vlan.masterKind, "vrf");
  // The number of the lower interface belongs to another namespace.
  EXPECT_EQ(read<Link>(Made(vlanMessage).add(IFLA_LINK_NETNSID, uint32_t{0})).lower, 0U);
}

TEST(Messages, ErrorsNameMissingAndWronglySizedAttributes) {
  const auto error = [](std::span<const std::byte> message) -> std::string {
    try {
      readMessage(message);
    } catch (const MessageError& e) {
      return e.what();
    }
    return "";
  };
  EXPECT_EQ(error(routeMessage().add(RTA_DST, kNet, 3)),
            "RTM_NEWROUTE: attribute 1 has 3 bytes instead of 4");
  EXPECT_EQ(error(routeMessage().add(RTA_DST, kNet, 4).add(RTA_OIF, uint16_t{1})),
            "RTM_NEWROUTE: attribute 4 has 2 bytes instead of 4");
  EXPECT_EQ(error(routeMessage()), "RTM_NEWROUTE: no destination");
  EXPECT_EQ(error(routeMessage(AF_INET, 33)), "RTM_NEWROUTE: too great a prefix length");
  EXPECT_EQ(error(routeMessage().add(RTA_DST, kNet, 4).add(RTA_MULTIPATH, uint32_t{0})),
            "RTM_NEWROUTE: RTA_MULTIPATH is cut short");
  EXPECT_EQ(error(routeMessage().add(RTA_DST, kNet, 4).add(RTA_VIA, uint32_t{AF_INET6})),
            "RTM_NEWROUTE: RTA_VIA has an address of 2 bytes");
  EXPECT_EQ(error(linkMessage(1, "sixteen-bytes-xx")),
            "RTM_NEWLINK: an interface name of 16 bytes");
  EXPECT_EQ(error(linkMessage(1, "")), "RTM_NEWLINK: an interface name of 0 bytes");
  EXPECT_EQ(error(Made(RTM_NEWADDR, headOf<ifaddrmsg>(AF_INET))), "RTM_NEWADDR: no address");
  EXPECT_EQ(error(Made(RTM_DELNEIGH, headOf<ndmsg>(AF_INET6)).add(NDA_DST, kNet, 4)),
            "RTM_DELNEIGH: attribute 1 has 4 bytes instead of 16");
  EXPECT_EQ(error(Made(RTM_NEWNEXTHOP, nhmsg{}).add(NHA_GROUP, kNet, 4)), "RTM_NEWNEXTHOP: no id");
}

TEST(Messages, IrrelevantMessagesAreIgnored) {
  EXPECT_EQ(readMessage(Made(RTM_NEWRULE, rtmsg{})), std::nullopt);
  auto cached = headOf<rtmsg>(AF_INET);
  cached.rtm_flags = RTM_F_CLONED;
  EXPECT_EQ(readMessage(Made(RTM_NEWROUTE, cached)), std::nullopt);
  const auto multicast = headOf<rtmsg>(RTNL_FAMILY_IPMR);
  EXPECT_EQ(readMessage(Made(RTM_NEWROUTE, multicast)), std::nullopt);
  // A port that leaves a bridge is not a deleted interface.
  auto port = headOf<ifinfomsg>(AF_BRIDGE);
  port.ifi_index = 3;
  EXPECT_EQ(readMessage(Made(RTM_DELLINK, port).add(IFLA_IFNAME, "e1")), std::nullopt);
}

TEST(Messages, ReadsTheRelevantHeaderFields) {
  const auto message = routeMessage().add(RTA_DST, kNet, 4).add(RTA_OIF, uint32_t{3});
  const Change change = readMessage(message).value();
  EXPECT_TRUE(change.present && change.replaces && change.appends);
  EXPECT_EQ(change.sender, 7U);
  const auto head = headOf<rtmsg>(AF_INET6);
  const Change dumped =
      readMessage(Made(RTM_NEWROUTE, head, NLM_F_MULTI | NLM_F_REPLACE, 7)).value();
  EXPECT_TRUE(dumped.present && !dumped.replaces);
  EXPECT_EQ(dumped.sender, 0U);
}

TEST(Messages, ReadsTunnelledNextHops) {
  const auto encap = uint16_t{LWTUNNEL_ENCAP_MPLS};
  const auto tunnelled = routeMessage().add(RTA_DST, kNet, 4).add(RTA_OIF, uint32_t{3});
  EXPECT_TRUE(read<Route>(Made(tunnelled).add(RTA_ENCAP_TYPE, encap)).hops.at(0).isTunnelled);
  EXPECT_TRUE(read<Route>(Made(tunnelled).add(RTA_NEWDST, kNet, 4)).hops.at(0).isTunnelled);
  EXPECT_FALSE(read<Route>(tunnelled).hops.at(0).isTunnelled);
  // One of two hops, with a weight and a flag.
  const Route both = read<Route>(routeMessage(AF_INET6, 0).nest(RTA_MULTIPATH, [&](Made& hops) {
    hops.hop({.rtnh_len = 0, .rtnh_flags = RTNH_F_LINKDOWN, .rtnh_hops = 254, .rtnh_ifindex = 3},
             [&](Made& hop) { hop.add(RTA_ENCAP_TYPE, encap); });
    hops.hop({.rtnh_len = 0, .rtnh_flags = 0, .rtnh_hops = 0, .rtnh_ifindex = 4},
             [&](Made& hop) { hop.add(RTA_GATEWAY, kGateway6, sizeof kGateway6); });
  }));
  EXPECT_EQ(toString(both),
            "route 254 ::/0 metric 0 protocol 4 type 1 tos 0 [link 3 weight 255 tunnelled "
            "linkdown] [link 4 via fe80::1]");
}

}  // namespace
}  // namespace Linux
