// The neighbour tables, as the ARP and neighbour discovery agent publishes them.
#pragma once

#include <vector>

#include "platform/arp/ArpEntryStatus.h"
#include "platform/kiv/runtime/Attributes.h"
#include "platform/zemit/IntfId.h"

namespace Arp {

/// The IPv4 (RFC 826) and IPv6 (RFC 4861) neighbours of one interface. Has the interface's name.
class ArpIntfStatus final : public Kiv::Entity {
 public:
  using Ptr = Kiv::Ptr<ArpIntfStatus>;
  using PtrConst = Kiv::Ptr<const ArpIntfStatus>;

  /// Derive from this to be told of changes. A new notifiee is told of all entries at once.
  class NotifieeConst : public Kiv::NotifieeOf<ArpIntfStatus> {
   public:
    virtual void onArpEntry(const Zemit::IpAddr&) {}
    virtual void onArpEntrykivImmediate() {}
    virtual void onIp6NeighborEntry(const Zemit::Ip6Addr&) {}
    virtual void onIp6NeighborEntrykivImmediate() {}
    // Called before an entry changes.
    virtual void onArpEntryExpected(const Zemit::IpAddr&) const noexcept {}
    virtual void onIp6NeighborEntryExpected(const Zemit::Ip6Addr&) const noexcept {}

   protected:
    void kivImmediate() override {
      onArpEntrykivImmediate();
      onIp6NeighborEntrykivImmediate();
    }
  };

  explicit ArpIntfStatus(Zemit::IntfId intfId)
      : intfId_(intfId), isOfManagementPort_(intfId.isManagementPort()) {}

  Zemit::IntfId intfId() const noexcept { return intfId_; }
  /// As IntfId::isManagementPort(), without reading the name.
  bool isOfManagementPort() const noexcept { return isOfManagementPort_; }
  Kiv::Name name() const override { return intfId_.name(); }

  /// The IPv4 neighbours.
  KIV_ORDERED_COLLECTION(258, arpEntry, ArpEntry, Zemit::IpAddr, ArpEntryStatus)
  void arpEntryIs(const ArpEntryStatus& entry) { arpEntry_.set(*this, entry.ipAddr, entry); }
  /// A prefetch hint: the entry of `addr` is going to change. Each notifiee may prefetch the data
  /// that its callback for that change will read. Changes nothing.
  void arpEntryExpect(const Zemit::IpAddr& addr) const {
    arpEntryPrefetch(addr);
    forEachNotifiee([&](const Kiv::Notifiee& notifiee) {
      static_cast<const NotifieeConst&>(notifiee).onArpEntryExpected(addr);
    });
  }

  /// The IPv6 neighbours.
  KIV_ORDERED_COLLECTION(259, ip6NeighborEntry, Ip6NeighborEntry, Zemit::Ip6Addr,
                         Ip6NeighborEntryStatus)
  void ip6NeighborEntryIs(const Ip6NeighborEntryStatus& entry) {
    ip6NeighborEntry_.set(*this, entry.ipAddr, entry);
  }
  /// As arpEntryExpect().
  void ip6NeighborEntryExpect(const Zemit::Ip6Addr& addr) const {
    ip6NeighborEntryPrefetch(addr);
    forEachNotifiee([&](const Kiv::Notifiee& notifiee) {
      static_cast<const NotifieeConst&>(notifiee).onIp6NeighborEntryExpected(addr);
    });
  }

 private:
  Zemit::IntfId intfId_;
  bool isOfManagementPort_;
};

/// The neighbour tables by interface name.
class NeighborDir final : public Kiv::NamedEntity {
 public:
  using Ptr = Kiv::Ptr<NeighborDir>;
  using PtrConst = Kiv::Ptr<const NeighborDir>;

  /// Derive from this to be told of tables that are added or removed.
  class NotifieeConst : public Kiv::NotifieeOf<NeighborDir> {
   public:
    virtual void onArpIntfStatus(const Kiv::Name&) {}
    virtual void onArpIntfStatuskivImmediate() {}

   protected:
    void kivImmediate() override { onArpIntfStatuskivImmediate(); }
  };

  explicit NeighborDir(Kiv::Name name) : NamedEntity(std::move(name)) {}

  /// The table of each interface.
  KIV_COLLECTION_VIEW(258, arpIntfStatus, ArpIntfStatus, Kiv::Name, ArpIntfStatus::Ptr)
  /// Adds `table`. Replaces the table of the same interface, if there is one.
  /// \throws Kiv::RangeException when it is null.
  void arpIntfStatusIs(const ArpIntfStatus::Ptr& table) {
    KIV_REQUIRE(table,
                "null _arpIntfStatus parameter to mutator for "
                "Arp::NeighborDir::arpIntfStatus not allowed");
    const Kiv::Name intfName = table->name();
    tableOfIs(table->intfId(), table.get(), [&] { arpIntfStatus_.set(*this, intfName, table); });
  }
  bool arpIntfStatusDel(const Kiv::Name& intfName) {
    const auto& table = arpIntfStatus(intfName);
    if (!table) return false;
    tableOfIs(table->intfId(), nullptr, [&] { arpIntfStatus_.del(*this, intfName); });
    return true;
  }
  KIV_FURTHER_DELETIONS(arpIntfStatus, ArpIntfStatus)
  /// Returns the interface's table. Makes an empty one when there is none.
  ArpIntfStatus::Ptr newArpIntfStatus(const Kiv::Name& intfName) {
    if (const auto& present = arpIntfStatus(intfName)) return present;
    auto added = Kiv::make<Arp::ArpIntfStatus>(Zemit::IntfId::of(intfName));
    arpIntfStatusIs(added);
    return added;
  }

  /// Calls `visit` with each table. It must not change the directory.
  template <class Visit>
  void forEachTable(Visit visit) const {
    for (const ArpIntfStatus* table : tables_) {
      if (table != nullptr) visit(*table);
    }
  }
  /// The table of an interface, or null. Faster than a look-up by name.
  ArpIntfStatus* tableOf(Zemit::IntfId intf) const noexcept {
    return intf.value() < tables_.size() ? tables_[intf.value()] : nullptr;
  }

 private:
  /// Stores an interface's table, or null, in `tables_` before `change` announces it.
  template <class Change>
  void tableOfIs(Zemit::IntfId intf, ArpIntfStatus* table, Change change) {
    if (intf.value() >= tables_.size()) tables_.resize(size_t{intf.value()} + 1);
    // The entries of a table that goes are handled by the reactors of that table.
    if (const auto* former = tables_[intf.value()]) former->completeNotifiees();
    tables_[intf.value()] = table;
    try {
      change();
    } catch (...) {
      tables_[intf.value()] = arpIntfStatus(intf.name()).get();
      throw;
    }
  }

  std::vector<ArpIntfStatus*> tables_;  // index: the interface id
};

}  // namespace Arp
