// The golden model: the observable behaviour of the host-route engine, written as plainly as can
// be.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace Golden {

struct Family;
class Machine;
struct Vrf;
struct World;

/// A whole switch: feed it the events of a replay one by one and compare its dumps with the
/// engine's.
///
/// Shares no code with the engine. Every table is a sorted map or set and every question is
/// answered by walking all of it, so it is slow, and its order of work is the order of addresses
/// and names.
class Model {
 public:
  /// With `settle`, neighbours whose host route went with a FIB or FEC change are announced again.
  explicit Model(bool settle = false);
  ~Model();

  /// Does what one line of a replay asks. The event has to be valid; a `dump` prints nothing.
  void apply(const nlohmann::json& event);

  /// The `{"dump": {...}}` records of the VRFs and families that `selection` (a `dump` event, or
  /// null for all) names: VRFs by name, IPv4 before IPv6.
  std::vector<nlohmann::json> dumps(const nlohmann::json& selection = nullptr) const;

 private:
  using Event = nlohmann::json;

  Vrf& vrf(const std::string& name);
  void applyIntf(const Event& event, bool present);
  void applyAddr(const Event& event, bool present);
  void applyNeighbor(const Event& event, bool present);
  void applyNeighborTable(const std::string& intf, bool present);
  void applyFec(const Event& event, bool present);
  void applyRoute(const Event& event, bool present);
  void applyVirtualIp(const Event& event, bool present);
  void applyReadiness(const Event& event);
  template <class Visit>
  void eachMachine(const Family& family, Visit visit);
  template <class Chosen>
  void announceRouteless(const Family& family, const std::vector<Machine*>& machines,
                         Chosen chosen);

  bool settle_;
  std::unique_ptr<World> world_;
  std::map<std::string, std::unique_ptr<Vrf>> vrfs_;
};

/// A dump record with what two correct engines may do differently taken out: the order of lists,
/// and which numbers the adjacency helper chose for its adjacencies.
nlohmann::json canonical(nlohmann::json dump);

}  // namespace Golden
