// FECs that routes share.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "daemon/Operation.h"

namespace Linux {

/// Assigns ids to FECs, the smallest free one first.
class FecIds {
 public:
  uint32_t take() {
    if (free_.empty()) return ++last_;
    return free_.extract(free_.begin()).value();
  }
  void giveBack(uint32_t id) { free_.insert(id); }

 private:
  std::set<uint32_t> free_;
  uint32_t last_ = 0;
};

/// The FECs of one family: one for each list of vias that a route uses.
template <class F>
class Fecs {
 public:
  using Via = typename F::Via;
  struct Use {
    uint32_t id = 0;
    uint32_t routes = 0;  ///< that use it
  };
  /// A FEC stays where it is until sweep() removes it.
  using Fec = std::pair<const std::vector<Via>, Use>;

  explicit Fecs(FecIds& ids) : ids_(ids) {}

  /// Counts one more route that uses the FEC of these vias. \return null for a route without vias.
  /// \param told  is called with the operation that creates a new FEC.
  template <class Output>
  Fec* acquire(std::vector<Via> vias, const Output& told) {
    if (vias.empty()) return nullptr;
    const auto [place, isNew] = fecs_.try_emplace(std::move(vias));
    if (isNew) {
      place->second.id = ids_.take();
      told(Daemon::SetFec<F>{valueOf(*place)});
    }
    ++place->second.routes;
    return &*place;
  }
  void release(Fec* fec) {
    if (fec != nullptr && --fec->second.routes == 0) unused_.push_back(fec);
  }
  /// Removes the FECs that no route uses, and frees their ids.
  template <class Output>
  void sweep(const Output& told) {
    for (Fec* fec : unused_) {
      // A FEC that was used and released again is listed twice.
      if (fec->second.routes != 0 || fec->second.id == 0) continue;
      told(Daemon::SetFec<F>{typename F::Fec(fec->second.id), false});
      ids_.giveBack(std::exchange(fec->second.id, 0));
      swept_.push_back(fec);
    }
    for (Fec* fec : swept_) fecs_.erase(fecs_.find(fec->first));
    unused_.clear();
    swept_.clear();
  }

  /// All FECs, in the order of their ids.
  std::map<uint32_t, typename F::Fec> all() const {
    std::map<uint32_t, typename F::Fec> all;
    for (const auto& fec : fecs_) all.emplace(fec.second.id, valueOf(fec));
    return all;
  }

 private:
  static typename F::Fec valueOf(const Fec& fec) {
    typename F::Fec value(fec.second.id);
    for (const Via& via : fec.first) value.newVia(via);
    return value;
  }

  FecIds& ids_;
  std::map<std::vector<Via>, Use> fecs_;
  std::vector<Fec*> unused_, swept_;
};

}  // namespace Linux
