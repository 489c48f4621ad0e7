// Changes of host routes as JSON.
#include "replay/HistoryJson.h"

#include <chrono>

#include <nlohmann/json.hpp>

#include "replay/Time.h"

namespace Replay {

nlohmann::ordered_json toJson(const Daemon::HistoryEntry& entry) {
  using namespace std::chrono;
  nlohmann::ordered_json object{
      {"time", timeText(duration_cast<microseconds>(nanoseconds(entry.time)))},
      {"vrf", entry.vrf},
      {"family", entry.family},
      {"prefix", entry.prefix},
      {"change", nameOf(entry.change)}};
  if (!entry.type.empty()) object["type"] = entry.type;
  if (entry.fec != 0) object["fec"] = entry.fec;
  if (!entry.vias.empty()) object["vias"] = entry.vias;
  nlohmann::ordered_json cause{{"kind", Daemon::nameOf(entry.cause)}};
  if (!entry.causeIntf.empty()) cause["intf"] = entry.causeIntf;
  if (!entry.causePrefix.empty()) cause["prefix"] = entry.causePrefix;
  if (entry.causeFec != 0) cause["fec"] = entry.causeFec;
  object["cause"] = std::move(cause);
  object["became"] = changeText(entry);
  object["because"] = causeText(entry);
  return object;
}

}  // namespace Replay
