// The daemon as a process: sockets, signals, timers and the service manager, on one event loop.
#include "hostrouted/Service.h"

#include <fcntl.h>
#include <grp.h>
#include <net/if.h>
#include <sys/epoll.h>
#include <sys/file.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "hostrouted/Control.h"
#include "hostrouted/ControlSocket.h"
#include "hostrouted/InstanceLock.h"
#include "hostrouted/Recorder.h"
#include "hostrouted/Router.h"
#include "hostrouted/Status.h"
#include "linux/AdvertisedFile.h"
#include "linux/Netlink.h"
#include "linux/RequestSocket.h"
#include "replay/Printable.h"

namespace Hostrouted {
namespace {

/// About how many messages are read in one turn. A change of many messages should be handled in one
/// turn; the routes of one turn should be written while the next turn is handled.
constexpr size_t kMessagesATurn = 4096;
/// The most messages that are read after a dump. Routes are withdrawn only after all notifications
/// since the beginning of the dump were read. The limit ends the reading of an endless flood.
constexpr size_t kMessagesADump = 1 << 20;
/// The status file is written at most this often, in seconds.
constexpr double kStatusInterval = 1;
/// After a failure, the list of advertised routes is written again this often, in seconds.
constexpr double kAdvertisedInterval = 1;
/// The delay before an incomplete dump is repeated, in seconds. It doubles with each repetition up
/// to the longest.
constexpr double kFirstRetry = 0.02;
constexpr double kLongestRetry = 1;

/// \throws std::runtime_error naming the call when `result` is a negative errno.
int must(int result, const char* call) {
  if (result < 0) throw std::runtime_error(std::string(call) + ": " + std::strerror(-result));
  return result;
}

/// A directory of this daemon: created if it is missing, and locked against another daemon.
class Directory {
 public:
  explicit Directory(const std::string& path) {
    std::error_code problem;
    std::filesystem::create_directories(path, problem);
    if (problem) throw std::runtime_error(path + ": " + problem.message());
    const std::string lock = path + "/lock";
    fd_ = ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ < 0) throw std::runtime_error(lock + ": " + std::strerror(errno));
    if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
      ::close(fd_);
      throw InUseError("another hostrouted uses " + path);
    }
  }
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  ~Directory() { ::close(fd_); }

 private:
  int fd_ = -1;
};

/// Prints requests as ip(8) commands and does not carry them out.
class PrintingChannel final : public Linux::RouteChannel {
 public:
  explicit PrintingChannel(uint8_t protocol) : protocol_(protocol) {}

  void perform(std::span<const Linux::RouteRequest> requests, std::span<int> results) override {
    for (const auto& request : requests) {
      std::cout << Linux::toString(request, nameOf) << " proto " << unsigned{protocol_} << '\n';
    }
    std::ranges::fill(results, 0);
  }

 private:
  static std::string nameOf(Linux::LinkIndex link) {
    std::array<char, IF_NAMESIZE> name{};
    if (::if_indextoname(link, name.data()) == nullptr) return std::to_string(link);
    return Replay::printable(name.data());
  }

  uint8_t protocol_;
};

/// As Linux::mayCollectNeighbors(). If the kernel cannot be asked, entries are refreshed.
bool collectsNeighbors(int family) {
  try {
    return Linux::mayCollectNeighbors(family);
  } catch (const Linux::NetlinkError&) {
    return true;
  }
}

std::optional<gid_t> groupNamed(const std::string& name) {
  const auto* group = name.empty() ? nullptr : ::getgrnam(name.c_str());
  return group == nullptr ? std::nullopt : std::optional(group->gr_gid);
}

class NoLog final : public Linux::AdvertisedLog {
 public:
  void add(const Linux::RouteKey&, uint32_t) override {}
  void remove(const Linux::RouteKey&) override {}
};

class EventSource {
 public:
  EventSource() = default;
  EventSource(const EventSource&) = delete;
  EventSource& operator=(const EventSource&) = delete;
  ~EventSource() { ::sd_event_source_unref(source_); }
  sd_event_source** out() { return &source_; }
  sd_event_source* get() const { return source_; }

 private:
  sd_event_source* source_ = nullptr;
};

}  // namespace

class Service::Loop {
 public:
  Loop(const Config& config, Options options, Log& log)
      : options_(std::move(options)),
        log_(log),
        printer_(config.protocol),
        writer_(config.protocol),
        prober_(config.protocol),
        notifications_({.receiveBuffer = config.receiveBuffer,
                        .ownPort = options_.isDryRun ? 0 : writer_.port(),
                        .warn = warner()}),
        recorder_(log) {
    if (!options_.isDryRun) {
      locks_.claim(config);
      runDirectory_.emplace(config.runDir);
      if (config.stateDir != config.runDir) stateDirectory_.emplace(config.stateDir);
      advertised_.emplace(config.stateDir + "/advertised", [this](const std::string& problem) {
        log_.write(LOG_WARNING, "advertised", problem);
      });
    }
    Config used = config;
    if (options_.isDryRun) used.sharedName.clear();  // a running daemon may have the name
    router_.emplace(used, services());
    if (!options_.recordFile.empty()) startRecording();
    if (advertised_) {
      for (const auto& route : advertised_->keys()) {
        router_->adoptAdvertised(route.key, route.metric);
      }
    }
    watch();
    if (!options_.isDryRun) openControl();
  }
  Loop(const Loop&) = delete;
  Loop& operator=(const Loop&) = delete;
  ~Loop() {
    controlSocket_.reset();
    ::sd_event_unref(event_);
  }

  int run() {
    synchronise();
    afterTurn();
    if (options_.isDryRun && router_->phase() == Phase::Ready) return 0;
    return must(::sd_event_loop(event_), "sd_event_loop");
  }

 private:
  Router::Services services() {
    Linux::RouteChannel& channel =
        options_.isDryRun ? static_cast<Linux::RouteChannel&>(printer_) : writer_;
    Linux::AdvertisedLog& advertised =
        advertised_ ? static_cast<Linux::AdvertisedLog&>(*advertised_) : noLog_;
    return {.channel = channel,
            .log = advertised,
            .clock = monotonicSeconds,
            .probe =
                [this](std::span<const Linux::Probe> probes) {
                  if (!options_.isDryRun) prober_.probe(probes);
                },
            .report =
                [this](int level, std::string_view kind, const std::string& message,
                       const std::vector<LogField>& fields) {
                  log_.write(level, kind, message, fields);
                },
            .collects = collectsNeighbors,
            .record = [this](const Daemon::Operation& operation) { recorder_.write(operation); },
            .writesApart = !options_.isDryRun};
  }

  void startRecording() {
    const auto snapshot = [this](const Recorder::Output& output) {
      router_->feed().snapshot(output);
    };
    recorder_.start(options_.recordFile, router_->config().recording, snapshot, true);
  }

  void openControl() {
    const auto& config = router_->config();
    const auto recordings = config.stateDir + "/recordings";
    std::error_code problem;
    std::filesystem::create_directories(recordings, problem);
    control_.emplace(Control::Services{.router = *router_,
                                       .log = log_,
                                       .recorder = recorder_,
                                       .clock = monotonicSeconds,
                                       .process = [this] { return processStatus(); },
                                       .resynchronise =
                                           [this] {
                                             synchronise();
                                             afterTurn();
                                           },
                                       .reload =
                                           [this] {
                                             auto why = reload();
                                             afterTurn();
                                             return why;
                                           },
                                       .recordingDirectory = recordings});
    controlSocket_.emplace(event_,
                           ControlSocket::Options{.path = config.runDir + "/control.sock",
                                                  .group = groupNamed(config.controlGroup),
                                                  .adminGroup = groupNamed(config.adminGroup)},
                           *control_, log_);
  }

  ProcessStatus processStatus() const {
    return {.version = options_.version,
            .pid = ::getpid(),
            .startedAt = startedAt_,
            .logLevel = log_.level(),
            .advertisedIsSound = !advertised_ || !advertised_->hasFailed(),
            .recording = recorder_.isOn() ? recorder_.path() : "",
            .recordingProblem = recorder_.problem(),
            .reloadProblem = reloadProblem_};
  }

  /// Logs unreadable messages of the kernel.
  Linux::Warn warner() {
    return [this](const std::string& what) { log_.write(LOG_WARNING, "message", what); };
  }

  void watch() {
    must(::sd_event_new(&event_), "sd_event_new");
    must(::sd_event_add_io(event_, input_.out(), notifications_.fd(), EPOLLIN, onReadable, this),
         "sd_event_add_io");
    must(::sd_event_add_io(event_, written_.out(), router_->writtenFd(), EPOLLIN, onWritten, this),
         "sd_event_add_io");
    must(::sd_event_add_time(event_, timer_.out(), CLOCK_MONOTONIC, 0, 1000, onTime, this),
         "sd_event_add_time");
    must(::sd_event_source_set_enabled(timer_.get(), SD_EVENT_OFF), "sd_event_source_set_enabled");
    sigset_t signals;
    ::sigemptyset(&signals);
    // Processes that write answers are waited for.
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGCHLD}) {
      ::sigaddset(&signals, signal);
    }
    ::sigprocmask(SIG_BLOCK, &signals, nullptr);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) {
      must(::sd_event_add_signal(event_, nullptr, signal, onSignal, this), "sd_event_add_signal");
    }
    watchIdle();
  }

  /// Sets the timer of a daemon for which nothing happens: it notifies the watchdog and checks the
  /// shared tables. One without both has no wake-ups.
  void watchIdle() {
    uint64_t watchdog = 0;
    if (must(::sd_watchdog_enabled(0, &watchdog), "sd_watchdog_enabled") > 0) {
      idlePeriod_ = watchdog / 2;
    } else if (router_->hasSharedTables()) {
      idlePeriod_ = std::chrono::microseconds(Daemon::Switch::kTendingInterval).count();
    } else {
      return;
    }
    must(::sd_event_add_time_relative(event_, idle_.out(), CLOCK_MONOTONIC, idlePeriod_,
                                      idlePeriod_ / 4, onIdle, this),
         "sd_event_add_time_relative");
    // Input without an end must not delay the watchdog.
    must(::sd_event_source_set_priority(idle_.get(), SD_EVENT_PRIORITY_IMPORTANT),
         "sd_event_source_set_priority");
  }

  void handleIdle() {
    ::sd_notify(0, "WATCHDOG=1");
    if (router_->hasSharedTables()) {
      router_->tend();
      afterTurn();
    }
    must(::sd_event_source_set_time_relative(idle_.get(), idlePeriod_),
         "sd_event_source_set_time_relative");
    must(::sd_event_source_set_enabled(idle_.get(), SD_EVENT_ONESHOT),
         "sd_event_source_set_enabled");
  }

  // The event loop's callbacks. An exception ends the daemon with an error, not by terminate().
  template <class Act>
  int guarded(Act act) {
    try {
      act();
      return 0;
    } catch (const std::exception& error) {
      log_.write(LOG_CRIT, "loop", std::string("cannot go on: ") + error.what());
      ::sd_event_exit(event_, 1);
      return 0;
    }
  }
  static int onReadable(sd_event_source*, int, uint32_t, void* self) {
    auto& loop = *static_cast<Loop*>(self);
    return loop.guarded([&] { loop.handleInput(); });
  }
  static int onWritten(sd_event_source*, int, uint32_t, void* self) {
    auto& loop = *static_cast<Loop*>(self);
    return loop.guarded([&] {
      loop.router_->onWritten();
      loop.afterTurn();
    });
  }
  static int onTime(sd_event_source*, uint64_t, void* self) {
    auto& loop = *static_cast<Loop*>(self);
    return loop.guarded([&] { loop.handleTime(); });
  }
  static int onIdle(sd_event_source*, uint64_t, void* self) {
    auto& loop = *static_cast<Loop*>(self);
    return loop.guarded([&] { loop.handleIdle(); });
  }
  static int onSignal(sd_event_source*, const signalfd_siginfo* info, void* self) {
    auto& loop = *static_cast<Loop*>(self);
    return loop.guarded([&] { loop.handleSignal(static_cast<int>(info->ssi_signo)); });
  }

  /// Reads notifications. \return false when some were lost.
  bool readInput(size_t most = kMessagesATurn) {
    return notifications_.read(most,
                               [this](const Linux::Change& change) { router_->apply(change); });
  }

  void handleInput() {
    if (!readInput()) {
      log_.write(LOG_WARNING, "lost",
                 "the kernel dropped notifications: all of its state is read again");
      synchronise();
    } else {
      router_->endTurn();
    }
    afterTurn();
  }

  /// Reads all of the kernel's state. If the dump failed or was interrupted by changes, it is
  /// repeated a little later.
  void synchronise() {
    router_->beginDump();
    ::sd_notify(0, ("STATUS=" + std::string(phaseName(router_->phase()))).c_str());
    writeStatus();
    const bool isWhole = readAll();
    // A dump of many objects takes long.
    ::sd_notify(0, "WATCHDOG=1");
    if (!isWhole) {
      retryDelay_ = retryAt_ ? std::min(2 * retryDelay_, kLongestRetry) : kFirstRetry;
      retryAt_ = monotonicSeconds() + retryDelay_;
      return;
    }
    retryAt_.reset();
    router_->endDump();
    if (!isReady_) {
      isReady_ = true;
      const auto line = statusLine(*router_);
      ::sd_notify(0, ("READY=1\nSTATUS=" + line).c_str());
      log_.write(LOG_INFO, "ready", line);
    }
  }

  /// \return false when it must be repeated.
  bool readAll() {
    try {
      const bool isWhole =
          Linux::dumpAll([this](const Linux::Change& change) { router_->apply(change); }, warner());
      // The notifications since the beginning of the dump follow. They may repeat older states, but
      // the last one of each object has its current state.
      return readInput(kMessagesADump) && isWhole;
    } catch (const Linux::NetlinkError& error) {
      if (!isReady_) throw;
      log_.write(LOG_ERR, "dump", std::string("cannot read the kernel's state: ") + error.what(),
                 {{"ERRNO", std::to_string(error.number())}});
      return false;
    }
  }

  void handleTime() {
    if (retryAt_ && monotonicSeconds() >= *retryAt_) {
      synchronise();
      if (options_.isDryRun && router_->phase() == Phase::Ready) ::sd_event_exit(event_, 0);
    } else {
      router_->endTurn();
    }
    afterTurn();
  }

  void handleSignal(int signal) {
    switch (signal) {
      case SIGHUP:
        reload();
        break;
      case SIGUSR1:
        writeStatus();
        break;
      default:
        ::sd_notify(0, "STOPPING=1");
        if (router_->config().flushesOnExit && !options_.isDryRun) router_->flushRoutes();
        router_->finishWriting();
        writeStatus();
        ::sd_event_exit(event_, 0);
        return;
    }
    afterTurn();
  }

  /// Reads the configuration again. \return the error that kept the former one; empty on success.
  std::string reload() {
    std::string why;
    const auto now = std::to_string(static_cast<uint64_t>(monotonicSeconds() * 1e6));
    ::sd_notify(0, ("RELOADING=1\nMONOTONIC_USEC=" + now).c_str());
    try {
      Config config = options_.reload();
      const auto kept = config.keepUntilRestart(router_->config());
      if (!options_.isDryRun) locks_.claim(config);
      log_.setLevel(config.logLevel);
      router_->reload(config);
      log_.write(LOG_NOTICE, "reload", "the configuration was read again");
      reloadProblem_.clear();
      for (const auto& key : kept) {
        reloadProblem_ +=
            (reloadProblem_.empty() ? "changes wait for the next start: " : ", ") + key;
      }
      if (!kept.empty()) log_.write(LOG_WARNING, "reload", reloadProblem_);
    } catch (const std::exception& error) {
      why = std::string(error.what()) + "; the configuration stays as it was";
      reloadProblem_ = why;
      log_.write(LOG_ERR, "reload", why);
    }
    // New output tables may hold routes of a former process.
    if (why.empty()) synchronise();
    if (isReady_) ::sd_notify(0, "READY=1");
    return why;
  }

  /// Completes a turn: writes the recording and the status, and sets the time of the next turn.
  void afterTurn() {
    recorder_.endTurn();
    if (controlSocket_) controlSocket_->pump();
    const double now = monotonicSeconds();
    auto line = statusLine(*router_);
    if (line != statusLine_ && now >= statusAt_ + kStatusInterval) writeStatus();
    std::optional<double> next = retryAt_;
    const auto consider = [&](std::optional<double> time) {
      if (time && (!next || *time < *next)) next = time;
    };
    consider(router_->nextDeadline());
    if (line != statusLine_) consider(statusAt_ + kStatusInterval);
    if (advertised_ && advertised_->isBehind()) {
      advertised_->commit();
      if (advertised_->isBehind()) consider(now + kAdvertisedInterval);
    }
    if (!next) {
      ::sd_event_source_set_enabled(timer_.get(), SD_EVENT_OFF);
      return;
    }
    ::sd_event_source_set_time(timer_.get(), static_cast<uint64_t>(std::max(*next, 0.0) * 1e6) + 1);
    ::sd_event_source_set_enabled(timer_.get(), SD_EVENT_ONESHOT);
  }

  void writeStatus() {
    if (options_.isDryRun) return;
    statusLine_ = statusLine(*router_);
    statusAt_ = monotonicSeconds();
    ::sd_notify(0, ("STATUS=" + statusLine_).c_str());
    const auto path = router_->config().runDir + "/status.json";
    if (!replaceFile(path, status(*router_, processStatus()).dump(2) + "\n")) {
      const int error = errno;
      log_.write(LOG_WARNING, "status", path + ": " + std::strerror(error),
                 {{"ERRNO", std::to_string(error)}});
    }
  }

  const Options options_;
  Log& log_;
  PrintingChannel printer_;
  NoLog noLog_;
  Linux::RequestSocket writer_;  // of routes; another thread may use it
  Linux::RequestSocket prober_;
  Linux::NotificationSocket notifications_;
  Recorder recorder_;
  InstanceLock locks_;
  std::optional<Directory> runDirectory_;
  std::optional<Directory> stateDirectory_;
  std::optional<Linux::AdvertisedFile> advertised_;
  std::optional<Router> router_;
  std::optional<Control> control_;
  std::optional<ControlSocket> controlSocket_;
  std::string reloadProblem_;
  const std::chrono::microseconds startedAt_ =
      std::chrono::duration_cast<std::chrono::microseconds>(
          std::chrono::system_clock::now().time_since_epoch());

  sd_event* event_ = nullptr;
  EventSource input_;
  EventSource written_;
  EventSource timer_;
  EventSource idle_;
  uint64_t idlePeriod_ = 0;  // in microseconds
  bool isReady_ = false;
  std::optional<double> retryAt_;
  double retryDelay_ = kFirstRetry;
  std::string statusLine_;
  double statusAt_ = 0;
};

Service::Service(const Config& config, Options options, Log& log)
    : loop_(std::make_unique<Loop>(config, std::move(options), log)) {}

Service::~Service() = default;

int Service::run() {
  return loop_->run();
}

}  // namespace Hostrouted
