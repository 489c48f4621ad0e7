#include "cli/Replaying.h"

#include <iostream>
#include <limits>
#include <ostream>
#include <utility>

#include "cli/Command.h"
#include "cli/Terminal.h"
#include "platform/kiv/containers/Hash.h"
#include "replay/Output.h"
#include "replay/Player.h"

namespace Cli {

void addStateOptions(CLI::App& command, ReplayedState& state, bool isLive,
                     const std::string& atHelp) {
  command.add_option("--vrf", state.vrf, "The VRF; \"default\" by default")->type_name("VRF");
  auto* replay = command
                     .add_option("--replay", state.recording,
                                 "Use these recorded inputs; - for standard input")
                     ->type_name("FILE");
  if (!isLive) replay->required();
  command.add_option("--at", state.line, atHelp)
      ->type_name("LINE")
      ->check(CLI::Range(1, std::numeric_limits<int>::max()))
      ->needs(replay);
  command
      .add_flag("--settle", state.settles,
                "Replay as a daemon does: after each route and FEC, announce the neighbours "
                "without a route again")
      ->needs(replay);
}
namespace {

/// Prints nothing, and reports the position in the replay.
class Follower final : public Replay::Output {
 public:
  explicit Follower(std::function<void(const Whereabouts&)> begins) : begins_(std::move(begins)) {}

  void dump(const Daemon::Switch&, const Replay::DumpSelection&) override {}
  void trace(const Kiv::TraceRecord&) override {}
  void event(size_t number, std::string_view) override {
    at_.line = number;
    if (begins_) begins_(at_);
  }
  void time(std::chrono::microseconds time) override { at_.time = time; }

 private:
  const std::function<void(const Whereabouts&)> begins_;
  Whereabouts at_;
};

}  // namespace

int replayUpTo(Daemon::Switch& sw, const std::string& recording, size_t last,
               std::function<void(const Whereabouts&)> begins) {
  Input input(recording);
  Follower output(std::move(begins));
  Replay::Player player(sw, output, {.echoes = true, .dumpsAtEnd = false, .lastLine = last});
  const auto outcome = player.run(input.stream(), input.name(), std::cout, std::cerr, showProgress);
  if (outcome == Replay::Player::Outcome::Refused) return kMisused;
  return outcome == Replay::Player::Outcome::Done ? 0 : kFailed;
}

}  // namespace Cli
