// The kernel's routes, with the changes that it makes without notifications.
#include "linux/RouteTable.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <tuple>
#include <utility>

namespace Linux {
namespace {

uint32_t hashOfKey(TableId table, const Prefix& prefix) {
  return Kiv::hashWord((uint64_t{table} << 32) | hashOf(prefix));
}

bool isSameHop(const NextHop& a, const NextHop& b) {
  return a.link == b.link && a.gateway == b.gateway && a.isTunnelled == b.isTunnelled;
}

bool contains(const std::vector<NextHop>& hops, const NextHop& hop) {
  return std::any_of(hops.begin(), hops.end(), [&](const NextHop& h) { return isSameHop(h, hop); });
}

bool areSameHops(const std::vector<NextHop>& a, const std::vector<NextHop>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), isSameHop);
}

/// Sorts IPv6 next hops, because the order in the kernel's messages differs.
void sortHops(std::vector<NextHop>& hops) {
  if (hops.size() < 2) return;
  std::sort(hops.begin(), hops.end(), [](const NextHop& a, const NextHop& b) {
    return std::tie(a.link, a.gateway, a.weight) < std::tie(b.link, b.gateway, b.weight);
  });
}

/// Whether the state of interfaces matters: it does not for routes that drop packets.
bool isReject(uint8_t type) {
  return type == RTN_BLACKHOLE || type == RTN_UNREACHABLE || type == RTN_PROHIBIT ||
         type == RTN_THROW;
}

/// The interfaces of a list of next hops, each once.
std::vector<LinkIndex> linksOf(const std::vector<NextHop>& hops) {
  std::vector<LinkIndex> links;
  links.reserve(hops.size());
  for (const NextHop& hop : hops) {
    if (hop.link != 0 && std::find(links.begin(), links.end(), hop.link) == links.end())
      links.push_back(hop.link);
  }
  return links;
}

}  // namespace

bool RouteTable::Body::isEqual(const Body& other) const {
  return family == other.family && protocol == other.protocol && type == other.type &&
         nexthop == other.nexthop && source == other.source && hops == other.hops;
}

bool RouteTable::Body::canJoin() const {
  return family == 6 && nexthop == 0 && protocol != RTPROT_RA && !isReject(type) &&
         std::any_of(hops.begin(), hops.end(), [](const NextHop& h) { return bool(h.gateway); });
}

RouteTable::Body RouteTable::bodyOf(const Route& route) {
  Body body;
  body.family = familyOf(route.prefix);
  body.protocol = route.protocol;
  body.type = route.type;
  body.nexthop = route.nexthop;
  // The kernel removes the preferred source of an IPv6 route without a notification and keeps the
  // route. So it is not stored.
  if (route.preferredSource && body.family == 4) {
    if (const auto* source = std::get_if<Zemit::IpAddr>(&*route.preferredSource))
      body.source = *source;
  }
  body.hops = route.hops;
  if (body.family == 6) sortHops(body.hops);
  return body;
}

uint32_t RouteTable::hashOfBody(const Body& body) {
  uint32_t hash = Kiv::hashWords(
      (uint64_t{body.nexthop} << 32) | body.source.value(),
      (static_cast<uint64_t>(body.family) << 16) | (uint64_t{body.type} << 8) | body.protocol);
  for (const NextHop& hop : body.hops) {
    const uint32_t flags = (hop.isTunnelled ? 1U : 0) | (hop.isDead ? 2U : 0) |
                           (hop.isLinkDown ? 4U : 0) | (hop.gateway ? 8U : 0);
    hash = Kiv::hashWords(
        (uint64_t{hash} << 32) | hop.link,
        (uint64_t{hop.gateway ? hashOf(*hop.gateway) : 0} << 32) | (flags << 8) | hop.weight);
  }
  return hash;
}

void RouteTable::put(const Route& route, bool replaces, bool appends) {
  Body body = bodyOf(route);
  Number same = findSame(route, body);
  Number replaced = replaces ? findReplaced(route, body) : kNone;
  if (replaced != kNone && replaced != same) {
    // The kernel keeps an equal IPv6 route without gateway at a later position.
    if (same != kNone && (body.family == 4 || body.canJoin() || body.nexthop != 0)) remove(same);
    touch(replaced);
    if (setBody(replaced, std::move(body))) changed(replaced);
    return;
  }
  if (same != kNone) {
    const Number before = firstOf(route.table, route.prefix);
    const bool isMoved = isDumping_ && nodes_[same].dump != dump_ &&
                         (!nodes_[same].isFirst || nodes_[same].nextOfPrefix != kNone);
    touch(same);
    if (isMoved) {
      // The dump has the order of the kernel.
      unlink(same);
      link(same, false);
    }
    const bool differs = setBody(same, std::move(body));
    if (differs || before != firstOf(route.table, route.prefix)) changed(same);
    return;
  }
  if (body.family == 6 && !replaces && route.nexthop == 0) {
    mergeIpv6(route, std::move(body));
    return;
  }
  const bool isFirst = body.family == 4 && !appends && !isDumping_;
  insert(route, std::move(body), isFirst);
}

/// Adds IPv6 next hops to the route of their prefix and metric. The message has the whole route or,
/// from kernels before 4.11, the new next hop alone.
void RouteTable::mergeIpv6(const Route& route, Body body) {
  const Number first = find(route, [&](const Node&, const Body& other) {
    if (other.nexthop != 0 || other.type != body.type) return false;
    if (other.canJoin() && body.canJoin()) return true;
    return std::any_of(other.hops.begin(), other.hops.end(),
                       [&](const NextHop& hop) { return contains(body.hops, hop); });
  });
  if (first == kNone) {
    insert(route, std::move(body), false);
    return;
  }
  const bool isNamed = !isDumping_ || nodes_[first].dump == dump_;
  if (body.hops.size() == 1 && isNamed) {
    const Body& other = bodies_[nodes_[first].body];
    std::vector<NextHop> hops = other.hops;
    hops.push_back(body.hops.front());
    sortHops(hops);
    body.hops = std::move(hops);
    body.protocol = other.protocol;
  }
  touch(first);
  bool differs = false;
  // Next hops that were routes of their own are a part of the new route now.
  const std::vector<NextHop> hops = body.hops;
  for (Number at = firstOf(route.table, route.prefix); at != kNone;) {
    const Number next = nodes_[at].nextOfPrefix;
    const Node& node = nodes_[at];
    const Body& other = bodies_[node.body];
    if (at != first && node.metric == route.metric && node.hasSource == route.hasSource &&
        other.nexthop == 0 && other.type == body.type && !other.hops.empty() &&
        std::all_of(other.hops.begin(), other.hops.end(),
                    [&](const NextHop& hop) { return contains(hops, hop); })) {
      remove(at);
      differs = true;
    }
    at = next;
  }
  if (setBody(first, std::move(body)) || differs) changed(first);
}

void RouteTable::dropReplaced(const Route& route) {
  if (const Number replaced = findReplaced(route, bodyOf(route)); replaced != kNone) {
    remove(replaced);
    changed_(route.table, route.prefix);
  }
}

void RouteTable::erase(const Route& route) {
  Body body = bodyOf(route);
  Number same = findSame(route, body);
  if (same == kNone && body.family == 6 && route.nexthop == 0) {
    // Only some of the next hops were removed.
    same = find(route, [&](const Node&, const Body& other) {
      return other.nexthop == 0 && other.type == body.type &&
             std::any_of(other.hops.begin(), other.hops.end(),
                         [&](const NextHop& hop) { return contains(body.hops, hop); });
    });
    if (same == kNone) return;
    Body rest = bodies_[nodes_[same].body];
    std::erase_if(rest.hops, [&](const NextHop& hop) { return contains(body.hops, hop); });
    if (!rest.hops.empty()) {
      setBody(same, std::move(rest));
      changed(same);
      return;
    }
  }
  if (same == kNone) return;
  remove(same);
  changed_(route.table, route.prefix);
}

void RouteTable::endDump() {
  isDumping_ = false;
  for (Number number = 0; number < nodes_.size(); ++number) {
    const Node& node = nodes_[number];
    if (node.body == kNone || node.dump == dump_) continue;
    const TableId table = node.table;
    const Prefix prefix = node.prefix;
    remove(number);
    changed_(table, prefix);
  }
}

void RouteTable::linkIs(const Link& link, bool isRevived) {
  for (const Number number : byLink_.of(link.index)) {
    const Body& body = bodies_[number];
    if (body.nexthop != 0 || isReject(body.type)) continue;
    // Routes of the machine's own addresses stay while their interface is down. Their removal is
    // announced.
    if (body.type == RTN_LOCAL || (body.type == RTN_ANYCAST && body.family == 6)) continue;
    // Only an IPv4 next hop may be dead for another reason.
    const bool revives = link.isUp && (isRevived || (body.family == 6 && link.hasCarrier));
    changeHopsOn(link.index, number, [&](NextHop& hop) {
      if (!link.isUp) hop.isDead = true;
      if (revives) hop.isDead = false;
      hop.isLinkDown = !link.hasCarrier;
    });
  }
}

void RouteTable::linkGone(LinkIndex link) {
  for (const Number number : byLink_.of(link)) {
    const Body& body = bodies_[number];
    if (body.nexthop != 0) continue;
    if (body.family == 4) {
      // The kernel removes an IPv4 route with the first of its interfaces.
      removeRoutesOf(number);
    } else {
      changeHops(number, [&](std::vector<NextHop>& hops) {
        return std::erase_if(hops, [&](const NextHop& hop) { return hop.link == link; }) != 0;
      });
    }
  }
}

void RouteTable::ipv4Enabled(const Link& link) {
  if (!link.isUp) return;
  for (const Number number : byLink_.of(link.index)) {
    const Body& body = bodies_[number];
    if (body.family != 4 || body.nexthop != 0) continue;
    changeHopsOn(link.index, number, [&](NextHop& hop) {
      if (hop.isDead && link.hasCarrier) hop.isLinkDown = false;
      hop.isDead = false;
    });
  }
}

void RouteTable::ipv4Disabled(LinkIndex link) {
  for (const Number number : byLink_.of(link)) {
    const Body& body = bodies_[number];
    if (body.family != 4 || body.nexthop != 0) continue;
    changeHopsOn(link, number, [](NextHop& hop) { hop.isDead = hop.isLinkDown = true; });
  }
}

void RouteTable::preferredSourceGone(TableId table, Zemit::IpAddr addr) {
  for (const Number body : bySource_.of(addr)) {
    for (const Number number : routesOf(body)) {
      if (nodes_[number].table != table) continue;
      const Prefix prefix = nodes_[number].prefix;
      remove(number);
      changed_(table, prefix);
    }
  }
}

void RouteTable::nexthopChanged(uint32_t id) {
  for (const Number body : byNexthop_.of(id)) {
    for (const Number number : routesOf(body)) changed(number);
  }
}

void RouteTable::nexthopGone(uint32_t id) {
  for (const Number body : byNexthop_.of(id)) removeRoutesOf(body);
}

std::vector<Route> RouteTable::routes(TableId table, const Prefix& prefix) const {
  std::vector<Route> routes;
  for (Number at = firstOf(table, prefix); at != kNone; at = nodes_[at].nextOfPrefix) {
    const Node& node = nodes_[at];
    const Body& body = bodies_[node.body];
    Route& route = routes.emplace_back();
    route.table = table;
    route.prefix = prefix;
    route.metric = node.metric;
    route.protocol = body.protocol;
    route.type = body.type;
    route.tos = node.tos;
    route.hasSource = node.hasSource;
    route.nexthop = body.nexthop;
    if (!body.source.isZero()) route.preferredSource = body.source;
    route.hops = body.hops;
  }
  return routes;
}

void RouteTable::forEach(const std::function<void(TableId, const Prefix&)>& visit) const {
  for (const Node& node : nodes_) {
    if (node.body != kNone && node.isFirst) visit(node.table, node.prefix);
  }
}

RouteTable::Number RouteTable::firstOf(TableId table, const Prefix& prefix) const {
  const uint32_t* found = byPrefix_.find(hashOfKey(table, prefix), [&](Number number) {
    return nodes_[number].table == table && nodes_[number].prefix == prefix;
  });
  return found == nullptr ? kNone : *found;
}

/// The first route of the same prefix, metric, type of service and source for which
/// isSought(node, body) is true.
template <class Test>
RouteTable::Number RouteTable::find(const Route& route, const Test& isSought) const {
  for (Number at = firstOf(route.table, route.prefix); at != kNone; at = nodes_[at].nextOfPrefix) {
    const Node& node = nodes_[at];
    if (node.metric == route.metric && node.tos == route.tos && node.hasSource == route.hasSource &&
        isSought(node, bodies_[node.body]))
      return at;
  }
  return kNone;
}

RouteTable::Number RouteTable::findSame(const Route& route, const Body& body) const {
  return find(route, [&](const Node&, const Body& other) {
    if (other.type != body.type || other.nexthop != body.nexthop) return false;
    // The next hops of an IPv6 route may be of several protocols.
    if (other.protocol != body.protocol && body.hops.size() < 2) return false;
    return body.nexthop != 0 || (other.source == body.source && areSameHops(other.hops, body.hops));
  });
}

RouteTable::Number RouteTable::findReplaced(const Route& route, const Body& body) const {
  const auto anyRoute = [](const Node&, const Body&) { return true; };
  if (body.family == 4) return find(route, anyRoute);
  const bool canJoin = body.canJoin();
  const Number alike =
      find(route, [=](const Node&, const Body& other) { return other.canJoin() == canJoin; });
  return alike != kNone ? alike : find(route, anyRoute);
}

void RouteTable::insert(const Route& route, Body body, bool inFront) {
  Number number = static_cast<Number>(nodes_.size());
  if (freeNodes_.empty()) {
    nodes_.emplace_back();
  } else {
    number = freeNodes_.back();
    freeNodes_.pop_back();
  }
  Node& node = nodes_[number];
  node.prefix = route.prefix;
  node.table = route.table;
  node.metric = route.metric;
  node.tos = route.tos;
  node.hasSource = route.hasSource;
  touch(number);
  link(number, inFront);
  attach(number, std::move(body));
  changed(number);
}

/// Inserts a node among those of its prefix, before or after those of its rank. During a dump it
/// follows the nodes of the dump, so that the order is that of the kernel.
void RouteTable::link(Number number, bool inFront) {
  Node& node = nodes_[number];
  const uint32_t hash = hashOfKey(node.table, node.prefix);
  const Number first = firstOf(node.table, node.prefix);
  // The kernel tries routes with a type of service before those without.
  const auto rank = [](const Node& n) { return std::pair(n.metric, -n.tos); };
  Number before = kNone;
  for (Number at = first; at != kNone; at = nodes_[at].nextOfPrefix) {
    const Node& other = nodes_[at];
    if (rank(other) > rank(node)) break;
    if (rank(other) == rank(node) && (inFront || (isDumping_ && other.dump != dump_))) break;
    before = at;
  }
  node.isFirst = before == kNone;
  if (before != kNone) {
    node.nextOfPrefix = nodes_[before].nextOfPrefix;
    nodes_[before].nextOfPrefix = number;
    return;
  }
  node.nextOfPrefix = first;
  if (first != kNone) {
    nodes_[first].isFirst = false;
    byPrefix_.erase(hash, first);
  }
  byPrefix_.add(hash, number);
}

void RouteTable::unlink(Number number) {
  Node& node = nodes_[number];
  const Number first = firstOf(node.table, node.prefix);
  if (first == number) {
    const uint32_t hash = hashOfKey(node.table, node.prefix);
    byPrefix_.erase(hash, number);
    if (node.nextOfPrefix != kNone) {
      byPrefix_.add(hash, node.nextOfPrefix);
      nodes_[node.nextOfPrefix].isFirst = true;
    }
  } else {
    Number before = first;
    while (nodes_[before].nextOfPrefix != number) before = nodes_[before].nextOfPrefix;
    nodes_[before].nextOfPrefix = node.nextOfPrefix;
  }
  node.nextOfPrefix = kNone;
  node.isFirst = false;
}

void RouteTable::remove(Number number) {
  unlink(number);
  detach(number);
  freeNodes_.push_back(number);
}

bool RouteTable::setBody(Number number, Body body) {
  if (bodies_[nodes_[number].body].isEqual(body)) return false;
  detach(number);
  attach(number, std::move(body));
  return true;
}

void RouteTable::attach(Number number, Body body) {
  const Number shared = share(std::move(body));
  Body& owner = bodies_[shared];
  Node& node = nodes_[number];
  node.body = shared;
  node.previousOfBody = kNone;
  node.nextOfBody = owner.firstRoute;
  if (owner.firstRoute != kNone) nodes_[owner.firstRoute].previousOfBody = number;
  owner.firstRoute = number;
  ++owner.routes;
}

void RouteTable::detach(Number number) {
  Node& node = nodes_[number];
  Body& owner = bodies_[node.body];
  if (node.previousOfBody != kNone) {
    nodes_[node.previousOfBody].nextOfBody = node.nextOfBody;
  } else {
    owner.firstRoute = node.nextOfBody;
  }
  if (node.nextOfBody != kNone) nodes_[node.nextOfBody].previousOfBody = node.previousOfBody;
  if (--owner.routes == 0) release(node.body);
  node.body = node.previousOfBody = node.nextOfBody = kNone;
}

/// The number of an equal body, or that of this one if there is no equal one.
RouteTable::Number RouteTable::share(Body body) {
  body.hash = hashOfBody(body);
  const uint32_t* known =
      byContent_.find(body.hash, [&](Number number) { return bodies_[number].isEqual(body); });
  if (known != nullptr) return *known;
  Number number = static_cast<Number>(bodies_.size());
  if (freeBodies_.empty()) {
    bodies_.emplace_back();
  } else {
    number = freeBodies_.back();
    freeBodies_.pop_back();
  }
  Body& added = bodies_[number];
  added = std::move(body);
  added.routes = 0;
  added.firstRoute = kNone;
  byContent_.add(added.hash, number);
  added.isIndexed = true;
  for (const LinkIndex link : linksOf(added.hops)) byLink_.add(link, number);
  if (!added.source.isZero()) bySource_.add(added.source, number);
  if (added.nexthop != 0) byNexthop_.add(added.nexthop, number);
  return number;
}

void RouteTable::release(Number number) {
  Body& body = bodies_[number];
  if (body.isIndexed) byContent_.erase(body.hash, number);
  for (const LinkIndex link : linksOf(body.hops)) byLink_.remove(link, number);
  if (!body.source.isZero()) bySource_.remove(body.source, number);
  if (body.nexthop != 0) byNexthop_.remove(body.nexthop, number);
  body = Body();
  freeBodies_.push_back(number);
}

std::vector<RouteTable::Number> RouteTable::routesOf(Number body) const {
  std::vector<Number> numbers;
  numbers.reserve(bodies_[body].routes);
  for (Number at = bodies_[body].firstRoute; at != kNone; at = nodes_[at].nextOfBody)
    numbers.push_back(at);
  return numbers;
}

void RouteTable::removeRoutesOf(Number body) {
  for (const Number number : routesOf(body)) {
    const TableId table = nodes_[number].table;
    const Prefix prefix = nodes_[number].prefix;
    remove(number);
    changed_(table, prefix);
  }
}

template <class Change>
void RouteTable::changeHops(Number number, const Change& change) {
  Body& body = bodies_[number];
  std::vector<NextHop> hops = body.hops;
  if (change(hops)) {
    if (body.isIndexed) byContent_.erase(body.hash, number);
    for (const LinkIndex link : linksOf(body.hops)) byLink_.remove(link, number);
    body.hops = std::move(hops);
    body.hash = hashOfBody(body);
    for (const LinkIndex link : linksOf(body.hops)) byLink_.add(link, number);
    // Two bodies may become equal. They stay separate, because merging them would take a pass over
    // their routes.
    body.isIndexed =
        byContent_.find(body.hash, [&](Number n) { return bodies_[n].isEqual(body); }) == nullptr;
    if (body.isIndexed) byContent_.add(body.hash, number);
    for (const Number route : routesOf(number)) changed(route);
  }
  const auto isDead = [](const NextHop& hop) { return hop.isDead; };
  if (std::all_of(body.hops.begin(), body.hops.end(), isDead)) removeRoutesOf(number);
}

template <class Change>
void RouteTable::changeHopsOn(LinkIndex link, Number body, const Change& change) {
  changeHops(body, [&](std::vector<NextHop>& hops) {
    bool differs = false;
    for (NextHop& hop : hops) {
      if (hop.link != link) continue;
      const NextHop before = hop;
      change(hop);
      differs |= hop != before;
    }
    return differs;
  });
}

}  // namespace Linux
