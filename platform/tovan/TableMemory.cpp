// The memory a table lives in: private or named, growing in place.
#include "platform/tovan/TableMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "platform/tovan/Exceptions.h"

namespace Tovan {
namespace {

constexpr std::string_view kFilePrefix = "hostroute-";
constexpr const char* kSharedMemoryFolder = "/dev/shm";
constexpr size_t kPage = 4096;
constexpr size_t kHugePage = size_t{2} << 20;

std::string fileName(std::string_view table) {
  return std::string("/").append(kFilePrefix).append(table);
}

std::string reason(int error) {
  return std::string(": ") + std::strerror(error);
}

constexpr size_t roundUp(size_t bytes, size_t unit) {
  return (bytes + unit - 1) / unit * unit;
}

/// A lock of `type` on the whole file. It belongs to the open file: the kernel drops it with the
/// last process that holds the file, however that process ends.
struct flock wholeFile(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

/// The addresses of a shared table, as the signal handler finds them.
struct Range {
  std::atomic<uintptr_t> begin;
  std::atomic<uintptr_t> end;
};
std::array<Range, 1024> mappedTables;
struct sigaction formerAction;

/// Puts a page of zeroes where a table's file has been cut short under us: they are found to be
/// damage, like anything else that nobody wrote. Other addresses are left to the former handler.
void onBusError(int signal, siginfo_t* info, void*) {
  const auto at = reinterpret_cast<uintptr_t>(info->si_addr);
  for (const Range& table : mappedTables) {
    if (at < table.begin || at >= table.end) continue;
    void* page = reinterpret_cast<void*>(at / kPage * kPage);
    const int kind = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED;
    if (::mmap(page, kPage, PROT_READ | PROT_WRITE, kind, -1, 0) != MAP_FAILED) return;
  }
  ::sigaction(signal, &formerAction, nullptr);
}

/// Guards a shared table against a file that is cut short; tables beyond the first thousand are
/// not.
void guard(uintptr_t begin, size_t bytes) {
  static const bool installed = [] {
    struct sigaction action {};
    action.sa_sigaction = onBusError;
    action.sa_flags = SA_SIGINFO;
    return ::sigaction(SIGBUS, &action, &formerAction) == 0;
  }();
  if (!installed) return;
  for (Range& table : mappedTables) {
    uintptr_t none = 0;
    if (!table.begin.compare_exchange_strong(none, begin)) continue;
    table.end = begin + bytes;
    return;
  }
}

void unguard(uintptr_t begin) {
  for (Range& table : mappedTables) {
    if (table.begin != begin) continue;
    table.end = 0;
    table.begin = 0;
  }
}

}  // namespace

std::string titleOf(std::string_view table) {
  return std::string("Tovan table \"").append(table).append("\"");
}

TableMemory::TableMemory(const TableConfig& config, size_t maxBytes)
    : name_(config.name), reserved_(roundUp(maxBytes, kPage)) {
  const bool embedded = config.access == Access::Embedded;
  if (!embedded) openNamed(config);
  // The whole of a shared table is mapped at once: pages behind the end of the file become usable
  // when it grows. Private memory is made accessible piece by piece, to be accounted for as used.
  const int protection = embedded                        ? PROT_NONE
                         : config.access == Access::Read ? PROT_READ
                                                         : PROT_READ | PROT_WRITE;
  const int kind = embedded ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_SHARED;
  void* at = ::mmap(nullptr, reserved_, protection, kind | MAP_NORESERVE, fd_, 0);
  if (at == MAP_FAILED) {
    const int error = errno;
    if (fd_ >= 0) ::close(fd_);
    throw OpenException(titleOf(name_) + " cannot be mapped" + reason(error));
  }
  base_ = static_cast<std::byte*>(at);
  if (!embedded) guard(reinterpret_cast<uintptr_t>(base_), reserved_);
}

TableMemory::~TableMemory() {
  unguard(reinterpret_cast<uintptr_t>(base_));
  ::munmap(base_, reserved_);
  if (fd_ >= 0) ::close(fd_);
}

void TableMemory::openNamed(const TableConfig& config) {
  if (name_.empty() || name_.find('/') != std::string::npos) {
    throw OpenException(titleOf(name_) + " cannot be opened: not a name");
  }
  const bool write = config.access == Access::Write;
  for (;;) {
    // Without waiting: a FIFO of that name may never get a writer.
    const int how = O_NONBLOCK | (write ? O_RDWR | O_CREAT : O_RDONLY);
    fd_ = ::shm_open(fileName(name_).c_str(), how, 0644);
    if (fd_ < 0) {
      throw OpenException(titleOf(name_) + (errno == ENOENT ? " does not exist"
                                                            : " cannot be opened" + reason(errno)));
    }
    struct stat status {};
    if (::fstat(fd_, &status) == 0 && !S_ISREG(status.st_mode)) {
      ::close(fd_);
      throw OpenException(titleOf(name_) + " cannot be opened: not a regular file");
    }
    auto lock = wholeFile(F_WRLCK);
    if (write && ::fcntl(fd_, F_OFD_SETLK, &lock) != 0) {
      ::close(fd_);
      throw OpenException(titleOf(name_) + " has a living writer");
    }
    // The last writer may have removed the name before it let the lock go.
    if (::fstat(fd_, &status) == 0 && status.st_nlink != 0) {
      bytes_ = static_cast<size_t>(status.st_size);
      return;
    }
    ::close(fd_);
  }
}

void TableMemory::provide(size_t at, size_t bytes) {
  size_t end = at + bytes;
  if (end > reserved_) throw NoSpaceException(titleOf(name_) + " has reached its largest size");
  int error = 0;
  if (fd_ >= 0) {
    // Allocated now, a page that memory has no room for fails here and not when it is touched.
    do {
      error = ::posix_fallocate(fd_, static_cast<off_t>(at), static_cast<off_t>(bytes));
    } while (error == EINTR);
  } else if (end > bytes_) {
    const bool large = bytes >= kLargeRequest;
    if (large && bytes_ >= kHugePage) {
      // What is full by now, for the kernel to do in the background: where memory is fragmented, a
      // huge page at the first touch holds up the update for milliseconds.
      ::madvise(base_ + bytes_ - kHugePage, kHugePage, MADV_HUGEPAGE);
    }
    const auto base = reinterpret_cast<uintptr_t>(base_);
    end = large ? roundUp(base + end, kHugePage) - base : roundUp(end, kPage);
    end = std::min(end, reserved_);
    if (::mprotect(base_, end, PROT_READ | PROT_WRITE) != 0) error = errno;
  }
  if (error != 0) throw NoSpaceException(titleOf(name_) + " cannot grow" + reason(error));
  bytes_ = std::max(bytes_, end);
}

void TableMemory::refresh() {
  struct stat status {};
  if (fd_ >= 0 && ::fstat(fd_, &status) == 0) bytes_ = static_cast<size_t>(status.st_size);
}

void TableMemory::clear() {
  if (fd_ < 0 || ::ftruncate(fd_, 0) == 0) bytes_ = 0;
}

bool TableMemory::hasOtherWriter() const {
  auto lock = wholeFile(F_RDLCK);
  return fd_ >= 0 && ::fcntl(fd_, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool TableMemory::isCurrent() const {
  struct stat ours {};
  struct stat named {};
  return fd_ < 0 || (::fstat(fd_, &ours) == 0 &&
                     ::stat((kSharedMemoryFolder + fileName(name_)).c_str(), &named) == 0 &&
                     ours.st_ino == named.st_ino && ours.st_dev == named.st_dev);
}

void TableMemory::remove() {
  if (fd_ >= 0) ::shm_unlink(fileName(name_).c_str());
}

std::vector<std::string> tablesOf(std::string_view owner) {
  std::vector<std::string> names;
  std::error_code error;
  std::filesystem::directory_iterator file(kSharedMemoryFolder, error);
  for (; !error && file != std::filesystem::directory_iterator(); file.increment(error)) {
    std::string name = file->path().filename();
    if (!name.starts_with(kFilePrefix)) continue;
    name.erase(0, kFilePrefix.size());
    if (name.starts_with(owner) && (name.size() == owner.size() || name[owner.size()] == '.')) {
      names.push_back(std::move(name));
    }
  }
  if (error) {
    throw OpenException(std::string(kSharedMemoryFolder) +
                        ", where shared tables are, cannot be read: " + error.message());
  }
  std::sort(names.begin(), names.end());
  return names;
}

size_t removeTablesOf(std::string_view owner) {
  try {
    const auto names = tablesOf(owner);
    for (const auto& name : names) ::shm_unlink(fileName(name).c_str());
    return names.size();
  } catch (const OpenException&) {
    return 0;  // nothing can be there
  }
}

}  // namespace Tovan
