// Changes of host routes as lines for people.
#include "cli/ChangeText.h"

#include "cli/Times.h"
#include "replay/Printable.h"

namespace Cli {

std::string changeLine(const nlohmann::ordered_json& change) {
  const auto text = [&](const char* member) {
    return Replay::printable(change.at(member).get<std::string>());
  };
  return localTime(text("time"), true) + "  " + text("vrf") + "  " + text("prefix") + "  " +
         text("became") + "  (" + text("because") + ")";
}

}  // namespace Cli
