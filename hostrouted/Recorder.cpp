// Recordings of the engine's inputs.
#include "hostrouted/Recorder.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "replay/Recording.h"

namespace Hostrouted {
namespace {

std::string numbered(const std::string& path, uint32_t number) {
  return number == 0 ? path : path + "." + std::to_string(number);
}

}  // namespace

void Recorder::start(const std::string& path, RecordingLimits limits, Snapshot snapshot,
                     bool replaces) {
  if (isOn()) throw std::runtime_error("a recording goes on already: " + path_);
  for (uint32_t number = 0; !replaces && number < limits.files; ++number) {
    std::error_code unknown;
    const auto taken = numbered(path, number);
    if (std::filesystem::exists(std::filesystem::symlink_status(taken, unknown))) {
      throw std::runtime_error(taken + " is there already");
    }
  }
  problem_.clear();
  path_ = path;
  limits_ = limits;
  snapshot_ = std::move(snapshot);
  open();
  if (!isOn()) throw std::runtime_error(path + ": " + std::strerror(errno));
  endTurn();
  if (!isOn()) throw std::runtime_error(std::exchange(problem_, {}));
}

void Recorder::stop() {
  if (!isOn() || !flush()) return;
  file_.close();
  snapshot_ = {};
}

void Recorder::open() {
  bytes_ = 0;
  keptBytes_ = 0;
  hasTime_ = false;
  file_.clear();
  file_.open(path_, std::ios::trunc | std::ios::binary);
  if (!isOn()) return;
  writeTime();
  snapshot_([this](const Daemon::Operation& op) { writeText(Replay::linesOf(op)); });
  snapshotBytes_ = bytes_;
}

void Recorder::write(const Daemon::Operation& operation) {
  if (!isOn()) return;
  if (!std::exchange(hasTime_, true)) writeTime();
  writeText(Replay::linesOf(operation));
}

void Recorder::writeTime() {
  using std::chrono::microseconds;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  writeText(Replay::timeLine(std::chrono::duration_cast<microseconds>(now)));
}

void Recorder::writeText(const std::string& text) {
  file_ << text;
  if (!file_ && error_ == 0) error_ = errno;
  bytes_ += text.size();
}

void Recorder::endTurn() {
  if (!isOn()) return;
  hasTime_ = false;
  if (flush() && bytes_ > std::max(limits_.fileBytes, 2 * snapshotBytes_)) rotate();
}

bool Recorder::flush() {
  if (!file_.flush()) {
    fail();
    return false;
  }
  keptBytes_ = bytes_;
  return true;
}

void Recorder::rotate() {
  file_.close();
  for (uint32_t number = limits_.files - 1; number > 0; --number) {
    std::rename(numbered(path_, number - 1).c_str(), numbered(path_, number).c_str());
  }
  open();
  if (isOn()) {
    flush();
  } else {
    fail();
  }
}

void Recorder::fail() {
  problem_ = path_ + ": the recording ends here: it cannot be written: " +
             std::strerror(error_ != 0 ? error_ : errno);
  error_ = 0;
  const bool isOurs = isOn();
  file_.close();
  snapshot_ = {};
  // The last line is incomplete.
  std::error_code unknown;
  if (isOurs && std::filesystem::is_regular_file(path_, unknown)) {
    if (keptBytes_ != 0) {
      std::filesystem::resize_file(path_, keptBytes_, unknown);
    } else {
      std::filesystem::remove(path_, unknown);
    }
  }
  log_.write(LOG_ERR, "record", problem_);
}

}  // namespace Hostrouted
