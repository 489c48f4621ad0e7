// RouteSm: ARP neighbours that are learned and lost.
#include "hostcore/NeighborEntries.h"

#include "host/Family.h"
#include "host/NeighborEntries.h"

namespace Routing::Host {

namespace {
using Steps = HostCore::NeighborEntries<Ipv4>;
}

bool skipInterface(const Arp::ArpIntfStatus::PtrConst& arpIntfStatus) {
  return HostCore::skipInterface(*Kiv::validPtr(arpIntfStatus));
}

void RouteSm::KivArpIntfStatus::onArpEntryExpected(const Zemit::IpAddr& addr) const noexcept {
  Steps::expectArpEntry(*this, addr);
}

void RouteSm::KivArpIntfStatus::handleArpEntry(Zemit::IpAddr addr) {
  const HostCore::About<Ipv4> about(Kiv::validPtr(routeSm()), addr);
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::KivArpIntfStatus::handleArpEntry(Zemit::IpAddr)");
  Steps(Kiv::validPtr(routeSm())).handleArpEntry(*this, addr, Arp::ArpEntryStatus{.ipAddr = addr});
}

void RouteSm::KivArpIntfStatus::handleArpEntry() {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::KivArpIntfStatus::handleArpEntry()");
  Steps(Kiv::validPtr(routeSm())).handleArpEntry(*this);
}

void RouteSm::KivArpIntfStatus::handleDel() {
  KIV_TRACE(hostRouteTrace, 8, *this, "void Routing::Host::RouteSm::KivArpIntfStatus::handleDel()");
  Steps(Kiv::validPtr(routeSm())).handleDel(*this);
}

void RouteSm::handleArpEntries() {
  KIV_TRACE(hostRouteTrace, 8, *this, "void Routing::Host::RouteSm::handleArpEntries()");
  Steps(*this).handleArpEntries();
}

void RouteSm::handleAddedArpEntry(const Arp::ArpEntryStatus& arpEntry,
                                  const ArpTable& arpIntfStatus) {
  const HostCore::About<Ipv4> about(*this, arpEntry.ipAddr);
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::handleAddedArpEntry(const Arp::ArpEntryStatus&, "
            "const Arp::ArpIntfStatus::PtrConst&)");
  Steps(*this).handleAddedArpEntry(arpEntry.ipAddr, arpEntry, arpIntfStatus);
}

void RouteSm::handleDeletedArpEntry(const Arp::ArpEntryStatus& arpEntry,
                                    const ArpTable& arpIntfStatus) {
  const HostCore::About<Ipv4> about(*this, arpEntry.ipAddr);
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::handleDeletedArpEntry(const Arp::ArpEntryStatus&, "
            "const Arp::ArpIntfStatus::PtrConst&)");
  Steps(*this).handleDeletedArpEntry(arpEntry.ipAddr, arpEntry, arpIntfStatus);
}

void RouteSm::handleDeletedArpIntfStatus(const ArpTable& arpIntfStatus) {
  KIV_TRACE(hostRouteTrace, 8, *this,
            "void Routing::Host::RouteSm::handleDeletedArpIntfStatus("
            "const Arp::ArpIntfStatus::PtrConst&)");
  Steps(*this).handleDeletedArpIntfStatus(arpIntfStatus);
}

}  // namespace Routing::Host
