#include "linux/BackgroundWriter.h"

#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <new>
#include <system_error>

namespace Linux {

BackgroundWriter::BackgroundWriter(RouteChannel& channel, size_t mostDirect)
    : channel_(channel), mostDirect_(mostDirect), fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
}

BackgroundWriter::~BackgroundWriter() {
  if (thread_.joinable()) {
    {
      const std::lock_guard lock(mutex_);
      ends_ = true;
    }
    submitted_.notify_one();
    thread_.join();
  }
  ::close(fd_);
}

RouteBatch* BackgroundWriter::vacant() {
  const std::lock_guard lock(mutex_);
  return submissions_ - released_ < kBatches ? &batch(submissions_) : nullptr;
}

void BackgroundWriter::submit() {
  std::unique_lock lock(mutex_);
  batch(submissions_).reserveResults();
  const bool isIdle = submissions_ == completions_;
  if (isIdle && batch(submissions_).size() > mostDirect_ && !thread_.joinable()) start();
  if (isIdle && batch(submissions_).size() <= mostDirect_) {
    batch(submissions_).performOn(channel_);
    completions_ = ++submissions_;
    return;
  }
  ++submissions_;
  lock.unlock();
  submitted_.notify_one();
}

RouteBatch* BackgroundWriter::finished() {
  const std::lock_guard lock(mutex_);
  return released_ < completions_ ? &batch(released_) : nullptr;
}

RouteBatch* BackgroundWriter::await() {
  std::unique_lock lock(mutex_);
  if (released_ == submissions_) return nullptr;
  finished_.wait(lock, [this] { return released_ < completions_; });
  return &batch(released_);
}

void BackgroundWriter::release() {
  const std::lock_guard lock(mutex_);
  if (++released_ < submissions_) return;
  // An idle writer starts again with the first batch, whose memory is still in a cache.
  released_ = submissions_ = completions_ = 0;
}

void BackgroundWriter::acknowledge() {
  eventfd_t count = 0;
  ::eventfd_read(fd_, &count);
}

/// Starts the thread. It blocks all signals, because the event loop handles them.
void BackgroundWriter::start() {
  sigset_t all;
  sigset_t before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error&) {
    mostDirect_ = kNoThread;
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void BackgroundWriter::run() {
  std::unique_lock lock(mutex_);
  while (true) {
    submitted_.wait(lock, [this] { return completions_ != submissions_ || ends_; });
    if (completions_ == submissions_) return;
    auto& batch = this->batch(completions_);
    lock.unlock();
    try {
      batch.performOn(channel_);
    } catch (const std::bad_alloc&) {
      batch.resultsAre(ENOMEM);  // some requests may have been carried out; all are retried
    }
    lock.lock();
    ++completions_;
    finished_.notify_one();
    ::eventfd_write(fd_, 1);
  }
}

}  // namespace Linux
