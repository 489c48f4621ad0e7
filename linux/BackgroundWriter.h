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

/// Carries batches out through a channel while its user goes on.
///
/// The kernel does the work of a batch within the call that sends it. With many routes that is half
/// of all the time, which a thread spends here while the user decides on the next ones. A batch of
/// few requests is carried out by the user's thread in submit(), as long as nothing else is under
/// way: to wake another thread takes longer. So the channel is used by two threads, but never at
/// the same time. The thread begins with the first batch that is for it; where the system allows
/// none, submit() does all.
///
/// But for the thread's own part, all is for one thread. A process that is forked from this one
/// must not use or destroy it.
class BackgroundWriter final : public RouteWriter {
 public:
  /// Batches that may be under way.
  static constexpr size_t kBatches = 16;
  /// All batches are carried out by submit().
  static constexpr size_t kNoThread = SIZE_MAX;

  /// \param mostDirect  requests of a batch that submit() may carry out itself.
  /// \throws std::system_error when there are no more file descriptors.
  BackgroundWriter(RouteChannel& channel, size_t mostDirect);
  BackgroundWriter(const BackgroundWriter&) = delete;
  BackgroundWriter& operator=(const BackgroundWriter&) = delete;
  /// Carries out what was submitted.
  ~BackgroundWriter() override;

  RouteBatch* vacant() override;
  void submit() override;
  RouteBatch* finished() override;
  RouteBatch* await() override;
  void release() override;

  /// Is readable when the thread has carried out a batch since the last acknowledge().
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
