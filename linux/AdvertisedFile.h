// The advertised routes, in a file.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "linux/KernelRoutes.h"
#include "linux/RouteMap.h"

namespace Linux {

/// An AdvertisedLog in a file to which lines are appended. Whenever the process dies, the file has
/// all notes of the last commit(), and perhaps some later ones.
///
/// The first line names the format and its version. Each other line adds a key with its metric or
/// removes a key, and ends with its checksum:
///
///     hostroute-advertised 1
///     + 10 10.0.0.5/32 20 5f3c0a11
///     - 10 10.0.0.5/32 9b02d7e4
///
/// A file with many more lines than keys is replaced by a new file. Nothing waits for the disk: a
/// machine that loses power loses its routes, too. If the file cannot be written, the daemon
/// continues, and a later commit() writes the whole file.
class AdvertisedFile final : public AdvertisedLog {
 public:
  using Report = std::function<void(const std::string& problem)>;
  struct Route {
    RouteKey key;
    uint32_t metric = 0;

    friend bool operator==(const Route&, const Route&) = default;
  };

  /// Reads the file at `path`, if it exists.
  ///
  /// \param report      receives the problems of the file: lines that were skipped, errors of the
  ///                    system, and the end of such an error.
  /// \param retryAfter  the least time between two attempts to write, after an error.
  AdvertisedFile(std::string path, Report report,
                 std::chrono::milliseconds retryAfter = std::chrono::seconds(1));
  AdvertisedFile(const AdvertisedFile&) = delete;
  AdvertisedFile& operator=(const AdvertisedFile&) = delete;
  ~AdvertisedFile() override;

  void add(const RouteKey& key, uint32_t metric) override;
  void remove(const RouteKey& key) override;
  void commit() override;

  /// The keys that were added and not removed, in no order.
  std::vector<Route> keys() const;
  /// Whether notes are missing in the file, so that commit() should be called again later.
  bool isBehind() const { return isBroken_ && !live_.empty(); }
  /// Whether the file holds all committed notes.
  bool isSound() const { return !isBroken_; }
  /// Whether the last attempt to write it has failed.
  bool hasFailed() const { return isReported_; }

 private:
  void read();
  void readLines(std::string_view text);
  bool applyLine(std::string_view line);
  bool append();
  bool rewrite();
  void fail(const char* call);

  std::string path_;
  Report report_;
  std::chrono::milliseconds retryAfter_;
  RouteMap<uint32_t> live_;  // metrics
  std::string pending_;      // lines that are not in the file yet
  size_t pendingLines_ = 0;
  size_t lines_ = 0;  // in the file
  size_t size_ = 0;   // of the file, in bytes
  int fd_ = -1;
  bool isBroken_ = false;    // notes are missing in the file
  bool isReported_ = false;  // and the error was reported
  std::chrono::steady_clock::time_point retryAt_;
};

}  // namespace Linux
