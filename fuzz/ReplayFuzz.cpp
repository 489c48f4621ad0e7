// Plays any lines as a replay, with all traces on. Lines that are no events are refused. The
// resulting state can be printed.
#include <cstdint>
#include <sstream>
#include <string>

#include "daemon/Switch.h"
#include "platform/kiv/containers/Exception.h"
#include "platform/kiv/containers/Hash.h"
#include "replay/Output.h"
#include "replay/Player.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  Kiv::hashSeedIs(Replay::kHashSeed);  // makes runs repeatable
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::istringstream in(std::string(data, data + size));
  std::ostringstream out;
  const auto output = Replay::jsonOutput(out);
  const Replay::Tracing tracing(*output, *Replay::parseTraceLevels("all"));
  Daemon::Switch sw({.settles = true});
  Replay::Player player(sw, *output, {});
  for (std::string line; std::getline(in, line);) {
    try {
      player.apply(line);
    } catch (const Replay::EventError&) {
    } catch (const Pindo::Exception&) {
    }
  }
  player.dumpAll();
  return 0;
}
