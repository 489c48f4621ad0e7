// A limit on the size of files.
#pragma once

#include <sys/resource.h>

#include <csignal>

namespace Sample {

/// Limits the size of this process's files to `bytes` during its lifetime, as a full disk does.
class SmallFiles {
 public:
  explicit SmallFiles(rlim_t bytes) : action_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &former_);
    const rlimit limit{.rlim_cur = bytes, .rlim_max = former_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  SmallFiles(const SmallFiles&) = delete;
  SmallFiles& operator=(const SmallFiles&) = delete;
  ~SmallFiles() {
    ::setrlimit(RLIMIT_FSIZE, &former_);
    std::signal(SIGXFSZ, action_);
  }

 private:
  rlimit former_{};
  void (*action_)(int);
};

}  // namespace Sample
