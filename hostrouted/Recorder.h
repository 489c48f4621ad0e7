// Recordings of the engine's inputs.
#pragma once

#include <cstdint>
#include <fstream>
#include <functional>
#include <string>

#include "daemon/Operation.h"
#include "hostrouted/Log.h"

namespace Hostrouted {

/// The limits of the size of a recording.
struct RecordingLimits {
  /// A file above this size is followed by a new one, but not before it is twice as long as its
  /// snapshot.
  uint64_t fileBytes = uint64_t{64} << 20;
  uint32_t files = 4;  ///< at least 1

  friend bool operator==(const RecordingLimits&, const RecordingLimits&) = default;
};

/// Writes each operation as a line of a replay, and the times of the turns.
///
/// Each file begins with a snapshot of the engine's inputs, so that it can be replayed alone. The
/// current file has the name of the recording. Former files are called NAME.1, NAME.2 and so on,
/// the newest first. When a file cannot be written, the recording ends. The file then has all
/// complete turns of the loop and can be replayed.
class Recorder {
 public:
  using Output = std::function<void(const Daemon::Operation&)>;
  /// Hands all inputs of the engine to an output.
  using Snapshot = std::function<void(const Output&)>;

  explicit Recorder(Log& log) : log_(log) {}

  /// Begins a recording.
  /// \param replaces  whether existing files of the name are overwritten.
  /// \throws std::runtime_error when a recording is on, or a file exists or cannot be created.
  void start(const std::string& path, RecordingLimits limits, Snapshot snapshot,
             bool replaces = false);
  /// Writes the rest of the recording and ends it. Does nothing without a recording.
  void stop();
  /// The error that ended the last recording; empty if there was none.
  const std::string& problem() const { return problem_; }

  bool isOn() const { return file_.is_open(); }
  /// The current file or the last one; empty if there was none.
  const std::string& path() const { return path_; }
  /// The size of the current file in bytes.
  uint64_t bytes() const { return bytes_; }

  /// Writes an operation, if a recording is on.
  void write(const Daemon::Operation& operation);
  /// A turn of the loop is complete: writes the buffer to the file, and begins a new file if this
  /// one is too long.
  void endTurn();

 private:
  void open();
  void writeTime();
  void writeText(const std::string& text);
  /// Writes the buffer to the file. \return false if this failed and ended the recording.
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
  uint64_t keptBytes_ = 0;  // of the current file, up to the last complete turn
  int error_ = 0;           // the errno of the first failed write
  std::string problem_;
  bool hasTime_ = false;  // whether this turn's time is in the file
};

}  // namespace Hostrouted
