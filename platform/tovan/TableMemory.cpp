// The memory of a table: private or named, growing in place.
#include "platform/tovan/TableMemory.h"

#include <fcntl.h>
#include <pthread.h>
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
#include <mutex>
#include <set>
#include <system_error>
#include <utility>

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

/// A lock of `type` on the whole file. It belongs to the open file: the kernel releases it when the
/// last process that has the file open ends in any way.
struct flock wholeFile(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

/// Whether the file is locked for writing through another open file than `file`.
bool isLocked(int file) {
  auto lock = wholeFile(F_RDLCK);
  return ::fcntl(file, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

/// Owns a file descriptor.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

/// The addresses of a shared table, for the signal handler.
struct Range {
  std::atomic<uintptr_t> begin;
  std::atomic<uintptr_t> end;
  std::atomic<TableMemory*> memory;
};
/// Never destroyed: the handler may read them at any time.
struct Ranges {
  std::array<Range, 1024> ranges;
  std::atomic<Ranges*> more;
};
Ranges mappedTables;
struct sigaction formerAction;

template <class Visit>
void forEachRange(Visit visit) {
  for (Ranges* some = &mappedTables; some != nullptr; some = some->more) {
    for (Range& range : some->ranges) {
      if (visit(range)) return;
    }
  }
}

/// Maps a page of zeroes where the file of a table was cut short. The table's checks report it as
/// damage. Faults at other addresses are left to the former handler.
void onBusError(int signal, siginfo_t* info, void*) {
  const auto at = reinterpret_cast<uintptr_t>(info->si_addr);
  bool isMended = false;
  forEachRange([&](const Range& table) {
    if (at < table.begin || at >= table.end) return false;
    void* page = reinterpret_cast<void*>(at / kPage * kPage);
    const int kind = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED;
    isMended = ::mmap(page, kPage, PROT_READ | PROT_WRITE, kind, -1, 0) != MAP_FAILED;
    if (isMended) table.memory.load()->noteCut();
    return true;
  });
  if (!isMended) ::sigaction(signal, &formerAction, nullptr);
}

/// The data that the tables of this process share.
class Tables {
 public:
  /// Never destroyed: tables may be destroyed after any static object.
  static Tables& instance() {
    static auto* const tables = new Tables;
    return *tables;
  }

  /// Guards a shared table against a file that is cut short.
  void guard(TableMemory& memory, const std::byte* begin, size_t bytes) {
    const std::lock_guard lock(mutex_);
    Ranges* last = &mappedTables;
    for (;; last = last->more) {
      for (Range& range : last->ranges) {
        if (range.begin != 0) continue;
        range.memory = &memory;
        range.begin = reinterpret_cast<uintptr_t>(begin);
        range.end = range.begin + bytes;
        return;
      }
      if (last->more == nullptr) last->more = new Ranges;
    }
  }
  void unguard(const TableMemory& memory) {
    const std::lock_guard lock(mutex_);
    forEachRange([&](Range& range) {
      if (range.memory != &memory) return false;
      range.end = 0;
      range.begin = 0;
      range.memory = nullptr;
      return true;
    });
  }

  // The names that this process opened for writing and has not removed. It can remove them even
  // when it has no descriptor left to read the folder with.
  void addName(const std::string& name) {
    const std::lock_guard lock(mutex_);
    names_.insert(name);
  }
  void forgetName(const std::string& name) {
    const std::lock_guard lock(mutex_);
    names_.erase(name);
  }
  /// Held while a file gets the name of a table and this process notes that the table is its own.
  std::unique_lock<std::mutex> naming() { return std::unique_lock(naming_); }
  std::vector<std::string> takeNamesOf(std::string_view owner);
  bool isAnothers(const std::string& name);

 private:
  Tables() {
    struct sigaction action {};
    action.sa_sigaction = onBusError;
    action.sa_flags = SA_SIGINFO;
    ::sigaction(SIGBUS, &action, &formerAction);
    ::pthread_atfork([] { instance().mutex_.lock(); }, [] { instance().mutex_.unlock(); },
                     [] {
                       forEachRange([](Range& range) {
                         if (range.begin != 0) range.memory.load()->leaveToParent();
                         return false;
                       });
                       instance().names_.clear();
                       instance().mutex_.unlock();
                     });
  }

  std::mutex naming_;
  std::mutex mutex_;
  std::set<std::string> names_;
};

/// A table's file as it was opened.
struct OpenFile {
  Descriptor file;     ///< with the lock, if it is for writing
  Descriptor mapping;  ///< the file to map, if it is not `file`
  size_t bytes = 0;
};

Descriptor openByName(std::string_view name, int how) {
  // O_NONBLOCK: opening a FIFO of that name would wait for its writer.
  Descriptor fd(::shm_open(fileName(name).c_str(), how | O_NONBLOCK, 0644));
  if (!fd && errno != ENOENT) {
    throw OpenException(titleOf(name) + " cannot be opened" + reason(errno));
  }
  return fd;
}

/// The status of an open file; without links if it cannot be read.
struct stat statusOf(const Descriptor& fd) {
  struct stat status {};
  if (!fd || ::fstat(fd.get(), &status) != 0) status.st_nlink = 0;
  return status;
}

OpenFile openToRead(std::string_view name) {
  for (;;) {
    Descriptor file = openByName(name, O_RDONLY);
    if (!file) throw OpenException(titleOf(name) + " does not exist");
    const auto status = statusOf(file);
    if (!S_ISREG(status.st_mode)) {
      throw OpenException(titleOf(name) + " cannot be opened: not a regular file");
    }
    if (status.st_nlink == 0) continue;
    return {std::move(file), Descriptor(), static_cast<size_t>(status.st_size)};
  }
}

/// Opens and locks a file, and opens it a second time for the mapping. A mapping keeps its open
/// file, and a forked child inherits the mapping, so with one open file the child would hold the
/// lock.
OpenFile openToWrite(const std::string& name) {
  Tables::instance().addName(name);
  for (;;) {
    Descriptor file = openByName(name, O_RDWR | O_CREAT);
    const auto status = statusOf(file);
    if (!S_ISREG(status.st_mode)) {
      throw OpenException(titleOf(name) + " cannot be opened: not a regular file");
    }
    auto lock = wholeFile(F_WRLCK);
    if (::fcntl(file.get(), F_OFD_SETLK, &lock) != 0) {
      throw OpenException(titleOf(name) + " has a living writer");
    }
    try {
      Descriptor mapping = openByName(name, O_RDWR);
      // The last writer may have removed the name before it released the lock.
      const auto named = statusOf(mapping);
      if (named.st_nlink == 0 || named.st_ino != status.st_ino || named.st_dev != status.st_dev) {
        continue;
      }
      return {std::move(file), std::move(mapping), static_cast<size_t>(named.st_size)};
    } catch (const OpenException&) {
      if (status.st_size == 0) ::shm_unlink(fileName(name).c_str());
      throw;
    }
  }
}

bool belongsTo(std::string_view table, std::string_view owner) {
  return table.starts_with(owner) && (table.size() == owner.size() || table[owner.size()] == '.');
}

std::vector<std::string> Tables::takeNamesOf(std::string_view owner) {
  const std::lock_guard lock(mutex_);
  std::vector<std::string> taken;
  std::erase_if(names_, [&](const std::string& name) {
    if (!belongsTo(name, owner)) return false;
    taken.push_back(name);
    return true;
  });
  return taken;
}

/// Whether the file of this name belongs to another living process, or replaced a table of this
/// one.
bool Tables::isAnothers(const std::string& name) {
  {
    const std::lock_guard lock(mutex_);
    const TableMemory* ours = nullptr;
    forEachRange([&](const Range& range) {
      const TableMemory* memory = range.begin == 0 ? nullptr : range.memory.load();
      if (memory != nullptr && memory->isWritable() && memory->name() == name) ours = memory;
      return ours != nullptr;
    });
    if (ours != nullptr) return !ours->isCurrent();
  }
  const Descriptor file(::shm_open(fileName(name).c_str(), O_RDONLY | O_NONBLOCK, 0));
  return file && isLocked(file.get());
}

/// Allocates memory for a part of the file, so that lack of memory is an error here and not a
/// signal later. Returns an error number, or 0.
int allocate(int file, size_t at, size_t bytes) {
  int error = 0;
  do {
    error = ::posix_fallocate(file, static_cast<off_t>(at), static_cast<off_t>(bytes));
  } while (error == EINTR);
  return error;
}

bool writeAll(int file, const std::byte* from, size_t bytes, size_t at) {
  while (bytes != 0) {
    const ssize_t written = ::pwrite(file, from, bytes, static_cast<off_t>(at));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    from += written;
    at += static_cast<size_t>(written);
    bytes -= static_cast<size_t>(written);
  }
  return true;
}

}  // namespace

std::string titleOf(std::string_view table) {
  return std::string("Tovan table \"").append(table).append("\"");
}

TableMemory::TableMemory(const TableConfig& config, size_t maxBytes)
    : name_(config.name),
      reserved_(roundUp(maxBytes, kPage)),
      // A shared table is mapped with all its reserved addresses: those behind the end of the file
      // become usable when it grows. Private memory is made accessible in pieces, so that only
      // these count as used.
      protection_(config.access == Access::Embedded ? PROT_NONE
                  : config.access == Access::Read   ? PROT_READ
                                                    : PROT_READ | PROT_WRITE),
      isWritable_(config.access != Access::Read) {
  const bool embedded = config.access == Access::Embedded;
  std::unique_lock<std::mutex> naming;
  if (!embedded && isWritable_) naming = Tables::instance().naming();
  OpenFile opened;
  if (!embedded) {
    constexpr std::string_view kRefused("/\0", 2);
    if (name_.empty() || name_.find_first_of(kRefused) != std::string::npos) {
      throw OpenException(titleOf(name_) + " cannot be opened: not a name");
    }
    opened = config.access == Access::Read ? openToRead(name_) : openToWrite(name_);
  }
  const Descriptor& source = opened.mapping ? opened.mapping : opened.file;
  const int kind = embedded ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_SHARED;
  void* at = ::mmap(nullptr, reserved_, protection_, kind | MAP_NORESERVE, source.get(), 0);
  if (at == MAP_FAILED) {
    const int error = errno;
    if (isWritable_ && !embedded && opened.bytes == 0) ::shm_unlink(fileName(name_).c_str());
    throw OpenException(titleOf(name_) + " cannot be mapped" + reason(error));
  }
  base_ = static_cast<std::byte*>(at);
  if (!embedded) {
    try {
      Tables::instance().guard(*this, base_, reserved_);
    } catch (...) {
      ::munmap(base_, reserved_);
      throw;
    }
  }
  bytes_ = opened.bytes;
  fd_ = opened.file.release();
}

TableMemory::~TableMemory() {
  if (protection_ != PROT_NONE) Tables::instance().unguard(*this);
  ::munmap(base_, reserved_);
  if (fd_ >= 0) ::close(fd_);
}

void TableMemory::leaveToParent() {
  if (!isWritable_ || fd_ < 0) return;
  ::close(std::exchange(fd_, -1));
  isWritable_ = false;
}

bool TableMemory::remap() {
  struct stat status {};
  if (!isCut_ || fd_ < 0 || ::fstat(fd_, &status) != 0 || status.st_size == 0) return false;
  isCut_ = false;
  // While the file has its name, a writer opens it again, so that the mapping does not keep the
  // locked descriptor.
  const Descriptor named(isWritable_ ? ::shm_open(fileName(name_).c_str(), O_RDWR, 0) : -1);
  const auto found = statusOf(named);
  const bool isOurs = found.st_nlink != 0 && found.st_ino == status.st_ino;
  const int kind = MAP_SHARED | MAP_FIXED | MAP_NORESERVE;
  const int source = isOurs ? named.get() : fd_;
  if (::mmap(base_, reserved_, protection_, kind, source, 0) != MAP_FAILED) return true;
  isCut_ = true;
  return false;
}

void TableMemory::provide(size_t at, size_t bytes) {
  size_t end = at + bytes;
  if (end > reserved_) throw NoSpaceException(titleOf(name_) + " has reached its largest size");
  int error = 0;
  if (fd_ >= 0) {
    error = allocate(fd_, at, bytes);
  } else if (end > bytes_) {
    const bool large = bytes >= kLargeRequest;
    if (large && bytes_ >= kHugePage) {
      // Only for memory that is already used, so that the kernel merges its pages in the
      // background: making a huge page at the first access takes milliseconds when memory is
      // fragmented.
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

void TableMemory::giveBack(size_t at, size_t bytes) {
  const size_t begin = roundUp(at, kPage);
  const size_t end = std::min(roundUp(at + bytes, kPage), roundUp(bytes_, kPage));
  if (begin >= end) return;
  // If the system refuses, the memory stays provided, which does no harm.
  if (fd_ < 0) {
    ::madvise(base_ + begin, end - begin, MADV_DONTNEED);
  } else {
    ::fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(begin),
                static_cast<off_t>(end - begin));
  }
}

size_t TableMemory::endOfData() const {
  if (fd_ < 0) return bytes_;
  size_t end = 0;
  for (off_t data = 0; (data = ::lseek(fd_, data, SEEK_DATA)) >= 0;) {
    const off_t hole = ::lseek(fd_, data, SEEK_HOLE);
    if (hole <= data) return bytes_;
    data = hole;
    end = static_cast<size_t>(hole);
  }
  return errno == ENXIO ? std::min(end, bytes_) : bytes_;
}

void TableMemory::refresh() {
  struct stat status {};
  if (fd_ < 0) {
    // A forked child has no descriptor. It reads the length of the parent's table through the name.
    const bool isLeft = !isWritable_;
    const auto path = kSharedMemoryFolder + fileName(name_);
    if (isLeft && ::stat(path.c_str(), &status) == 0) {
      bytes_ = std::clamp(static_cast<size_t>(status.st_size), bytes_, reserved_);
    }
    return;
  }
  if (::fstat(fd_, &status) != 0) return;
  bytes_ = static_cast<size_t>(status.st_size);
  isUnlinked_ = status.st_nlink == 0;
}

void TableMemory::clear() {
  if (fd_ < 0 || ::ftruncate(fd_, 0) == 0) bytes_ = 0;
}

bool TableMemory::hasOtherWriter() const {
  // For a forked child, the parent is the writer.
  return fd_ >= 0 ? isLocked(fd_) : !isWritable_;
}

bool TableMemory::isCurrent() const {
  struct stat ours {};
  struct stat named {};
  return fd_ < 0 || (::fstat(fd_, &ours) == 0 &&
                     ::stat((kSharedMemoryFolder + fileName(name_)).c_str(), &named) == 0 &&
                     ours.st_ino == named.st_ino && ours.st_dev == named.st_dev);
}

void TableMemory::remove() {
  if (fd_ < 0) return;
  if (isCurrent()) ::shm_unlink(fileName(name_).c_str());
  Tables::instance().forgetName(name_);
}

void TableMemory::makeAgain(const std::array<Part, 2>& parts) {
  const std::string what = titleOf(name_) + " cannot be made again";
  const std::string path = kSharedMemoryFolder + fileName(name_);
  constexpr const char* kTaken = ": another file has its name";
  // Checked before the file is made: as long as another file has the name, this is called at each
  // turn.
  struct stat other {};
  if (::lstat(path.c_str(), &other) == 0) throw OpenException(what + kTaken);
  Descriptor made(::open(kSharedMemoryFolder, O_TMPFILE | O_RDWR | O_CLOEXEC, 0644));
  const std::string nameless = "/proc/self/fd/" + std::to_string(made.get());
  const Descriptor mapping(made ? ::open(nameless.c_str(), O_RDWR | O_CLOEXEC) : -1);
  auto lock = wholeFile(F_WRLCK);
  if (!mapping || ::fcntl(made.get(), F_OFD_SETLK, &lock) != 0) {
    throw OpenException(what + reason(errno));
  }
  for (const auto& [at, bytes] : parts) {
    if (const int error = allocate(made.get(), at, bytes)) {
      throw NoSpaceException(what + reason(error));
    }
    if (!writeAll(made.get(), base_ + at, bytes, at)) throw OpenException(what + reason(errno));
  }
  if (::ftruncate(made.get(), static_cast<off_t>(bytes_)) != 0) {
    throw NoSpaceException(what + reason(errno));
  }
  const auto naming = Tables::instance().naming();
  if (::linkat(AT_FDCWD, nameless.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) != 0) {
    throw OpenException(what + (errno == EEXIST ? kTaken : reason(errno)));
  }
  const int kind = MAP_SHARED | MAP_FIXED | MAP_NORESERVE;
  if (::mmap(base_, reserved_, protection_, kind, mapping.get(), 0) == MAP_FAILED) {
    const int error = errno;
    ::unlink(path.c_str());
    throw OpenException(what + reason(error));
  }
  ::close(std::exchange(fd_, made.release()));
  isUnlinked_ = false;
}

std::vector<std::string> allTables() {
  std::vector<std::string> names;
  std::error_code error;
  std::filesystem::directory_iterator file(kSharedMemoryFolder, error);
  for (; !error && file != std::filesystem::directory_iterator(); file.increment(error)) {
    std::string name = file->path().filename();
    if (!name.starts_with(kFilePrefix)) continue;
    name.erase(0, kFilePrefix.size());
    names.push_back(std::move(name));
  }
  if (error) {
    throw OpenException(std::string(kSharedMemoryFolder) +
                        ", where shared tables are, cannot be read: " + error.message());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> tablesOf(std::string_view owner) {
  auto names = allTables();
  std::erase_if(names, [owner](const std::string& name) { return !belongsTo(name, owner); });
  return names;
}

size_t removeTablesOf(std::string_view owner) {
  auto names = Tables::instance().takeNamesOf(owner);
  try {
    const auto found = tablesOf(owner);
    names.insert(names.end(), found.begin(), found.end());
  } catch (const OpenException&) {
    // Only the tables of this process are known then.
  }
  const auto isRemoved = [](const std::string& name) {
    return !Tables::instance().isAnothers(name) && ::shm_unlink(fileName(name).c_str()) == 0;
  };
  return static_cast<size_t>(std::count_if(names.begin(), names.end(), isRemoved));
}

size_t removeTablesForGood(std::string_view owner) {
  // Never unlocked: the process is about to end.
  [[maybe_unused]] auto* const locked = Tables::instance().naming().release();
  return removeTablesOf(owner);
}

}  // namespace Tovan
