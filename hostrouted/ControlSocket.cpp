// The socket that clients of the control protocol connect to.
#include "hostrouted/ControlSocket.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <list>
#include <map>
#include <ostream>
#include <stdexcept>
#include <streambuf>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "hostrouted/Listings.h"

namespace Hostrouted {
namespace {

/// The number of bytes for one system call.
constexpr size_t kPiece = 65536;
/// The interval of the check for idle clients, in seconds.
constexpr double kRounds = 1;
/// A child process that writes a long reply ends after this many seconds.
constexpr unsigned kLongestAnswer = 120;
/// The nice(2) value of such a process.
constexpr int kWriterNiceness = 10;

std::string systemError(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

/// Whether a client is a member of a group. The kernel tells the groups of the client's process.
bool isMember(int fd, gid_t primary, gid_t group) {
  if (primary == group) return true;
  std::vector<gid_t> groups(64);
  for (;;) {
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0) {
      groups.resize(size / sizeof(gid_t));
      return std::ranges::find(groups, group) != groups.end();
    }
    if (errno != ERANGE || size <= groups.size() * sizeof(gid_t)) return false;
    groups.resize(size / sizeof(gid_t));
  }
}

/// Writes to a socket and blocks while the client does not read. Ends the process on an error.
class SocketBuffer final : public std::streambuf {
 public:
  explicit SocketBuffer(int fd) : fd_(fd) { setp(buffer_.data(), buffer_.data() + kPiece); }

 protected:
  int_type overflow(int_type c) override {
    flushBuffer();
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
      *pptr() = traits_type::to_char_type(c);
      pbump(1);
    }
    return traits_type::not_eof(c);
  }
  int sync() override {
    flushBuffer();
    return 0;
  }

 private:
  void flushBuffer() {
    const char* at = pbase();
    while (at != pptr()) {
      const auto sent = ::send(fd_, at, static_cast<size_t>(pptr() - at), MSG_NOSIGNAL);
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0) ::_exit(1);
      at += sent;
    }
    setp(buffer_.data(), buffer_.data() + kPiece);
  }

  int fd_;
  std::array<char, kPiece> buffer_{};
};

struct Client {
  int fd = -1;
  uid_t uid = 0;
  Peer peer;
  sd_event_source* source = nullptr;
  std::string input;
  std::string output;
  size_t sent = 0;        // the number of sent bytes of the output
  bool hasEnded = false;  // the client sends no more requests
  std::unique_ptr<Feedline> feed;
  pid_t writer = 0;  // the child process that writes its reply, or 0
  double activeAt = 0;

  Client() = default;
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  ~Client() {
    if (source != nullptr) ::sd_event_source_disable_unref(source);
    if (fd >= 0) ::close(fd);
  }
  bool hasOutput() const { return sent < output.size(); }
  bool isBusy() const { return hasOutput() || feed || writer != 0; }
};

}  // namespace

class ControlSocket::Server {
 public:
  Server(sd_event* event, Options options, Control& control, Log& log)
      : event_(event), options_(std::move(options)), control_(control), log_(log) {
    open();
    check(::sd_event_add_io(event_, &listener_, fd_, EPOLLIN, onConnection, this));
    check(::sd_event_add_time(event_, &timer_, CLOCK_MONOTONIC, 0, 100000, onTime, this));
    check(::sd_event_source_set_enabled(timer_, SD_EVENT_OFF));
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server() {
    for (const auto& client : clients_) {
      if (client.writer != 0) ::kill(client.writer, SIGKILL);
    }
    clients_.clear();
    for (const auto& [pid, source] : writers_) ::sd_event_source_disable_unref(source);
    ::sd_event_source_disable_unref(listener_);
    ::sd_event_source_disable_unref(timer_);
    ::unlink(options_.path.c_str());
    ::close(fd_);
  }

  void pump() {
    for (auto it = clients_.begin(); it != clients_.end();) {
      auto& client = *it++;
      if (client.feed && client.writer == 0) advance(client);
    }
  }

 private:
  using Clients = std::list<Client>;

  static void check(int result) {
    if (result < 0) {
      errno = -result;
      throw std::runtime_error(systemError("control socket"));
    }
  }

  void open() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (options_.path.size() >= sizeof(address.sun_path)) {
      throw std::runtime_error(options_.path + ": the path is too long for a socket");
    }
    std::memcpy(address.sun_path, options_.path.data(), options_.path.size());
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) throw std::runtime_error(systemError("control socket"));
    ::unlink(options_.path.c_str());
    // No other user may connect before the group and the mode are set.
    const auto former = ::umask(0177);
    const bool isBound =
        ::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    ::umask(former);
    if (!isBound || ::listen(fd_, SOMAXCONN) != 0) {
      const auto why = systemError(options_.path);
      ::close(fd_);
      throw std::runtime_error(why);
    }
    if (options_.group && ::chown(options_.path.c_str(), uid_t(-1), *options_.group) != 0) {
      log_.write(LOG_ERR, "control", systemError(options_.path + ": the group cannot be set"));
    }
    if (::chmod(options_.path.c_str(), 0660) != 0) {
      log_.write(LOG_ERR, "control", systemError(options_.path));
    }
  }

  static int onConnection(sd_event_source*, int, uint32_t, void* self) {
    static_cast<Server*>(self)->accept();
    return 0;
  }
  static int onClient(sd_event_source* source, int, uint32_t events, void* self) {
    static_cast<Server*>(self)->handle(source, events);
    return 0;
  }
  static int onChild(sd_event_source* source, const siginfo_t* info, void* self) {
    auto& server = *static_cast<Server*>(self);
    const bool isDone = info->si_code == CLD_EXITED && info->si_status == 0;
    server.writers_.erase(info->si_pid);
    server.finish(info->si_pid, isDone);
    ::sd_event_source_disable_unref(source);
    return 0;
  }
  static int onTime(sd_event_source*, uint64_t, void* self) {
    static_cast<Server*>(self)->dropSilent();
    return 0;
  }

  void accept() {
    const int fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      // Without a free file descriptor the loop would try again at once, without end.
      if (errno == EMFILE || errno == ENFILE) {
        ::sd_event_source_set_enabled(listener_, SD_EVENT_OFF);
        schedule();
      }
      return;
    }
    ucred credentials{};
    socklen_t size = sizeof(credentials);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
      ::close(fd);
      return;
    }
    const auto ofUser = std::ranges::count(clients_, credentials.uid, &Client::uid);
    const bool isRoot = credentials.uid == 0;
    // Some places are for root alone, so that other users cannot keep root out.
    const auto places = isRoot ? kMostClients : kMostClients - kRootsClients;
    if (clients_.size() >= places || (!isRoot && static_cast<size_t>(ofUser) >= kMostOfOneUser)) {
      const auto text = Control::refusal("too many clients");
      (void)::send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      ::close(fd);
      return;
    }
    auto& client = clients_.emplace_back();
    client.fd = fd;
    client.uid = credentials.uid;
    client.peer = {
        .isRoot = isRoot,
        .mayChange = isRoot || credentials.uid == ::geteuid() ||
                     (options_.adminGroup && isMember(fd, credentials.gid, *options_.adminGroup))};
    client.activeAt = monotonicSeconds();
    if (::sd_event_add_io(event_, &client.source, fd, EPOLLIN, onClient, this) < 0) {
      clients_.pop_back();
      return;
    }
    schedule();
  }

  Clients::iterator find(sd_event_source* source) {
    return std::ranges::find(clients_, source, &Client::source);
  }

  void handle(sd_event_source* source, uint32_t events) {
    const auto client = find(source);
    if (client == clients_.end()) return;
    if ((events & (EPOLLHUP | EPOLLERR)) != 0) return drop(*client);
    if ((events & EPOLLIN) != 0 && !read(*client)) return drop(*client);
    advance(*client);
  }

  /// Reads the available bytes, up to the length of one request. \return false on an error.
  bool read(Client& client) {
    std::array<char, Control::kMaxRequestBytes + 1> piece;
    const size_t room = piece.size() - std::min(piece.size(), client.input.size());
    const auto size = room == 0 ? 0 : ::recv(client.fd, piece.data(), room, MSG_DONTWAIT);
    if (size < 0) return errno == EAGAIN || errno == EINTR;
    if (size == 0) client.hasEnded = true;
    client.input.append(piece.data(), static_cast<size_t>(size));
    if (size > 0) client.activeAt = monotonicSeconds();
    return true;
  }

  /// Sends waiting output. When all was sent, answers the next request: one at a time, so that the
  /// other clients are served in between.
  void advance(Client& client) {
    if (client.writer != 0) return;
    if (!client.isBusy()) answer(client);
    if (client.writer != 0) return;
    if (client.feed) {
      if (client.output.size() - client.sent < kPiece) {
        client.output.erase(0, std::exchange(client.sent, 0));
        client.feed->take(client.output);
      }
      if (client.feed->isEmpty() && client.feed->hasEnded(monotonicSeconds())) {
        client.output += "{\"end\":true}\n";
        client.feed.reset();
      }
    }
    if (!send(client) || (client.hasEnded && !client.isBusy() && client.input.empty())) {
      return drop(client);
    }
    listen(client);
  }

  void answer(Client& client) {
    const auto end = std::min(client.input.find('\n'), client.input.size());
    if (end > Control::kMaxRequestBytes) {
      client.output = Control::refusal("the request is longer than " +
                                       std::to_string(Control::kMaxRequestBytes) + " bytes");
      client.input.clear();
      client.hasEnded = true;
      return;
    }
    // The last line may end without a line feed.
    if (end == client.input.size() && !client.hasEnded) return;
    const auto line = client.input.substr(0, end);
    client.input.erase(0, end + 1);
    if (line.find_first_not_of(" \t\r") == line.npos) return;
    auto reply = control_.handle(line, client.peer);
    client.output = std::move(reply.text);
    client.sent = 0;
    client.feed = std::move(reply.feed);
    if (reply.bulk) write(client, reply.bulk);
  }

  /// Starts a child process that writes the reply. It has a copy of the present state.
  void write(Client& client, const std::function<void(std::ostream&)>& bulk) {
    const auto text = std::exchange(client.output, {});
    const auto most = client.peer.isRoot ? kMostWriters : kMostWriters - kRootsWriters;
    const auto ofThisUser = std::ranges::count_if(clients_, [&](const Client& other) {
      return other.writer != 0 && other.uid == client.uid;
    });
    if (writers_.size() >= most ||
        (!client.peer.isRoot && static_cast<size_t>(ofThisUser) >= kMostWritersOfAUser)) {
      client.output = Control::refusal("other long answers are being written; ask again later");
      return;
    }
    const pid_t pid = ::fork();
    if (pid < 0) {
      client.output = Control::refusal(systemError("the answer cannot be written: fork"));
      return;
    }
    if (pid == 0) writeAndExit(client.fd, text, bulk);
    client.writer = pid;
    sd_event_source* source = nullptr;
    if (::sd_event_add_child(event_, &source, pid, WEXITED, onChild, this) < 0) {
      ::kill(pid, SIGKILL);
      client.writer = 0;
      client.hasEnded = true;
      return;
    }
    writers_.emplace(pid, source);
    listen(client);
  }

  /// Runs in the child process: writes the reply and exits. Closes the daemon's files, so that the
  /// child does not hold the daemon's locks.
  [[noreturn]] static void writeAndExit(int fd, const std::string& text,
                                        const std::function<void(std::ostream&)>& bulk) {
    standBack();
    constexpr int kKept = 3;
    ::dup2(fd, kKept);
    ::close_range(kKept + 1, ~0U, 0);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::alarm(kLongestAnswer);
    const timeval patience{.tv_sec = static_cast<time_t>(kPatience), .tv_usec = 0};
    ::setsockopt(kKept, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    SocketBuffer buffer(kKept);
    std::ostream os(&buffer);
    // No exception may leave this function: its unwinding would destroy objects of the daemon.
    try {
      os << text;
      try {
        bulk(os);
      } catch (const std::exception& error) {
        os << toLine({{"error", error.what()}});
      }
      os << "{\"end\":true}\n" << std::flush;
    } catch (...) {
      ::_exit(1);
    }
    ::_exit(0);
  }

  /// Runs in the child process: lowers its priority and makes it the first victim when memory runs
  /// out.
  static void standBack() {
    ::setpriority(PRIO_PROCESS, 0, kWriterNiceness);
    const int file = ::open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
    if (file < 0) return;
    constexpr std::string_view kFirst = "1000";
    (void)!::write(file, kFirst.data(), kFirst.size());
    ::close(file);
  }

  void finish(pid_t pid, bool isDone) {
    const auto client = std::ranges::find(clients_, pid, &Client::writer);
    if (client == clients_.end()) return;
    client->writer = 0;
    client->activeAt = monotonicSeconds();
    if (!isDone) return drop(*client);
    advance(*client);
  }

  /// \return false when the connection has ended.
  bool send(Client& client) {
    while (client.hasOutput()) {
      const size_t size = std::min(kPiece, client.output.size() - client.sent);
      const auto sent =
          ::send(client.fd, client.output.data() + client.sent, size, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (sent < 0 && errno == EAGAIN) return true;
      if (sent < 0 && errno != EINTR) return false;
      if (sent <= 0) continue;
      client.sent += static_cast<size_t>(sent);
      client.activeAt = monotonicSeconds();
    }
    client.output.clear();
    client.sent = 0;
    return true;
  }

  /// Sets the events to wait for: room for output, or a request.
  void listen(Client& client) {
    uint32_t events = 0;
    if (client.writer == 0 && client.hasOutput()) events = EPOLLOUT;
    if (!client.isBusy() && !client.hasEnded) events |= EPOLLIN;
    ::sd_event_source_set_io_events(client.source, events);
    // Further requests have been read together with the former one.
    const bool hasMore = !client.isBusy() && !client.input.empty() &&
                         (client.hasEnded || client.input.find('\n') != client.input.npos);
    if (hasMore) ::sd_event_source_set_io_events(client.source, EPOLLOUT);
  }

  void drop(const Client& client) {
    if (client.writer != 0) ::kill(client.writer, SIGKILL);
    std::erase_if(clients_, [&](const Client& c) { return &c == &client; });
  }

  void dropSilent() {
    const double now = monotonicSeconds();
    ::sd_event_source_set_enabled(listener_, SD_EVENT_ON);
    for (auto it = clients_.begin(); it != clients_.end();) {
      auto& client = *it++;
      const bool waits = client.writer != 0 || (client.feed && !client.hasOutput());
      if (!waits && now > client.activeAt + kPatience) {
        drop(client);
      } else if (client.feed) {
        advance(client);
      }
    }
    schedule();
  }

  /// Runs the timer while there are clients or the listener is disabled.
  void schedule() {
    int listens = SD_EVENT_ON;
    ::sd_event_source_get_enabled(listener_, &listens);
    if (clients_.empty() && listens != SD_EVENT_OFF) {
      ::sd_event_source_set_enabled(timer_, SD_EVENT_OFF);
      return;
    }
    int isOn = SD_EVENT_OFF;
    ::sd_event_source_get_enabled(timer_, &isOn);
    if (isOn != SD_EVENT_OFF) return;
    ::sd_event_source_set_time_relative(timer_, static_cast<uint64_t>(kRounds * 1e6));
    ::sd_event_source_set_enabled(timer_, SD_EVENT_ONESHOT);
  }

  sd_event* event_;
  const Options options_;
  Control& control_;
  Log& log_;
  int fd_ = -1;
  sd_event_source* listener_ = nullptr;
  sd_event_source* timer_ = nullptr;
  Clients clients_;
  // All child processes that have not ended, including those of disconnected clients.
  std::map<pid_t, sd_event_source*> writers_;
};

ControlSocket::ControlSocket(sd_event* event, Options options, Control& control, Log& log)
    : server_(std::make_unique<Server>(event, std::move(options), control, log)) {}

ControlSocket::~ControlSocket() = default;

void ControlSocket::pump() {
  server_->pump();
}

}  // namespace Hostrouted
