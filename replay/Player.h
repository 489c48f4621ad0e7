// The recorded inputs of a switch, fed to its state machines again.
#pragma once

#include <cstdint>
#include <functional>
#include <istream>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

#include "daemon/Switch.h"
#include "platform/kiv/containers/Hash.h"
#include "replay/Event.h"
#include "replay/Output.h"

namespace Replay {

/// With this, two runs on the same input print the same traces in the same order.
inline constexpr Kiv::HashSeed kHashSeed{.add = 0x9E3779B97F4A7C15, .multiply = 0xD6E8FEB86659FD93};

/// While it lives, the trace records of both families go to an output, which outlives it. To have
/// all of them it is there before the switch, whose first machines trace while they are made.
class Tracing {
 public:
  /// \param levels  those that are on, a bit for each.
  Tracing(Output& output, uint32_t levels);
  Tracing(const Tracing&) = delete;
  Tracing& operator=(const Tracing&) = delete;
  ~Tracing();

 private:
  void trace(const Kiv::TraceRecord& record);

  Output& output_;
  std::map<std::string, size_t, std::less<>> objectNumbers_;  // by the address as it is traced
};

/// Feeds events to a switch and prints what comes of it.
class Player {
 public:
  struct Options {
    bool echoes = false;     ///< whether to print each event's line number
    bool dumpsAtEnd = true;  ///< whether to print the state of everything after the last event
    size_t lastLine = 0;     ///< the line after which to stop; 0 for the last one there is
  };
  /// How a run ended.
  enum class Outcome {
    Done,
    Failed,   ///< an event made a machine fail; all were read
    Refused,  ///< a line was no event, or could not be read; the rest was not read
  };
  /// How long a line may be.
  static constexpr size_t kMaxLineBytes = size_t{16} << 20;

  /// `sw` and `output` outlive the replay.
  Player(Daemon::Switch& sw, Output& output, const Options& options);
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;
  ~Player();

  /// Does what one line says. \throws EventError, having done nothing; Pindo::Exception from a
  /// machine, which has then not done all that the event asked of it.
  void apply(std::string_view line);
  /// What callbacks of machines have failed with since the last call, for people: the first, and
  /// how many more. Empty when none has. Such a machine has not done all that an event asked of it.
  std::string takeFailures();
  /// Prints the state of all machines.
  void dumpAll();

  /// Does what the lines of `in` say, and the final dump. `out` is what the output prints to: it is
  /// flushed before an error and before waiting for more input. Once it fails, nothing more is read
  /// or printed.
  ///
  /// The switch is loading until all input that there is has been read.
  ///
  /// \param name      what error messages call the input.
  /// \param progress  called every few thousand lines with the number of lines read, and then with
  ///                  0 at the end of the input, before the final dump; may be empty.
  Outcome run(std::istream& in, const std::string& name, std::ostream& out, std::ostream& errors,
              const std::function<void(size_t)>& progress = {});

 private:
  void dump(const Event& event);
  void time(const Event& event);

  Daemon::Switch& sw_;
  Output& output_;
  const Options options_;
  size_t failures_ = 0;  // that takeFailures() is to tell of
  std::string firstFailure_;
};

/// Reads a line, of a longer one so much that it is over Player::kMaxLineBytes. Returns false at
/// the end, or when the rest cannot be read.
bool readLine(std::istream& in, std::string& line);

/// The levels that a list such as "0,2,7" or "all" names, a bit for each.
std::optional<uint32_t> parseTraceLevels(std::string_view text);

}  // namespace Replay
