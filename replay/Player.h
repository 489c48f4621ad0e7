// Applies the recorded inputs of a switch to its state machines.
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
#include "replay/EventError.h"
#include "replay/Output.h"

namespace Replay {

class Event;

/// A fixed hash seed: two runs on the same input print the same traces in the same order.
inline constexpr Kiv::HashSeed kHashSeed{.add = 0x9E3779B97F4A7C15, .multiply = 0xD6E8FEB86659FD93};

/// Sends the trace records of both families to an output during its lifetime. The output must
/// outlive it. Create it before the switch, because the first machines already trace in their
/// constructors.
class Tracing {
 public:
  /// \param levels  the enabled trace levels, one bit for each.
  Tracing(Output& output, uint32_t levels);
  Tracing(const Tracing&) = delete;
  Tracing& operator=(const Tracing&) = delete;
  ~Tracing();

 private:
  void trace(const Kiv::TraceRecord& record);

  Output& output_;
  std::map<std::string, size_t, std::less<>>
      objectNumbers_;  // key: the address as the traces print it
};

/// Applies events to a switch and prints the results.
class Player {
 public:
  struct Options {
    bool echoes = false;     ///< whether to print each event's line number
    bool dumpsAtEnd = true;  ///< whether to print the state of all machines after the last event
    size_t lastLine = 0;     ///< the line after which to stop; 0 for the end of the input
  };
  /// The result of a run.
  enum class Outcome {
    Done,
    Failed,   ///< a machine failed on an event; all events were read
    Refused,  ///< a line was not an event or could not be read; the rest was not read
  };
  /// The maximum length of a line.
  static constexpr size_t kMaxLineBytes = size_t{16} << 20;

  /// `sw` and `output` must outlive the player.
  Player(Daemon::Switch& sw, Output& output, const Options& options);
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;
  ~Player();

  /// Applies one line. \throws EventError before anything was changed; Pindo::Exception from a
  /// machine that could not complete the event.
  void apply(std::string_view line);
  /// The failures of machines' callbacks since the last call, as a text for people: the first
  /// failure and the number of further ones. Empty when there was none. After a failure, a machine
  /// has not completed an event.
  std::string takeFailures();
  /// Prints the state of all machines.
  void dumpAll();

  /// Applies the lines of `in`, then prints the final dump. `out` is the stream of the output. It
  /// is flushed before an error message and before waiting for more input. After `out` fails,
  /// nothing more is read or printed.
  ///
  /// The switch is set to loading until the input that is available at the start has been read.
  ///
  /// \param name      the name of the input in error messages.
  /// \param progress  called every few thousand lines with the number of lines read, and with 0 at
  ///                  the end of the input, before the final dump; may be empty.
  Outcome run(std::istream& in, const std::string& name, std::ostream& out, std::ostream& errors,
              const std::function<void(size_t)>& progress = {});

 private:
  void dump(const Event& event);
  void time(const Event& event);

  Daemon::Switch& sw_;
  Output& output_;
  const Options options_;
  size_t failures_ = 0;  // since the last takeFailures()
  std::string firstFailure_;
};

/// Reads a line. Stops reading soon after Player::kMaxLineBytes, so a longer line is returned in
/// part. Returns false at the end of the input and when the input cannot be read.
bool readLine(std::istream& in, std::string& line);

/// Parses a list of trace levels, such as "0,2,7", or "all". Returns one bit for each level.
std::optional<uint32_t> parseTraceLevels(std::string_view text);

}  // namespace Replay
