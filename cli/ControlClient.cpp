// The client of the control socket.
#include "cli/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <utility>

#include <CLI/CLI.hpp>

#include "replay/Json.h"

namespace Cli {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kVersion = 1;
constexpr size_t kMostLineBytes = size_t{256} << 20;
/// A line may take longer than the time limit if at least this many bytes arrive within the limit.
constexpr size_t kLeastBytes = size_t{1} << 20;
constexpr const char* kNotUnderstood = "the answer is not understood";

timeval timevalOf(std::chrono::milliseconds time) {
  const auto whole = std::chrono::floor<std::chrono::seconds>(time);
  const auto rest = std::chrono::microseconds(time - whole);
  return {.tv_sec = static_cast<time_t>(whole.count()),
          .tv_usec = static_cast<suseconds_t>(rest.count())};
}

}  // namespace

void addSocketOption(CLI::App& command, ControlOptions& options) {
  // CLI11's own environment variables would also override --socket of a command that shares the
  // option's variable with another command.
  const char* variable = std::getenv("HOSTROUTE_SOCKET");
  if (variable != nullptr && *variable != '\0') options.socket = variable;
  command
      .add_option("--socket", options.socket,
                  "The daemon's control socket; HOSTROUTE_SOCKET changes the default")
      ->type_name("PATH")
      ->capture_default_str();
}

int runLive(const ControlOptions& options, const std::string& place, const AskDaemon& ask) {
  try {
    return ask(place);
  } catch (const Json::exception&) {
    throw CommandError(place, options.socket + ": " + kNotUnderstood, kFailed);
  }
}

void addLiveCommand(CLI::App& command, ControlOptions& options, int& exitCode, AskDaemon ask) {
  addSocketOption(command, options);
  auto place = command.get_name();
  for (const auto* app = command.get_parent(); app != nullptr; app = app->get_parent()) {
    place = (app->get_parent() == nullptr ? "hostroute" : app->get_name()) + " " + place;
  }
  command.callback([&options, place, ask = std::move(ask), &exitCode] {
    exitCode = runLive(options, place, ask);
  });
}

ControlClient::ControlClient(const ControlOptions& options, std::string place)
    : place_(std::move(place)), path_(options.socket), patience_(options.patience) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof(address.sun_path)) fail("the path is too long for a socket");
  std::memcpy(address.sun_path, path_.data(), path_.size());
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  // The limit applies to sending, and to connecting while the daemon's queue of clients is full.
  const timeval patience = timevalOf(patience_);
  if (fd_ >= 0) ::setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
  if (fd_ >= 0 &&
      ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    return;
  }
  const int problem = errno;
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  if (problem == EAGAIN) fail("the daemon does not answer");
  if (problem == EACCES) fail("this user may not ask the daemon; its configuration names a group");
  throw NoDaemonError(
      place_, path_ + ": no hostrouted answers there: " + std::string(std::strerror(problem)),
      kFailed);
}

ControlClient::~ControlClient() {
  if (fd_ >= 0) ::close(fd_);
}

void ControlClient::fail(const std::string& what) const {
  throw CommandError(place_, path_ + ": " + what, kFailed);
}

namespace {

/// A line of the answer; a discarded value when it is not JSON or is nested too deeply.
Json parsed(const std::string& line) {
  if (Replay::nestsTooDeep(line)) return Json(Json::value_t::discarded);
  return Json::parse(line, nullptr, false);
}

}  // namespace

Json ControlClient::ask(Json request) {
  request["version"] = kVersion;
  const auto line = request.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
  for (size_t sent = 0; sent < line.size();) {
    const auto size = ::send(fd_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    // A daemon with too many clients sends a refusal before it closes the connection.
    if (size < 0 && (errno == EPIPE || errno == ECONNRESET)) break;
    if (size < 0 && errno == EAGAIN) fail("the daemon does not answer");
    if (size < 0 && errno != EINTR) fail(std::strerror(errno));
    if (size > 0) sent += static_cast<size_t>(size);
  }
  auto reply = parsed(readLine(false));
  if (!reply.is_object() || !reply.contains("ok")) fail(kNotUnderstood);
  if (reply["ok"] == true) return reply;
  const auto why = reply.value("error", std::string("the daemon refuses"));
  throw CommandError(place_, why, reply.value("malformed", false) ? kMisused : kFailed);
}

std::optional<Json> ControlClient::next(bool waits) {
  for (;;) {
    auto line = parsed(readLine(waits));
    if (!line.is_object()) fail(kNotUnderstood);
    if (line.contains("end")) return std::nullopt;
    if (!line.contains("error")) return line;
    isWhole_ = false;
    std::cout.flush();
    std::cerr << errorText(place_, shownText(line, "error")) << '\n';
  }
}

void ControlClient::finish() const {
  requireOutput();
  if (!isWhole_) fail("the daemon could not read all that it has; what it could is printed");
}

std::string ControlClient::readLine(bool waits) {
  size_t searched = taken_;
  std::optional<Clock::time_point> deadline;
  size_t received = 0;  // since the deadline was set
  for (;;) {
    const auto end = buffer_.find('\n', searched);
    if (end != buffer_.npos) {
      auto line = buffer_.substr(taken_, end - taken_);
      taken_ = end + 1;
      return line;
    }
    buffer_.erase(0, taken_);
    taken_ = 0;
    searched = buffer_.size();
    if (searched > kMostLineBytes) fail("the answer is too long");
    const bool isUnderWay = !waits || !buffer_.empty();
    if ((isUnderWay && !deadline) || received >= kLeastBytes) {
      deadline = Clock::now() + patience_;
      received = 0;
    }
    int remaining = -1;
    if (deadline) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now());
      if (left.count() <= 0) fail("the daemon does not answer");
      remaining = static_cast<int>(left.count());
    }
    pollfd readable{.fd = fd_, .events = POLLIN, .revents = 0};
    const int ready = ::poll(&readable, 1, remaining);
    if (ready < 0 && errno != EINTR) fail(std::strerror(errno));
    if (ready <= 0) continue;
    std::array<char, 65536> piece;
    const auto size = ::recv(fd_, piece.data(), piece.size(), 0);
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) fail("the connection ended before the answer was complete");
    buffer_.append(piece.data(), static_cast<size_t>(size));
    received += static_cast<size_t>(size);
  }
}

Json askOnce(const ControlOptions& options, const std::string& place, Json request) {
  return ControlClient(options, place).ask(std::move(request));
}

}  // namespace Cli
