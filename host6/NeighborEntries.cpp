// RouteSm: IPv6 neighbours that are learned and lost.
#include "hostcore/NeighborEntries.h"

#include "host6/Family.h"
#include "host6/NeighborEntries.h"

namespace Routing6::Host {

namespace {
using Steps = HostCore::NeighborEntries<Ipv6>;
}

bool skipInterface(const Arp::ArpIntfStatus::PtrConst& arpIntfStatus) {
  return HostCore::skipInterface(*Kiv::validPtr(arpIntfStatus));
}

void RouteSm::KivArpIntfStatus::onIp6NeighborEntryExpected(
    const Zemit::Ip6Addr& addr) const noexcept {
  Steps::expectArpEntry(*this, addr);
}

void RouteSm::KivArpIntfStatus::handleArpEntry(const Zemit::Ip6Addr& addr) {
  const HostCore::About<Ipv6> about(Kiv::validPtr(routeSm()), addr);
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, addr));
  Steps(Kiv::validPtr(routeSm())).handleArpEntry(*this, addr, addr);
}

void RouteSm::KivArpIntfStatus::handleArpEntry() {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  Steps(Kiv::validPtr(routeSm())).handleArpEntry(*this);
}

void RouteSm::KivArpIntfStatus::handleDel() {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  Steps(Kiv::validPtr(routeSm())).handleDel(*this);
}

void RouteSm::handleArpEntries() {
  KIV_TRACE(hostRoute6Trace, 8, *this, "void Routing6::Host::RouteSm::handleArpEntries()");
  Steps(*this).handleArpEntries();
}

void RouteSm::handleAddedArpEntry(const Zemit::Ip6Addr& ipAddr, const ArpTable& arpIntfStatus) {
  const HostCore::About<Ipv6> about(*this, ipAddr);
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, ipAddr));
  Steps(*this).handleAddedArpEntry(ipAddr, ipAddr, arpIntfStatus);
}

void RouteSm::handleDeletedArpEntry(const Zemit::Ip6Addr& ipAddr, const ArpTable& arpIntfStatus) {
  const HostCore::About<Ipv6> about(*this, ipAddr);
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__, ipAddr));
  Steps(*this).handleDeletedArpEntry(ipAddr, ipAddr, arpIntfStatus);
}

void RouteSm::handleDeletedArpIntfStatus(const ArpTable& arpIntfStatus) {
  KIV_TRACE(hostRoute6Trace, 8, *this, Entry(this, __func__));
  Steps(*this).handleDeletedArpIntfStatus(arpIntfStatus);
}

}  // namespace Routing6::Host
