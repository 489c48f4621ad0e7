// The forwarding status: FECs, in shared memory.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "platform/kiv/runtime/Attributes.h"
#include "platform/kiv/runtime/Watch.h"
#include "platform/tovan/FibTypes.h"
#include "platform/tovan/IntfNames.h"
#include "platform/tovan/TableWalk.h"
#include "platform/tovan/TovanMap.h"

namespace Tovan {

/// The FECs of one family. Other processes can read them, as they can read the routes that use
/// them.
///
/// The program that sets the FIB's routes sets and announces the FECs below kFirstAdjacency. The
/// others are FIB adjacencies, which an adjacency helper assigns. Readers resolve them in the same
/// way, but they are neither announced nor listed with the others.
///
/// \tparam A  the family's address.
template <class A>
class BasicForwardingStatus final : public Kiv::NamedEntity {
 public:
  using FecId = Fib::FecId;
  using Via = BasicVia<A>;
  using Fec = BasicFec<Via>;
  using Ptr = Kiv::Ptr<BasicForwardingStatus>;
  using PtrConst = Kiv::Ptr<const BasicForwardingStatus>;
  class FecIterator;

  /// The lowest id of a FIB adjacency.
  static constexpr FecId kFirstAdjacency = FecId{1} << 32;

  /// Derive from this to be told of changes. onFec() announces the whole collection; a new notifiee
  /// gets it at once.
  class NotifieeConst : public Kiv::NotifieeOf<BasicForwardingStatus> {
   public:
    virtual void onFec(const FecId&) {}
    virtual void onFec() {}
    virtual void onFeckivImmediate() { onFec(); }

   protected:
    void kivImmediate() override { onFeckivImmediate(); }
  };

  KIV_COLLECTION_TAG(258, fec, Fec, FecId);

  /// \param name    the table's name; other processes know its parts as "NAME.fec4" and so on.
  /// \param access  by default a table in this process's own memory.
  /// \throws OpenException, NoSpaceException.
  explicit BasicForwardingStatus(const std::string& name, Access access = Access::Embedded);

  /// The FEC of this id, or one without id and vias.
  /// \throws CorruptionDetectedException.
  Fec fec(const FecId& id) const;

  /// Prefetches the memory of a FEC before it is read, stored or removed.
  /// \param isNew  as for TovanMap::prefetch().
  void prefetch(const FecId& id, bool isNew = false) const { fecs_.prefetch(id, isNew); }

  /// Stores a FEC under its id; announces it if it is new or differs.
  /// \throws Kiv::RangeException when the id is 0 or a FIB adjacency's; NoSpaceException.
  void fecIs(const Fec& fec);
  /// Removes a FEC and announces that, if it is there.
  void fecDel(const FecId& id);
  void fecDel(const FecIterator& it);
  /// Removes all FECs but the FIB adjacencies, and announces each.
  void fecDelAll();
  /// A walk over the FECs without FIB adjacencies. \throws CorruptionDetectedException.
  FecIterator fecIterator() const { return FecIterator(*this); }
  FecIterator fecIteratorConst() const { return FecIterator(*this); }
  /// All ids but those of FIB adjacencies, in no particular order. Damage is reported and ends the
  /// list.
  std::vector<FecId> fecKeys() const;
  /// Announces a FEC, or the whole collection, without a change.
  void fecNotify(const FecId& id) const { this->template notify<FecAttribute>(id); }
  void fecNotify() const { this->template notify<FecAttribute>(); }

  /// The watches that are told of each FEC that is stored or removed.
  const Kiv::WatchList<FecId>& watches() const noexcept { return watches_; }

  /// A number that no other user of FIB adjacencies has or had in this table. The ids of its
  /// adjacencies begin at `number << 32`.
  uint32_t newAdjacencySpace() { return ++adjacencySpaces_; }
  /// Stores a new FIB adjacency, or removes one, without an announcement. FECs that the table lost
  /// to damage meanwhile are announced with the next change of a FEC. \pre the id of a new one is
  /// unused
  void adjacencyIs(const Fec& adjacency) {
    storing(adjacency, [&](const Record& record) { fecs_.add(adjacency.id(), record); });
  }
  void adjacencyDel(const FecId& id) { remove(id); }
  /// Whether a FIB adjacency can be read.
  bool adjacencyIsSound(const FecId& id) const;
  /// Replaces a FIB adjacency, even if it is damaged.
  void adjacencyReplace(const Fec& adjacency) { store(adjacency); }

  /// Checks and repairs the tables; see TovanMap::tend(). Announces the FECs that were lost.
  /// \throws NoSpaceException, ReadOnlyException.
  void tend(TendRound& round);
  /// Whether the names lead to these tables; see Table.
  bool isCurrent() const {
    return fecs_.isCurrent() && moreVias_.isCurrent() && intfs_.isCurrent();
  }
  /// The number of changes; see Table.
  uint64_t changeCount() const { return fecs_.changeCount(); }
  /// How many names of interfaces the table has, with some that no FEC refers to any more.
  size_t intfNameCount() const { return intfs_.size(); }

  /// Called with the message of damage that a look-up or walk found.
  void corruptionDetected(const std::string& message) const { fecs_.corruptionDetected(message); }

 private:
  struct RawVia {
    A hop;
    uint32_t intf = 0;  // a number of intfs_
  };
  /// A FEC with its first via. Most have only one; further vias are in moreVias_ under `change`.
  struct Record {
    uint32_t viaCount = 0;
    uint32_t change = 0;
    RawVia first{};
  };
  /// A further via. An update writes its vias under a new change count, then the record with this
  /// count, and then removes the vias of the former update. So neither a reader nor a next writer
  /// finds a mixture of two updates.
  struct ViaKey {
    FecId fec;
    uint32_t change;
    uint32_t index;
  };

  static constexpr bool kIsIpv4 = A::kBits == 32;
  RawVia take(const Via& via) { return {.hop = via.hop, .intf = intfs_.take(via.intf)}; }
  /// Adds a stored via to `fec`. Returns whether its interface has a name.
  bool addTo(Fec& fec, const RawVia& via) const {
    const auto intf = intfs_.intfOf(via.intf);
    fec.newVia({.hop = via.hop, .intf = intf});
    return via.intf == 0 || intf != Zemit::IntfId();
  }
  enum class Vias : uint8_t { Missing, Unnamed, Complete };
  Vias readVias(const Record& record, Fec& fec) const;
  bool holds(const Fec& fec) const;
  std::optional<Record> former(const FecId& id) const;
  template <class Store>
  void storing(const Fec& fec, Store store);
  void store(const Fec& fec);
  std::optional<Dropped<FecId>> takeDropped();
  bool remove(const FecId& id);
  void removeVias(const FecId& id, const Record& record);
  void clearUp();

  // Mutable: readers note damage, too.
  mutable TovanMap<FecId, Record> fecs_;
  TovanMap<ViaKey, RawVia> moreVias_;
  IntfNames intfs_;
  uint32_t adjacencySpaces_ = 0;
  uint32_t changes_ = 0;
  Kiv::WatchList<FecId> watches_;
};

/// Visits the FECs; see TableWalk. The vias are read when the FEC is read.
template <class A>
class BasicForwardingStatus<A>::FecIterator : public TableWalk<FecId, Record> {
 public:
  explicit FecIterator(const BasicForwardingStatus& status)
      : TableWalk<FecId, Record>(status.fecs_,
                                 [](const FecId& id) { return id >= kFirstAdjacency; }),
        status_(&status) {}
  /// \throws CorruptionDetectedException.
  Fec value() const { return status_->fec(this->key()); }
  Fec ptr() const { return value(); }

 private:
  const BasicForwardingStatus* status_;
};

template <class A>
BasicForwardingStatus<A>::BasicForwardingStatus(const std::string& name, Access access)
    : NamedEntity(Kiv::Name(name)),
      fecs_({.access = access,
             .name = name + (kIsIpv4 ? ".fec4" : ".fec6"),
             .layout = kIsIpv4 ? "fec4/1" : "fec6/1"}),
      moreVias_({.access = access,
                 .name = name + (kIsIpv4 ? ".via4" : ".via6"),
                 .layout = kIsIpv4 ? "via4/1" : "via6/1"}),
      intfs_(
          {.access = access, .name = name + (kIsIpv4 ? ".intf4" : ".intf6"), .layout = "intf/1"}) {
  if (access == Access::Write) clearUp();
}

/// Removes the incomplete updates of a former writer. Its adjacency spaces and change counts are
/// not used again.
template <class A>
void BasicForwardingStatus<A>::clearUp() {
  for (const auto& item : fecs_) {
    adjacencySpaces_ = std::max(adjacencySpaces_, static_cast<uint32_t>(item.key >> 32));
    changes_ = std::max(changes_, item.value.change);
    intfs_.hold(item.value.first.intf);
  }
  for (const auto& [key, via] : moreVias_) {
    intfs_.hold(via.intf);
    const auto record = fecs_.get(key.fec);
    if (!record || record->change != key.change || key.index >= record->viaCount) {
      moreVias_.erase(key);
      intfs_.drop(via.intf);
    }
  }
}

template <class A>
typename BasicForwardingStatus<A>::Fec BasicForwardingStatus<A>::fec(const FecId& id) const {
  constexpr int kTries = 100;  // each failure but the last means that an update was completed
  for (int tries = 0; tries < kTries; ++tries) {
    const auto record = fecs_.get(id);
    if (!record) return {};
    Fec fec(id);
    const auto vias = readVias(*record, fec);
    if (vias == Vias::Complete) return fec;
    if (vias == Vias::Missing) continue;
    // Either the name is lost, or the FEC was removed and then its name.
    const auto again = fecs_.get(id);
    if (again && again->change == record->change) return fec;
  }
  throw CorruptionDetectedException("table " + fecs_.name() + ": FEC " + std::to_string(id) +
                                    " lacks vias");
}

/// Adds the vias of a record to `fec`, until one is missing.
template <class A>
auto BasicForwardingStatus<A>::readVias(const Record& record, Fec& fec) const -> Vias {
  bool isNamed = record.viaCount == 0 || addTo(fec, record.first);
  for (uint32_t index = 1; index < record.viaCount; ++index) {
    const auto via = moreVias_.get({.fec = fec.id(), .change = record.change, .index = index});
    if (!via) return Vias::Missing;
    isNamed &= addTo(fec, *via);
  }
  return isNamed ? Vias::Complete : Vias::Unnamed;
}

// A damaged FEC counts as absent when it is replaced: storing repairs and reports it.

template <class A>
bool BasicForwardingStatus<A>::holds(const Fec& fec) const {
  try {
    return this->fec(fec.id()) == fec;
  } catch (const CorruptionDetectedException&) {
    return false;
  }
}

template <class A>
auto BasicForwardingStatus<A>::former(const FecId& id) const -> std::optional<Record> {
  try {
    return fecs_.get(id);
  } catch (const CorruptionDetectedException&) {
    return std::nullopt;
  }
}

template <class A>
void BasicForwardingStatus<A>::fecIs(const Fec& fec) {
  KIV_REQUIRE(fec.id() != Fib::invalidFecId && fec.id() < kFirstAdjacency,
              "FecId::value == 0 or >= 2^32 not allowed");
  if (this->hasNotifiees() && !fecs_.isReadOnly() && holds(fec)) return;
  store(fec);
  announce<FecAttribute>(*this, watches_, fec.id(), takeDropped());
}

template <class A>
void BasicForwardingStatus<A>::fecDel(const FecId& id) {
  const bool removed = remove(id);
  const auto dropped = takeDropped();
  if (removed || dropped) announce<FecAttribute>(*this, watches_, id, dropped);
}

/// The FECs that lost entries of the tables to damage, without FIB adjacencies.
template <class A>
auto BasicForwardingStatus<A>::takeDropped() -> std::optional<Dropped<FecId>> {
  auto records = fecs_.takeDropped();
  auto vias = moreVias_.takeDropped();
  if (!records && !vias) [[likely]]
    return std::nullopt;
  Dropped<FecId> dropped;
  if (records) dropped = std::move(*records);
  if (vias) {
    for (const ViaKey& key : vias->keys) dropped.keys.push_back(key.fec);
  }
  std::erase_if(dropped.keys, [](FecId id) { return id >= kFirstAdjacency; });
  return dropped;
}

template <class A>
void BasicForwardingStatus<A>::store(const Fec& fec) {
  const auto replaced = former(fec.id());
  storing(fec, [&](const Record& record) { fecs_.set(fec.id(), record); });
  if (replaced) removeVias(fec.id(), *replaced);
}

template <class A>
bool BasicForwardingStatus<A>::adjacencyIsSound(const FecId& id) const {
  try {
    const auto record = fecs_.get(id);
    Fec fec(id);
    return record && (record->viaCount <= 1 || readVias(*record, fec) != Vias::Missing);
  } catch (const CorruptionDetectedException&) {
    return false;
  }
}

template <class A>
void BasicForwardingStatus<A>::fecDel(const FecIterator& it) {
  fecDel(it.key());
}

template <class A>
void BasicForwardingStatus<A>::fecDelAll() {
  const Kiv::Ptr<const Kiv::Entity> alive(this);
  for (const FecId id : fecKeys()) fecDel(id);
}

/// Stores the further vias of a FEC, and then calls `store` for its record. If that fails, removes
/// the vias again.
template <class A>
template <class Store>
void BasicForwardingStatus<A>::storing(const Fec& fec, Store store) {
  Record record{.viaCount = 0, .change = ++changes_};
  try {
    for (const Via& via : fec) {
      const RawVia taken = take(via);
      if (record.viaCount == 0) {
        record.first = taken;
      } else {
        try {
          moreVias_.set({.fec = fec.id(), .change = record.change, .index = record.viaCount},
                        taken);
        } catch (...) {
          intfs_.drop(taken.intf);
          throw;
        }
      }
      ++record.viaCount;
    }
    store(record);
  } catch (...) {
    removeVias(fec.id(), record);
    throw;
  }
}

template <class A>
void BasicForwardingStatus<A>::tend(TendRound& round) {
  intfs_.tend(round);
  fecs_.tend(round);
  moreVias_.tend(round);
  if (const auto dropped = takeDropped()) announce<FecAttribute>(*this, watches_, *dropped);
}

template <class A>
bool BasicForwardingStatus<A>::remove(const FecId& id) {
  const auto removed = fecs_.erase(id);
  if (!removed) return false;
  removeVias(id, *removed);
  return true;
}

/// Removes the further vias of a record that is not stored any more, and drops its references to
/// names.
template <class A>
void BasicForwardingStatus<A>::removeVias(const FecId& id, const Record& record) {
  if (record.viaCount != 0) intfs_.drop(record.first.intf);
  for (uint32_t index = 1; index < record.viaCount; ++index) {
    const auto via = moreVias_.erase({.fec = id, .change = record.change, .index = index});
    if (via) intfs_.drop(via->intf);
  }
}

template <class A>
std::vector<Fib::FecId> BasicForwardingStatus<A>::fecKeys() const {
  std::vector<FecId> ids;
  try {
    for (const auto& item : fecs_) {
      if (item.key < kFirstAdjacency) ids.push_back(item.key);
    }
  } catch (const CorruptionDetectedException& damage) {
    corruptionDetected(damage.what());
  }
  return ids;
}

namespace Fib {
using ForwardingStatus = BasicForwardingStatus<Zemit::IpAddr>;
}
namespace Fib6 {
using ForwardingStatus = BasicForwardingStatus<Zemit::Ip6Addr>;
}

// Instantiated in Tables.cpp.
extern template class TovanMap<Fib::FecId, Fib::ForwardingStatus::Record>;
extern template class TovanMap<Fib::FecId, Fib6::ForwardingStatus::Record>;
extern template class TovanMap<Fib::ForwardingStatus::ViaKey, Fib::ForwardingStatus::RawVia>;
extern template class TovanMap<Fib6::ForwardingStatus::ViaKey, Fib6::ForwardingStatus::RawVia>;
extern template class BasicForwardingStatus<Zemit::IpAddr>;
extern template class BasicForwardingStatus<Zemit::Ip6Addr>;

}  // namespace Tovan
