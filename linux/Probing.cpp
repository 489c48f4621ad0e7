#include "linux/Probing.h"

#include <linux/neighbour.h>

#include <algorithm>
#include <utility>

namespace Linux {
namespace {

/// Represents all VLANs. No VLAN has this number.
constexpr uint16_t kAnyVlan = 0xFFFF;
/// ProbingOptions::collects is called again after this many seconds.
constexpr double kAskInterval = 5;

}  // namespace

uint32_t Probing::Departure::hash() const {
  uint64_t word = vlan;
  for (const uint8_t byte : mac.bytes()) word = word << 8 | byte;
  return Kiv::hashWords(bridge, word);
}

Probing::Probing(const Mirror& mirror, std::function<double()> clock, ProbingOptions options)
    : mirror_(mirror),
      clock_(std::move(clock)),
      options_(std::move(options)),
      tokens_(options_.rate),
      tokensAt_(clock_()) {}

void Probing::onFdbEntryGone(const FdbEntry& entry) {
  if (!options_.onDeparture || entry.bridge == 0 || entry.isPermanent) return;
  bridges_.insert(entry.bridge);
  departures_.insert({entry.bridge, entry.vlan, entry.mac});
  departures_.insert({entry.bridge, kAnyVlan, entry.mac});
}

void Probing::onCarrierLost(LinkIndex link) {
  if (options_.onDeparture) carriersLost_.insert(link);
}

void Probing::onNeighbor(LinkIndex link, const Address& addr) {
  if (!options_.keepalive) return;
  if (const auto* neighbor = mirror_.neighbor(link, addr)) {
    considerRefreshing(*neighbor);
  } else {
    refreshedAt_.erase({link, addr});
  }
}

void Probing::setOptions(ProbingOptions options) {
  tokens_ = std::min<double>(tokensNow(), options.rate);
  tokensAt_ = clock_();
  const bool begins = options.keepalive && !options_.keepalive;
  options_ = std::move(options);
  if (!options_.keepalive) {
    for (auto& refreshments : refreshments_) refreshments = {};
    refreshedAt_.clear();
  }
  if (!begins) return;
  mirror_.forEachLink([this](const Link& link) {
    mirror_.forEachNeighbor(link.index,
                            [this](const Neighbor& neighbor) { considerRefreshing(neighbor); });
  });
}

std::vector<Probe> Probing::due() {
  std::vector<Probe> probes;
  if (!carriersLost_.empty() || !bridges_.empty()) resolveDepartures();
  const bool hasRefreshments = std::ranges::any_of(
      refreshments_, [](const auto& refreshments) { return !refreshments.queue.empty(); });
  if (urgent_.empty() && !hasRefreshments) return probes;
  tokens_ = tokensNow();
  tokensAt_ = clock_();
  while (!urgent_.empty() && tokens_ >= 1) {
    const auto probe = urgent_.front();
    urgent_.pop_front();
    isUrgent_.erase(probe);
    const auto* neighbor = mirror_.neighbor(probe.link, probe.addr);
    if (neighbor == nullptr || !isOurs(*neighbor)) continue;
    probes.push_back(probe);
    --tokens_;
  }
  for (const int family : {4, 6}) takeRefreshments(family, probes);
  return probes;
}

/// Takes the refreshments that are due, unless the kernel drops no entries now.
void Probing::takeRefreshments(int family, std::vector<Probe>& probes) {
  auto& refreshments = refreshments_[family == 4 ? 0 : 1];
  if (!refreshments.isDue(tokensAt_)) return;
  if (tokensAt_ >= refreshments.askAt) {
    refreshments.areNeeded = !options_.collects || options_.collects(family);
    refreshments.askAt = tokensAt_ + kAskInterval;
  }
  while (refreshments.areNeeded && refreshments.isDue(tokensAt_) && tokens_ >= 1) {
    const auto probe = refreshments.queue.top().probe;
    refreshments.queue.pop();
    const auto* neighbor = mirror_.neighbor(probe.link, probe.addr);
    if (neighbor == nullptr || !isOurs(*neighbor) || neighbor->state != NUD_STALE) continue;
    *refreshedAt_.tryEmplace(probe).first = tokensAt_;
    probes.push_back(probe);
    --tokens_;
  }
}

std::optional<double> Probing::nextDeadline() const {
  if (options_.rate == 0) return std::nullopt;
  const double tokenAt = tokensAt_ + std::max(0.0, 1 - tokens_) / options_.rate;
  if (!urgent_.empty() || !carriersLost_.empty() || !bridges_.empty()) return tokenAt;
  std::optional<double> next;
  for (const auto& [queue, areNeeded, askAt] : refreshments_) {
    if (queue.empty()) continue;
    const double at = std::max({tokenAt, queue.top().at, areNeeded ? 0 : askAt});
    if (!next || at < *next) next = at;
  }
  return next;
}

/// Finds the neighbours behind the departures, on the interfaces above them.
void Probing::resolveDepartures() {
  mirror_.forEachFdbEntry([this](const FdbEntry& entry) {
    if (carriersLost_.contains(entry.port)) onFdbEntryGone(entry);
  });
  mirror_.forEachLink([this](const Link& link) {
    if (carriersLost_.contains(link.index) || carriersLost_.contains(link.lower)) askAll(link);
    for (const auto bridge : {link.index, link.lower}) {
      if (bridges_.contains(bridge)) askDeparted(link, bridge);
    }
  });
  carriersLost_.clear();
  bridges_.clear();
  departures_.clear();
}

void Probing::askAll(const Link& link) {
  mirror_.forEachNeighbor(link.index, [this](const Neighbor& neighbor) {
    if (isOurs(neighbor)) ask({neighbor.link, neighbor.addr});
  });
}

/// Probes the neighbours of an interface whose MAC left its bridge. The VLAN is known only for a
/// VLAN interface on the bridge. A bridge without VLANs has all addresses in VLAN 0.
void Probing::askDeparted(const Link& link, LinkIndex bridge) {
  const uint16_t vlan = link.index != bridge && link.vlan != 0 ? link.vlan : kAnyVlan;
  mirror_.forEachNeighbor(link.index, [&](const Neighbor& neighbor) {
    if (!departures_.contains({bridge, vlan, neighbor.mac}) &&
        !departures_.contains({bridge, 0, neighbor.mac})) {
      return;
    }
    if (isOurs(neighbor)) ask({neighbor.link, neighbor.addr});
  });
}

void Probing::ask(const Probe& probe) {
  if (isUrgent_.insert(probe)) urgent_.push_back(probe);
}

/// Whether the neighbour may be probed: it was not added by an administrator or a control plane,
/// and is not being probed.
bool Probing::isOurs(const Neighbor& neighbor) const {
  const bool isUsable = (neighbor.state & (NUD_REACHABLE | NUD_STALE | NUD_DELAY)) != 0;
  return isUsable && !neighbor.isProxy && !neighbor.isLearnedByControlPlane &&
         (!options_.isSelected || options_.isSelected(neighbor.link));
}

void Probing::considerRefreshing(const Neighbor& neighbor) {
  if (neighbor.state != NUD_STALE || !isOurs(neighbor)) return;
  const Probe probe{neighbor.link, neighbor.addr};
  const double now = clock_();
  // The time of its last confirmation is not known.
  const auto [at, isNew] = refreshedAt_.tryEmplace(probe, now);
  if (!isNew) {
    if (*at > now) return;
    *at = std::max(now, *at + options_.keepaliveInterval);
  }
  refreshments_[familyOf(neighbor.addr) == 4 ? 0 : 1].queue.push({*at, probe});
}

double Probing::tokensNow() const {
  const double gained = (clock_() - tokensAt_) * options_.rate;
  return std::min<double>(options_.rate, tokens_ + gained);
}

}  // namespace Linux
