// Interfaces, addresses and neighbours of the feed, and the order of its steps.
#include "linux/Feed.h"

#include <fnmatch.h>

#include <algorithm>
#include <array>
#include <bit>

#include "linux/FeedWork.h"
#include "linux/Kinds.h"
#include "linux/Utf8.h"
#include "platform/tovan/IntfNames.h"

namespace Linux {
namespace {

using Daemon::FamilyOf;
using Daemon::Ipv4;
using Daemon::Ipv6;
using Daemon::Switch;
using About = FeedWarning::About;

constexpr const char* kVrfKind = "vrf";
/// The longest name that a switch accepts for interfaces and for VRFs, minus room for a prefix.
constexpr size_t kMaxNameBytes = 90;

/// Whether an interface has the MAC of a virtual router (RFC 9568, section 7.3).
bool hasVrrpMac(const Link& link) {
  const auto& bytes = link.mac.bytes();
  return link.kind == "macvlan" && bytes[0] == 0 && bytes[1] == 0 && bytes[2] == 0x5E &&
         bytes[3] == 0 && (bytes[4] == 1 || bytes[4] == 2);
}

bool isLoopback(const Zemit::IpAddr& addr) {
  return addr.value() >> 24 == 127;
}
bool isLoopback(const Zemit::Ip6Addr& addr) {
  return addr == Zemit::Ip6Addr{0, 1};
}
/// Multicast, and for IPv4 also the reserved addresses up to the broadcast address.
bool isMulticast(const Zemit::IpAddr& addr) {
  return addr.value() >> 29 == 7;
}
bool isMulticast(const Zemit::Ip6Addr& addr) {
  return Zemit::Ip6Prefix({uint64_t{0xFF} << 56, 0}, 8).contains(addr);
}
bool isLinkLocal(const Zemit::IpAddr& addr) {
  return addr.value() >> 16 == 0xA9FE;
}
bool isLinkLocal(const Zemit::Ip6Addr& addr) {
  return addr.isLinkLocal();
}

uint64_t bitsReversed(uint64_t word) {
  const auto swap = [&word](int distance, uint64_t mask) {
    word = (word >> distance & mask) | (word & mask) << distance;
  };
  swap(1, 0x5555555555555555);
  swap(2, 0x3333333333333333);
  swap(4, 0x0F0F0F0F0F0F0F0F);
  return __builtin_bswap64(word);
}
/// A sort key that puts adjacent addresses far apart. The kernel's IPv4 table is a trie whose nodes
/// are enlarged as they fill. It enlarges more of them when the routes come in ascending order, so
/// that 100,000 routes take a sixth longer.
std::pair<uint64_t, uint64_t> scattered(const Address& addr) {
  if (const auto* addr4 = std::get_if<Zemit::IpAddr>(&addr)) {
    return {bitsReversed(addr4->value()), 0};
  }
  const auto& addr6 = std::get<Zemit::Ip6Addr>(addr);
  return {bitsReversed(addr6.low()), addr6.high()};
}

/// The prefix of a Linux name that has a special meaning in a switch.
constexpr std::string_view kLinux = "linux:";

template <class Addr>
Daemon::SetAddress<FamilyOf<Addr>> addressOperation(Zemit::IntfId intf, const Addr& addr,
                                                    uint32_t len, bool secondary, bool present) {
  return {intf, typename FamilyOf<Addr>::AddrWithMask(addr, len), secondary, present};
}

Daemon::Operation virtualOperation(const std::string& vrf, const Address& addr, uint32_t len,
                                   bool present) {
  return std::visit(
      [&]<class Addr>(const Addr& a) -> Daemon::Operation {
        using F = FamilyOf<Addr>;
        return Daemon::SetVirtualIp<F>{vrf, typename F::AddrWithMask(a, len), present};
      },
      addr);
}

}  // namespace

bool isSelected(const std::vector<std::string>& patterns, const std::string& name) {
  bool selected = patterns.empty() || patterns.front().starts_with('!');
  for (const auto& pattern : patterns) {
    const bool takesAway = pattern.starts_with('!');
    if (::fnmatch(pattern.c_str() + (takesAway ? 1 : 0), name.c_str(), 0) == 0) {
      selected = !takesAway;
    }
  }
  return selected;
}

std::string switchNameOf(std::string_view interface) {
  // The name of a Linux interface has no colon.
  return std::string(interface.starts_with("Management") ? kLinux : "").append(interface);
}

std::string_view linuxNameOf(std::string_view interface) {
  if (interface.starts_with(kLinux)) interface.remove_prefix(kLinux.size());
  return interface;
}

std::string switchVrfOf(std::string_view device) {
  return std::string(device == Switch::kDefaultVrf ? kLinux : "").append(device);
}

const char* toString(NeighborVerdict verdict) {
  constexpr std::array<const char*, kNeighborVerdicts> kTexts{
      "fed",
      "not usable",
      "proxy entry",
      "of a control plane",
      "loopback address",
      "multicast address",
      "link-local address",
      "no layer-3 interface",
      "interface not selected",
  };
  return kTexts[static_cast<size_t>(verdict)];
}

Feed::Feed(Mirror& mirror, FeedOptions options)
    : work_(std::make_unique<Work>(mirror, std::move(options))) {}
Feed::~Feed() = default;
void Feed::flush(const Output& output, const Expect& expect) {
  work_->flush(output, expect);
}
void Feed::setComplete() {
  work_->setComplete();
}
void Feed::setOptions(FeedOptions options) {
  work_->setOptions(std::move(options));
}
void Feed::snapshot(const Output& output) const {
  work_->snapshot(output);
}
void Feed::setWarningSink(std::function<void(const FeedWarning&)> sink, bool tellsPassing) {
  work_->setWarningSink(std::move(sink), tellsPassing);
}
std::string Feed::vrfOf(LinkIndex link) const {
  return work_->vrfOf(link);
}
LinkIndex Feed::linkOf(Zemit::IntfId intf) const {
  return work_->linkOf(intf);
}
NeighborVerdict Feed::verdictOn(const Neighbor& neighbor) const {
  return work_->verdictOn(neighbor);
}

Feed::Work::Work(Mirror& mirror, FeedOptions options)
    : mirror_(mirror), options_(std::move(options)) {
  Vrf* main = vrfNamed(Switch::kDefaultVrf);
  main->table = RT_TABLE_MAIN;
  main->isTold = true;
  vrfsByTable_.emplace(*main->table, main);
  mirror_.setObserver(this);
}

Feed::Work::~Work() {
  mirror_.setObserver(nullptr);
}

void Feed::Work::setOptions(FeedOptions options) {
  if (options == options_) return;
  options_ = std::move(options);
  everything_ = true;
}

void Feed::Work::setWarningSink(std::function<void(const FeedWarning&)> sink, bool tellsPassing) {
  sink_ = std::move(sink);
  tellsPassing_ = tellsPassing;
}

void Feed::Work::warn(FeedWarning warning, bool passes, const TextMaker& text) {
  if (!sink_ || (passes && !tellsPassing_)) return;
  constexpr size_t kMaxRemembered = 1 << 16;
  warning.text = text();
  if (warned_.size() >= kMaxRemembered) warned_.clear();
  if (warned_.insert(std::hash<std::string>()(warning.text)).second) sink_(warning);
}

std::string Feed::Work::vrfOf(LinkIndex link) const {
  const auto found = ports_.find(link);
  return found == ports_.end() || found->second.vrf == nullptr ? "" : found->second.vrf->name;
}

LinkIndex Feed::Work::linkOf(Zemit::IntfId intf) const {
  const auto found = links_.find(intf);
  return found == links_.end() ? 0 : found->second;
}

void Feed::Work::onLink(LinkIndex index) {
  if (!everything_) markedLinks_.insert(index);
}

void Feed::Work::onAddress(LinkIndex link, const Address& addr) {
  if (everything_) return;
  markedAddresses_.insert(link);
  // The host route of an own address is not fed.
  const auto* port = this->port(link);
  const auto* vrf = port == nullptr ? nullptr : port->role.vrf;
  if (familyOf(addr) == 6 && vrf != nullptr && vrf->table) {
    markedRoutes_.emplace_back(*vrf->table, hostPrefix(addr));
  }
}

void Feed::Work::onNeighbor(LinkIndex link, const Address& addr) {
  if (!everything_) markedNeighbors_.push_back({link, addr, {}});
}

void Feed::Work::onRoute(TableId table, const Prefix& prefix) {
  if (!everything_) markedRoutes_.emplace_back(table, prefix);
}

Feed::Work::Port* Feed::Work::port(LinkIndex link) {
  if (link == lastLink_ && lastPort_ != nullptr) return lastPort_;
  const auto found = ports_.find(link);
  if (found == ports_.end()) return nullptr;
  lastLink_ = link;
  return lastPort_ = &found->second;
}

Feed::Work::Vrf* Feed::Work::vrfNamed(const std::string& name) {
  Vrf*& vrf = vrfByName_[name];
  if (vrf == nullptr) {
    vrf = &vrfs_.emplace_back();
    vrf->name = name;
    vrf->number = vrfs_.size() - 1;
  }
  return vrf;
}

void Feed::Work::flush(const Output& output, const Expect& expect) {
  if (everything_) {
    for (const auto& [index, port] : ports_) markedLinks_.insert(index);
    mirror_.forEachLink([&](const Link& link) { markedLinks_.insert(link.index); });
  }
  if (everything_ || !markedLinks_.empty()) {
    // The role of an interface depends on its master.
    std::vector<LinkIndex> ports;
    mirror_.forEachLink([&](const Link& link) {
      if (markedLinks_.contains(link.master)) ports.push_back(link.index);
    });
    markedLinks_.insert(ports.begin(), ports.end());
    findVrfs();
    findRoles();
  }
  findAddresses();
  const bool findsVirtuals = everything_ || !markedLinks_.empty() || !markedAddresses_.empty();
  const auto virtuals = findsVirtuals ? wantedVirtualAddresses() : virtualAddresses_;

  withdrawNeighbors(output);
  withdrawVirtualAddresses(virtuals, output);
  withdrawInterfaces(output);
  tellInterfaces(output);
  tellRoutes(output);
  if (!options_.readyBeforeNeighbors) tellNeighbors(output, expect);
  tellVirtualAddresses(virtuals, output);
  tellReadiness(output);
  if (options_.readyBeforeNeighbors) tellNeighbors(output, expect);

  everything_ = false;
  markedLinks_.clear();
  markedAddresses_.clear();
  wantedAddresses_.clear();
  renamedLinks_.clear();
  changedVrfs_.clear();
  // The memory of a burst is released.
  constexpr size_t kKept = 1024;
  const auto empty = [](auto& marks) {
    marks.clear();
    if (marks.capacity() > kKept) marks.shrink_to_fit();
  };
  empty(markedRoutes_);
  empty(markedNeighbors_);
  empty(routeKeys_);
}

/// Updates the VRFs from their devices, first those with a changed or removed device, so that
/// devices may exchange names or tables.
void Feed::Work::findVrfs() {
  const auto deviceOf = [&](LinkIndex index) -> const Link* {
    const auto* link = mirror_.link(index);
    return link != nullptr && link->kind == kVrfKind ? link : nullptr;
  };
  for (const LinkIndex index : markedLinks_) {
    const auto known = vrfByDevice_.find(index);
    if (known == vrfByDevice_.end()) continue;
    Vrf& vrf = *known->second;
    const auto* device = deviceOf(index);
    if (device != nullptr && switchVrfOf(device->name) == vrf.name &&
        device->vrfTable == *vrf.table) {
      continue;
    }
    vrf.table.reset();
    vrfByDevice_.erase(known);
    changedVrfs_.insert(&vrf);
  }
  for (const LinkIndex index : markedLinks_) {
    const auto* device = deviceOf(index);
    if (device == nullptr || vrfByDevice_.contains(index) || !isUtf8(device->name) ||
        device->name.size() > kMaxNameBytes) {
      continue;
    }
    Vrf* vrf = vrfNamed(switchVrfOf(device->name));
    vrf->table = device->vrfTable;
    vrfByDevice_[index] = vrf;
    changedVrfs_.insert(vrf);
  }
  vrfsByTable_.clear();
  for (Vrf& vrf : vrfs_) {
    if (everything_) changedVrfs_.insert(&vrf);
    if (vrf.table) vrfsByTable_.emplace(*vrf.table, &vrf);
  }
}

Feed::Work::Role Feed::Work::roleOf(const Link& link) {
  if (!isUtf8(link.name) || link.name.empty() || link.name.size() > kMaxNameBytes) {
    warn({.about = About::Links, .link = link.index}, false, [&] {
      return "interface " + std::to_string(link.index) + " left out: " +
             (isUtf8(link.name) ? "a switch has no interface with a name of " +
                                      std::to_string(link.name.size()) + " bytes"
                                : "its name is not UTF-8");
    });
    return {};
  }
  // A port of a bridge or a bond has no layer 3.
  const auto owner = vrfByDevice_.find(link.kind == kVrfKind ? link.index : link.master);
  Vrf* vrf = owner != vrfByDevice_.end() ? owner->second : nullptr;
  if (vrf == nullptr && link.master == 0 && link.kind != kVrfKind) vrf = &vrfs_.front();
  if (vrf == nullptr) return {};
  const auto name = options_.hasManagementPorts ? link.name : switchNameOf(link.name);
  const bool isSelected = !link.isLoopback && Linux::isSelected(options_.interfaces, link.name);
  return {.intf = Zemit::IntfId::of(Kiv::String8(name)),
          .vrf = vrf,
          .isSelected = isSelected,
          .resolves = isSelected && !link.isNoArp};
}

void Feed::Work::findRoles() {
  for (const LinkIndex index : markedLinks_) {
    const auto* link = mirror_.link(index);
    Port& port = ports_[index];
    const bool wasSelected = std::exchange(port.role, link ? roleOf(*link) : Role()).isSelected;
    const bool isAnother = !port.isToldAs(port.role);
    if (everything_ || isAnother || wasSelected != port.role.isSelected) {
      markNeighborsOf(index, port);
    }
    const bool hasArrived = port.role.vrf != nullptr && awaitedLinks_.erase(index) != 0;
    const bool isRenamed = port.vrf != nullptr && port.intf != port.role.intf;
    if (link != nullptr && (hasArrived || isRenamed)) renamedLinks_.insert(index);
    markedAddresses_.insert(index);
  }
}

void Feed::Work::markNeighborsOf(LinkIndex link, const Port& port) {
  const auto first = static_cast<std::ptrdiff_t>(markedNeighbors_.size());
  mirror_.forEachNeighbor(link, [&](const Neighbor& neighbor) {
    const bool isFed = verdictOn(neighbor, port.role) == NeighborVerdict::Fed;
    markedNeighbors_.push_back({link, neighbor.addr, neighbor.mac, isFed});
  });
  Daemon::forEachFamily([&](auto family) {
    for (const auto& told : std::get<ToldNeighbors<decltype(family)>>(port.neighbors)) {
      if (mirror_.neighbor(link, told.key) == nullptr) {
        markedNeighbors_.push_back({link, told.key, {}});
      }
    }
  });
  const auto begin = markedNeighbors_.begin() + first;
  if (options_.scattersNeighbors) {
    std::ranges::sort(begin, markedNeighbors_.end(), {},
                      [](const MarkedNeighbor& marked) { return scattered(marked.addr); });
  } else {
    std::ranges::sort(begin, markedNeighbors_.end(), {}, &MarkedNeighbor::addr);
  }
}

void Feed::Work::findAddresses() {
  for (const LinkIndex index : markedAddresses_) {
    Port* port = this->port(index);
    if (port == nullptr) continue;
    const auto* link = mirror_.link(index);
    port->vrrpAddresses.clear();
    auto& wanted = wantedAddresses_[index];
    if (link != nullptr && port->role.vrf != nullptr) wanted = addressesOf(*link, *port);
  }
}

/// The addresses of an interface that count, the primary one first.
std::vector<Feed::Work::ToldAddress> Feed::Work::addressesOf(const Link& link, Port& port) {
  const bool isVrrp = options_.recognisesVrrp && hasVrrpMac(link);
  std::vector<ToldAddress> addresses;
  mirror_.forEachAddress(link.index, [&](const InterfaceAddress& address) {
    const auto traits = [&]<class Addr>(const Addr& a) {
      return std::tuple(a.isZero() || isLoopback(a) || address.len > Addr::kBits, isLinkLocal(a));
    };
    const auto [isNone, isLocal] = std::visit(traits, address.addr);
    if (isNone) return;
    if (isVrrp && !isLocal) port.vrrpAddresses.push_back({address.addr, address.len});
    const char* objection = nullptr;
    if (address.isDuplicate) {
      objection = " is dadfailed";
    } else if (address.isTentative) {
      objection = " is tentative";
    } else if (!link.isUp) {
      objection = " is on an interface that is down";
    }
    if (objection == nullptr) {
      addresses.push_back({address.addr, address.len, address.isSecondary});
      return;
    }
    warn({.about = About::Addresses, .link = link.index, .prefix = hostPrefix(address.addr)},
         !address.isDuplicate, [&] {
           return printable(link.name) + ": an address left out: " + toString(address.addr) +
                  objection;
         });
  });
  std::ranges::sort(addresses, {}, [](const ToldAddress& a) {
    return std::tuple(familyOf(a.addr), a.isSecondary, a.addr, a.len);
  });
  // The same address may occur once for each peer.
  const auto isRepeated = [](const auto& a, const auto& b) {
    return a.addr == b.addr && a.len == b.len;
  };
  addresses.erase(std::unique(addresses.begin(), addresses.end(), isRepeated), addresses.end());
  // Linux has a primary address for each subnet, a switch one for the interface.
  for (size_t i = 0; i < addresses.size(); ++i) {
    addresses[i].isSecondary = i != 0 && familyOf(addresses[i].addr) == 4;
  }
  return addresses;
}

NeighborVerdict Feed::Work::verdictOn(const Neighbor& neighbor, const Role& role) {
  if ((neighbor.state & kUsableStates) == 0) return NeighborVerdict::NotUsable;
  if (neighbor.isProxy) return NeighborVerdict::Proxy;
  if (neighbor.isLearnedByControlPlane) return NeighborVerdict::ControlPlane;
  const auto byAddress = std::visit(
      [](const auto& addr) {
        if (isLoopback(addr)) return NeighborVerdict::Loopback;
        if (isMulticast(addr)) return NeighborVerdict::Multicast;
        return isLinkLocal(addr) ? NeighborVerdict::LinkLocal : NeighborVerdict::Fed;
      },
      neighbor.addr);
  if (byAddress != NeighborVerdict::Fed || role.isSelected) return byAddress;
  return role.vrf == nullptr ? NeighborVerdict::NoLayer3 : NeighborVerdict::NotSelected;
}

NeighborVerdict Feed::Work::verdictOn(const Neighbor& neighbor) const {
  const auto found = ports_.find(neighbor.link);
  return verdictOn(neighbor, found == ports_.end() ? Role() : found->second.role);
}

/// The MAC of a neighbour for the switch; nothing when it does not count.
template <class F>
std::optional<Zemit::EthAddr> Feed::Work::wantedMac(const Port& port, LinkIndex link,
                                                    const typename F::Addr& addr) {
  const auto* neighbor = mirror_.neighbor(link, addr);
  if (neighbor == nullptr) return std::nullopt;
  const auto verdict = verdictOn(*neighbor, port.role);
  if (verdict == NeighborVerdict::Fed) return neighbor->mac;
  if (verdict == NeighborVerdict::NoLayer3) {
    if (const auto* at = mirror_.link(link)) {
      const auto host = hostPrefix(addr);
      warn({.about = About::Neighbors, .link = link, .prefix = host}, false, [&] {
        return Zemit::toString(addr) + " left out: \"" + printable(at->name) +
               "\" is no layer-3 interface here";
      });
    }
  }
  return std::nullopt;
}

/// Withdraws the removed neighbours. The remaining marked neighbours must be fed.
void Feed::Work::withdrawNeighbors(const Output& output) {
  for (const LinkIndex index : markedLinks_) {
    Port& port = ports_[index];
    if (!port.hasTable || (port.role.isSelected && port.isToldAs(port.role))) continue;
    output(Daemon::SetNeighborTable{port.intf, false});
    port.hasTable = false;
    Daemon::forEachFamily(
        [&](auto family) { std::get<ToldNeighbors<decltype(family)>>(port.neighbors).clear(); });
  }
  const auto isToBeTold = [&](MarkedNeighbor& mark) {
    Port* port = this->port(mark.link);
    if (port == nullptr) return false;
    return std::visit(
        [&]<class Addr>(const Addr& addr) {
          using F = FamilyOf<Addr>;
          auto& told = std::get<ToldNeighbors<F>>(port->neighbors);
          const auto mac = mark.isFed ? mark.mac : wantedMac<F>(*port, mark.link, addr);
          if (!mac) {
            if (told.erase(addr)) {
              output(Daemon::SetNeighbor<F>{port->intf, {.ipAddr = addr}, false});
            }
            return false;
          }
          mark.mac = *mac;
          const auto* known = told.find(addr);
          return known == nullptr || *known != *mac;
        },
        mark.addr);
  };
  size_t kept = 0;
  for (auto& mark : markedNeighbors_) {
    if (isToBeTold(mark)) markedNeighbors_[kept++] = mark;
  }
  markedNeighbors_.resize(kept);
}

std::set<Feed::Work::VirtualKey> Feed::Work::wantedVirtualAddresses() const {
  std::set<VirtualKey> wanted;
  const auto add = [&](const std::string& vrf, const Address& addr, uint32_t len) {
    const uint32_t width = familyOf(addr) == 4 ? 32 : 128;
    const bool hasLength = familyOf(addr) == 4 && len != 0 && len <= width;
    wanted.emplace(vrf, addr, hasLength ? len : width);
  };
  for (const auto& configured : options_.virtualAddresses) {
    if (vrfByName_.contains(configured.vrf)) {
      add(configured.vrf, configured.addr, configured.len);
    }
  }
  for (const auto& [index, port] : ports_) {
    for (const auto& address : port.vrrpAddresses) {
      add(port.role.vrf->name, address.addr, address.len);
    }
  }
  return wanted;
}

void Feed::Work::withdrawVirtualAddresses(const std::set<VirtualKey>& wanted,
                                          const Output& output) {
  std::erase_if(virtualAddresses_, [&](const VirtualKey& told) {
    if (wanted.contains(told)) return false;
    output(virtualOperation(std::get<0>(told), std::get<1>(told), std::get<2>(told), false));
    return true;
  });
}

void Feed::Work::withdrawInterfaces(const Output& output) {
  for (const auto& [index, addresses] : wantedAddresses_) {
    const auto& wanted = addresses;
    Port& port = ports_[index];
    if (port.vrf == nullptr || !port.isToldAs(port.role))
      continue;  // the interface takes them with it
    std::erase_if(port.addresses, [&](const ToldAddress& told) {
      if (std::ranges::find(wanted, told) != wanted.end()) return false;
      output(operationOf(port.intf, told, false));
      return true;
    });
  }
  for (const LinkIndex index : markedLinks_) {
    Port& port = ports_[index];
    if (port.vrf != nullptr && !port.isToldAs(port.role)) {
      output(Daemon::SetInterface{port.intf, port.vrf->name, false});
      links_.erase(port.intf);
      port.addresses.clear();
      port.intf = {};
      port.vrf = nullptr;
    }
    if (mirror_.link(index) == nullptr) {
      ports_.erase(index);
      wantedAddresses_.erase(index);
      lastPort_ = nullptr;
    }
  }
}

Daemon::Operation Feed::Work::operationOf(Zemit::IntfId intf, const ToldAddress& address,
                                          bool present) {
  return std::visit(
      [&](const auto& addr) -> Daemon::Operation {
        return addressOperation(intf, addr, address.len, address.isSecondary, present);
      },
      address.addr);
}

void Feed::Work::tellInterfaces(const Output& output) {
  for (Vrf& vrf : vrfs_) {
    if (!vrf.isTold && vrf.table) output(Daemon::SetVrf{vrf.name});
    vrf.isTold = vrf.isTold || vrf.table;
  }
  for (const LinkIndex index : markedLinks_) {
    Port* port = this->port(index);
    if (port == nullptr || port->role.vrf == nullptr || port->vrf != nullptr) continue;
    port->intf = port->role.intf;
    port->vrf = port->role.vrf;
    links_[port->intf] = index;
    output(Daemon::SetInterface{port->intf, port->vrf->name});
  }
  for (auto& [index, wanted] : wantedAddresses_) {
    Port& port = ports_[index];
    for (const auto& address : wanted) {
      if (std::ranges::find(port.addresses, address) != port.addresses.end()) continue;
      output(operationOf(port.intf, address, true));
    }
    port.addresses = std::move(wanted);
  }
}

/// Moves the marked neighbours whose address is marked several times to the front, sorted by
/// address. The others keep their order.
void Feed::Work::gatherSharedAddresses() {
  if (markedNeighbors_.size() < 2) return;
  // One bit for each hash. A few different addresses have a bit in common.
  constexpr size_t kBitsPerAddress = 32;
  const size_t bits = std::bit_ceil(markedNeighbors_.size() * kBitsPerAddress);
  std::vector<bool> seen(bits), repeated(bits);
  for (const auto& mark : markedNeighbors_) {
    const size_t bit = hashOf(mark.addr) & (bits - 1);
    repeated[bit] = seen[bit];
    seen[bit] = true;
  }
  const auto mayBeShared = [&](const Address& addr) { return repeated[hashOf(addr) & (bits - 1)]; };
  std::vector<Address> shared;
  for (const auto& mark : markedNeighbors_) {
    if (mayBeShared(mark.addr)) shared.push_back(mark.addr);
  }
  std::sort(shared.begin(), shared.end());
  size_t count = 0;
  for (size_t i = 1; i < shared.size(); ++i) {
    if (shared[i] == shared[i - 1]) shared[count++] = shared[i];
  }
  shared.resize(count);
  if (shared.empty()) return;
  const auto rest = std::stable_partition(
      markedNeighbors_.begin(), markedNeighbors_.end(), [&](const auto& mark) {
        return mayBeShared(mark.addr) &&
               std::binary_search(shared.begin(), shared.end(), mark.addr);
      });
  std::stable_sort(markedNeighbors_.begin(), rest,
                   [](const auto& a, const auto& b) { return a.addr < b.addr; });
}

void Feed::Work::tellNeighbors(const Output& output, const Expect& expect) {
  gatherSharedAddresses();
  for (const LinkIndex index : markedLinks_) {
    Port* port = this->port(index);
    if (port == nullptr || !port->role.resolves || port->hasTable) continue;
    port->hasTable = true;
    output(Daemon::SetNeighborTable{port->intf});
  }
  constexpr size_t kAhead = 3;
  for (size_t i = 0; i < markedNeighbors_.size(); ++i) {
    if (expect && i + kAhead < markedNeighbors_.size()) {
      const auto& next = markedNeighbors_[i + kAhead];
      const Port* port = this->port(next.link);
      if (port != nullptr) expect(port->intf, next.addr);
    }
    const auto& mark = markedNeighbors_[i];
    Port* port = this->port(mark.link);
    if (port == nullptr) continue;
    std::visit(
        [&]<class Addr>(const Addr& addr) {
          using F = FamilyOf<Addr>;
          auto& told = std::get<ToldNeighbors<F>>(port->neighbors);
          const auto [known, isNew] = told.tryEmplace(addr, mark.mac);
          if (!isNew && *known == mark.mac) return;  // marked twice
          *known = mark.mac;
          port->hasTable = true;
          output(Daemon::SetNeighbor<F>{port->intf, {.ipAddr = addr, .mac = mark.mac}});
        },
        mark.addr);
  }
}

void Feed::Work::tellVirtualAddresses(const std::set<VirtualKey>& wanted, const Output& output) {
  for (const auto& key : wanted) {
    if (!virtualAddresses_.insert(key).second) continue;
    output(virtualOperation(std::get<0>(key), std::get<1>(key), std::get<2>(key), true));
  }
}

void Feed::Work::tellReadiness(const Output& output) {
  if (!isComplete_) return;
  for (Vrf& vrf : vrfs_) {
    if (!vrf.isTold || std::exchange(vrf.isInitialized, true)) continue;
    output(Daemon::SetInitialized{vrf.name});
    output(Daemon::SetRibReady{vrf.name});
  }
}

void Feed::Work::snapshot(const Output& output) const {
  for (const Vrf& vrf : vrfs_) {
    if (vrf.isTold && vrf.name != Switch::kDefaultVrf) output(Daemon::SetVrf{vrf.name});
  }
  const auto forEachTold = [&](auto visit) {
    for (const auto& [index, port] : ports_) {
      if (port.vrf != nullptr) visit(port);
    }
  };
  forEachTold([&](const Port& port) { output(Daemon::SetInterface{port.intf, port.vrf->name}); });
  forEachTold([&](const Port& port) {
    for (const auto& address : port.addresses) output(operationOf(port.intf, address, true));
  });
  tellAllRoutes(output);
  forEachTold([&](const Port& port) {
    if (port.hasTable) output(Daemon::SetNeighborTable{port.intf});
  });
  forEachTold([&](const Port& port) {
    Daemon::forEachFamily([&](auto family) {
      using F = decltype(family);
      const auto& told = std::get<ToldNeighbors<F>>(port.neighbors);
      auto addrs = told.keys();
      std::ranges::sort(addrs);
      for (const auto& addr : addrs) {
        output(Daemon::SetNeighbor<F>{port.intf, {.ipAddr = addr, .mac = *told.find(addr)}});
      }
    });
  });
  for (const auto& [vrf, addr, len] : virtualAddresses_) {
    output(virtualOperation(vrf, addr, len, true));
  }
  for (const Vrf& vrf : vrfs_) {
    if (!vrf.isInitialized) continue;
    output(Daemon::SetInitialized{vrf.name});
    output(Daemon::SetRibReady{vrf.name});
  }
}

}  // namespace Linux
