#include "replay/ExplanationJson.h"

namespace Replay {
nlohmann::ordered_json toJson(const Daemon::Explanation& explanation) {
  return {{"vrf", explanation.vrf}, {"address", explanation.address}};
}
}  // namespace Replay
