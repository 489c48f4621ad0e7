// Writes host routes in a thread of its own.
#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>

#include "linux/RouteWriter.h"

namespace Linux {

/// Carries out batches in a second thread.
///
/// The kernel does the work of a batch within the call that sends it. With many routes this is half
/// of the whole time. The second thread makes these calls while the user prepares the next batches.
/// submit() carries out a small batch itself when no other batch is under way, because waking a
/// thread takes longer. So both threads use the channel, but never at the same time. The first
/// large batch starts the thread. If the system refuses a thread, submit() carries out all batches.
///
/// All methods are for the user's thread only. A forked child must not use or destroy the writer.
class BackgroundWriter final : public RouteWriter {
 public:
  /// The most batches that are under way at once.
  static constexpr size_t kBatches = 16;
  /// A value of mostDirect: submit() carries out all batches.
  static constexpr size_t kNoThread = SIZE_MAX;

  /// \param mostDirect  submit() carries out batches of at most this many requests itself.
  /// \throws std::system_error when no file descriptor is left.
  BackgroundWriter(RouteChannel& channel, size_t mostDirect);
  BackgroundWriter(const BackgroundWriter&) = delete;
  BackgroundWriter& operator=(const BackgroundWriter&) = delete;
  /// Carries out all submitted batches.
  ~BackgroundWriter() override;

  RouteBatch* vacant() override;
  void submit() override;
  RouteBatch* finished() override;
  RouteBatch* await() override;
  void release() override;

  /// Readable when the thread has carried out a batch since the last acknowledge().
  int fd() const { return fd_; }
  void acknowledge();

 private:
  void start();
  void run();
  RouteBatch& batch(uint64_t number) { return batches_[number % kBatches]; }

  RouteChannel& channel_;
  size_t mostDirect_;
  int fd_;
  std::array<RouteBatch, kBatches> batches_;
  uint64_t released_ = 0;  // batches so far
  std::mutex mutex_;
  // Guarded by the mutex.
  std::condition_variable submitted_, finished_;
  uint64_t submissions_ = 0;  // batches so far
  uint64_t completions_ = 0;
  bool ends_ = false;
  std::thread thread_;
};

}  // namespace Linux
