#include "linux/AdvertisedFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>
#include <utility>

namespace Linux {
namespace {

constexpr std::string_view kFormat = "hostroute-advertised ";
constexpr std::string_view kHeader = "hostroute-advertised 1\n";
/// A file may have twice as many lines as keys, and this many more.
constexpr size_t kSlack = 4096;

/// FNV-1a. It detects incomplete and overwritten lines. Protection against forgery is not needed.
uint32_t checksum(std::string_view text) {
  uint32_t sum = 2166136261U;
  for (const char c : text) sum = (sum ^ static_cast<uint8_t>(c)) * 16777619U;
  return sum;
}

/// One line of the file, built without allocation: each written route causes a line.
class Line {
 public:
  Line(char verb, const RouteKey& key) {
    *end_++ = verb;
    *end_++ = ' ';
    number(key.table);
    *end_++ = ' ';
    end_ = std::visit([this](const auto& prefix) { return prefix.write(end_); }, key.prefix);
  }
  void metric(uint32_t metric) {
    *end_++ = ' ';
    number(metric);
  }
  void appendTo(std::string& out) {
    const uint32_t sum = checksum({text_.data(), end_});
    *end_++ = ' ';
    number(sum, 16);
    *end_++ = '\n';
    out.append(text_.data(), end_);
  }

 private:
  void number(uint32_t value, int base = 10) {
    end_ = std::to_chars(end_, text_.data() + text_.size(), value, base).ptr;
  }

  std::array<char, Zemit::Ip6Prefix::kMaxText + 64> text_;
  char* end_ = text_.data();
};

void appendAddition(std::string& out, const RouteKey& key, uint32_t metric) {
  Line line('+', key);
  line.metric(metric);
  line.appendTo(out);
}

void appendRemoval(std::string& out, const RouteKey& key) {
  Line('-', key).appendTo(out);
}

std::optional<uint32_t> parseNumber(std::string_view text, int base = 10) {
  uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<Prefix> parsePrefix(std::string_view text) {
  if (const auto prefix = Zemit::Prefix::parse(text)) return Prefix(*prefix);
  if (const auto prefix = Zemit::Ip6Prefix::parse(text)) return Prefix(*prefix);
  return std::nullopt;
}

/// Takes the text up to the next blank, and the blank.
std::string_view takeWord(std::string_view& text) {
  const size_t end = std::min(text.find(' '), text.size());
  const auto word = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return word;
}

/// Writes all of `text` at `offset`. \return 0 or errno.
int writeAll(int fd, std::string_view text, size_t offset) {
  while (!text.empty()) {
    const auto written = ::pwrite(fd, text.data(), text.size(), static_cast<off_t>(offset));
    if (written < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    text.remove_prefix(static_cast<size_t>(written));
    offset += static_cast<size_t>(written);
  }
  return 0;
}

}  // namespace

AdvertisedFile::AdvertisedFile(std::string path, Report report,
                               std::chrono::milliseconds retryAfter)
    : path_(std::move(path)), report_(std::move(report)), retryAfter_(retryAfter) {
  read();
}

AdvertisedFile::~AdvertisedFile() {
  commit();
  if (fd_ >= 0) ::close(fd_);
}

void AdvertisedFile::read() {
  fd_ = ::open(path_.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (fd_ < 0) {
    // The first key creates the file.
    if (errno != ENOENT) fail("open");
    isBroken_ = true;
    return;
  }
  struct stat status;
  if (::fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode)) {
    report_(path_ + ": is no regular file, and is replaced by one");
    isBroken_ = true;
    return;
  }
  std::string text;
  text.resize(static_cast<size_t>(status.st_size));
  size_t length = 0;
  while (length < text.size()) {
    const auto got = ::read(fd_, text.data() + length, text.size() - length);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail("read");
    if (got <= 0) break;
    length += static_cast<size_t>(got);
  }
  text.resize(length);
  readLines(text);
}

/// Reads the valid lines. A file with other lines is written again.
void AdvertisedFile::readLines(std::string_view text) {
  size_ = text.size();
  bool isFirst = true;
  size_t number = 0;
  size_t damaged = 0;
  size_t firstDamaged = 0;
  while (!text.empty()) {
    ++number;
    const size_t end = text.find('\n');
    const auto line = text.substr(0, end);
    const bool isWhole = end != std::string_view::npos;
    text.remove_prefix(isWhole ? end + 1 : text.size());
    if (std::exchange(isFirst, false)) {
      if (isWhole && line == kHeader.substr(0, kHeader.size() - 1)) continue;
      if (isWhole && line.starts_with(kFormat)) {
        report_(path_ + ":1: version 1 was expected, not \"" + std::string(line) +
                "\": it is kept as " + path_ + ".unknown");
        ::rename(path_.c_str(), (path_ + ".unknown").c_str());
        isBroken_ = true;
        return;
      }
    }
    if (isWhole && applyLine(line)) {
      ++lines_;
    } else if (damaged++ == 0) {
      firstDamaged = number;
    }
  }
  if (damaged != 0) {
    report_(path_ + ":" + std::to_string(firstDamaged) + ": torn or damaged, passed over" +
            (damaged == 1 ? "" : ", and " + std::to_string(damaged - 1) + " more lines"));
  }
  // The next line must not follow an incomplete line or a missing header.
  if (damaged != 0 || size_ == 0) isBroken_ = true;
}

bool AdvertisedFile::applyLine(std::string_view line) {
  const size_t blank = line.rfind(' ');
  if (blank == std::string_view::npos) return false;
  if (parseNumber(line.substr(blank + 1), 16) != checksum(line.substr(0, blank))) return false;
  line = line.substr(0, blank);
  const auto verb = takeWord(line);
  const auto table = parseNumber(takeWord(line));
  const auto prefix = parsePrefix(takeWord(line));
  if (!table || !prefix) return false;
  const RouteKey key{*table, *prefix};
  if (verb == "-" && line.empty()) {
    live_.erase(key);
    return true;
  }
  const auto metric = parseNumber(line);
  if (verb != "+" || !metric) return false;
  live_.get(key) = *metric;
  return true;
}

void AdvertisedFile::add(const RouteKey& key, uint32_t metric) {
  live_.get(key) = metric;
  appendAddition(pending_, key, metric);
  ++pendingLines_;
}

void AdvertisedFile::remove(const RouteKey& key) {
  if (!live_.erase(key)) return;
  appendRemoval(pending_, key);
  ++pendingLines_;
}

void AdvertisedFile::commit() {
  if (pending_.empty() && !isBehind()) return;
  const bool isLong = lines_ + pendingLines_ > 2 * live_.size() + kSlack;
  const bool mayRewrite = std::chrono::steady_clock::now() >= retryAt_;
  const bool isRewritten = (isBroken_ || isLong) && mayRewrite && rewrite();
  // live_ has the notes that a broken file lacks. The next file contains them.
  if (!isRewritten && !isBroken_ && !append()) isBroken_ = true;
  pending_.clear();
  pendingLines_ = 0;
}

std::vector<AdvertisedFile::Route> AdvertisedFile::keys() const {
  std::vector<Route> routes;
  routes.reserve(live_.size());
  live_.forEach([&](const RouteKey& key, uint32_t metric) { routes.push_back({key, metric}); });
  return routes;
}

bool AdvertisedFile::append() {
  if (const int error = writeAll(fd_, pending_, size_)) {
    errno = error;
    fail("write");
    return false;
  }
  size_ += pending_.size();
  lines_ += pendingLines_;
  return true;
}

/// Writes a new file with one line for each key, and replaces the old file.
bool AdvertisedFile::rewrite() {
  std::string text(kHeader);
  live_.forEach([&](const RouteKey& key, uint32_t metric) { appendAddition(text, key, metric); });
  const std::string next = path_ + ".new";
  const int fd = ::open(next.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0640);
  if (fd < 0) {
    fail("open");
    return false;
  }
  int error = writeAll(fd, text, 0);
  if (error == 0 && ::rename(next.c_str(), path_.c_str()) != 0) error = errno;
  if (error != 0) {
    ::close(fd);
    ::unlink(next.c_str());
    errno = error;
    fail("write");
    return false;
  }
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
  size_ = text.size();
  lines_ = live_.size();
  if (std::exchange(isReported_, false)) report_(path_ + ": is written again");
  isBroken_ = false;
  return true;
}

/// Reports an error of the system, once until a success.
void AdvertisedFile::fail(const char* call) {
  const int error = errno;
  retryAt_ = std::chrono::steady_clock::now() + retryAfter_;
  if (std::exchange(isReported_, true)) return;
  report_(path_ + ": " + call + ": " + std::strerror(error) +
          ": what other routers were told is not all known after a crash");
}

}  // namespace Linux
