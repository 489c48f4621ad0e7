// The text of a change of a host route.
#include "cli/ChangeText.h"

#include "cli/ControlClient.h"
#include "cli/Times.h"

namespace Cli {

std::string changeLine(const nlohmann::ordered_json& change) {
  const auto text = [&](const char* member) { return shownText(change, member); };
  return localTime(text("time"), true) + "  " + text("vrf") + "  " + text("prefix") + "  " +
         text("became") + "  (" + text("because") + ")";
}

}  // namespace Cli
