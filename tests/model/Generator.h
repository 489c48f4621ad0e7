// Random replays over a small universe, in which routes, addresses and neighbours often collide.
#pragma once

#include <cstdint>
#include <deque>
#include <initializer_list>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace Golden {

/// The relative frequency of each kind of event; 0 excludes the kind.
struct Weights {
  unsigned neighbor = 300;
  unsigned neighborTable = 20;
  unsigned fec = 120;
  unsigned route = 250;
  unsigned addr = 120;
  unsigned intf = 30;
  unsigned virtualIp = 60;
  unsigned initialized = 25;
  unsigned ribReady = 15;
  unsigned startRibReadyVerification = 10;
  unsigned notifyFecs = 2;
  unsigned vrf = 2;
  unsigned teardown = 1;
  unsigned dump = 5;
  unsigned removal = 35;  ///< percentage of events that remove instead of set
  bool ipv4 = true;
  bool ipv6 = true;
  bool manyVrfs = true;  ///< false: the default VRF only
  bool apart = false;    ///< most routes of a VRF use its own FEC and interface
  bool crowded = false;  ///< a hundred neighbours instead of ten, with prefixes of all lengths
};

/// The weights of the universe "crowded" or "apart"; those of the small one for any other name.
inline Weights weightsOf(std::string_view universe) {
  return {.apart = universe == "apart", .crowded = universe == "crowded"};
}

/// Generates valid replay events. Equal seeds give equal events.
class Generator {
 public:
  explicit Generator(uint64_t seed, const Weights& weights = {});

  nlohmann::json next();

 private:
  struct Universe;
  using Texts = std::vector<std::string>;

  uint64_t below(uint64_t limit) { return random_() % limit; }
  bool chance(unsigned percent) { return below(100) < percent; }
  const std::string& pick(const Texts& texts) { return texts[below(texts.size())]; }
  const Universe& universe();
  static std::string crowded(const Universe& of, uint64_t number);
  std::string host(const Universe& of);
  std::string prefix(const Universe& of);
  std::string vrf();
  nlohmann::json random();
  /// A random FEC for a route of the VRF.
  uint64_t fecOf(const std::string& vrf);
  nlohmann::json route(const std::string& prefix, const Universe& of);
  nlohmann::json fec(uint64_t id, const Universe& of);
  nlohmann::json addr(const Universe& of);
  /// Adds routes, FECs, interfaces and neighbours, so that later events find something to change.
  void setTheScene();

  std::mt19937_64 random_;
  Weights weights_;
  std::deque<nlohmann::json> scene_;
  nlohmann::json lastNeighbor_;  ///< the last event that set a neighbour, or null
};

}  // namespace Golden
