#include "daemon/History.h"

#include "daemon/Switch.h"

namespace Daemon {

std::string_view nameOf(CauseKind) {
  return {};
}
std::string_view nameOf(HistoryEntry::Change) {
  return {};
}
std::string causeText(const HistoryEntry&) {
  return {};
}
std::string changeText(const HistoryEntry&) {
  return {};
}
Counters Switch::counters(std::string_view) const {
  return {};
}
void Switch::historyIs(std::size_t) {}
std::vector<HistoryEntry> Switch::history(std::string_view, std::string_view) const {
  return {};
}
void Switch::historyObserverIs(std::function<void(const HistoryEntry&)>) {}
void Switch::traceLevelIs(std::string_view, uint32_t) {}
void Switch::traceAddressIs(std::string_view, std::string_view) {}
}  // namespace Daemon
