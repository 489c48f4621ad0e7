// Recordings of what the engine is told.
#pragma once

#include <cstdint>
#include <fstream>
#include <functional>
#include <string>

#include "daemon/Operation.h"
#include "hostrouted/Log.h"

namespace Hostrouted {

/// How large a recording may become.
struct RecordingLimits {
  /// A file over this is closed, and a new one begun; but none before it has grown to twice its
  /// snapshot.
  uint64_t fileBytes = uint64_t{64} << 20;
  uint32_t files = 4;  ///< how many are kept, at least 1

  friend bool operator==(const RecordingLimits&, const RecordingLimits&) = default;
};

/// Writes each operation as a line of a replay, with the times.
///
/// Every file begins with a snapshot of all that the engine was told, so each can be replayed by
/// itself. The file in use has the recording's name; those before are called NAME.1, NAME.2 and so
/// on, the newest first. When a file cannot be written, recording ends; the file keeps what was
/// written of whole turns of the loop, and can be replayed.
class Recorder {
 public:
  using Output = std::function<void(const Daemon::Operation&)>;
  /// Hands all that the engine was told to an output.
  using Snapshot = std::function<void(const Output&)>;

  explicit Recorder(Log& log) : log_(log) {}

  /// Begins a recording.
  /// \param replaces  whether files of the name may be there, which are lost then.
  /// \throws std::runtime_error when one is going on, a file is there or cannot be made.
  void start(const std::string& path, RecordingLimits limits, Snapshot snapshot,
             bool replaces = false);
  /// Ends it, with what was written in the file; does nothing when there is none.
  void stop();
  /// Why the last recording ended by itself, or misses its end; empty when it does not.
  const std::string& problem() const { return problem_; }

  bool isOn() const { return file_.is_open(); }
  /// The file in use, or the last one; empty when there was none.
  const std::string& path() const { return path_; }
  /// How many bytes the file in use has.
  uint64_t bytes() const { return bytes_; }

  /// Writes an operation, when a recording is going on.
  void write(const Daemon::Operation& operation);
  /// A turn of the loop is through: what was written goes to the file, and a new one is begun where
  /// this one has become too long.
  void endTurn();

 private:
  void open();
  void writeTime();
  void writeText(const std::string& text);
  /// What was written goes to the file. \return whether the recording goes on.
  bool flush();
  void rotate();
  void fail();

  Log& log_;
  std::ofstream file_;
  std::string path_;
  RecordingLimits limits_;
  Snapshot snapshot_;
  uint64_t bytes_ = 0;
  uint64_t snapshotBytes_ = 0;
  uint64_t keptBytes_ = 0;  // of the file in use, which are in it for sure
  int error_ = 0;           // the errno of the first writing that failed
  std::string problem_;
  bool hasTime_ = false;  // whether this turn's time is in the file
};

}  // namespace Hostrouted
