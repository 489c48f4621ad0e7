// The golden model: a simple second implementation of the host-route engine's observable behaviour.
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

/// A whole switch. A test applies the events of a replay and compares the dumps with the engine's.
///
/// Shares no code with the engine. Every table is a sorted map or set, and every look-up walks the
/// whole table. The model is therefore slow, and it works in the order of addresses and names.
class Model {
 public:
  /// With `settle`, the model announces again each neighbour that lost its host route by a FIB or
  /// FEC change.
  explicit Model(bool settle = false);
  ~Model();

  /// Applies one event of a replay. The event must be valid. A `dump` prints nothing.
  void apply(const nlohmann::json& event);

  /// The `{"dump": {...}}` records of the VRFs and families that `selection` names, sorted by VRF
  /// name, IPv4 before IPv6. `selection` is a `dump` event, or null for all.
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

/// A dump record without the details in which two correct engines may differ: the order of lists,
/// and the numbers of the adjacency helper's adjacencies.
nlohmann::json canonical(nlohmann::json dump);

}  // namespace Golden
