// Asks a running hostrouted by its control socket.
#include "cli/ControlClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include <CLI/CLI.hpp>

#include "cli/Command.h"
#include "replay/Json.h"

namespace Cli {
namespace {

constexpr int kVersion = 1;
/// How long the daemon may take for an answer, in milliseconds.
constexpr int kPatience = 30000;
constexpr size_t kMostLineBytes = size_t{256} << 20;

}  // namespace

void addSocketOption(CLI::App& command, ControlOptions& options) {
  command.add_option("--socket", options.socket, "The control socket of the daemon that is asked")
      ->type_name("PATH")
      ->envname("HOSTROUTE_SOCKET")
      ->capture_default_str();
}

ControlClient::ControlClient(const ControlOptions& options, std::string place)
    : place_(std::move(place)), path_(options.socket) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.size() >= sizeof(address.sun_path)) fail("the path is too long for a socket");
  std::memcpy(address.sun_path, path_.data(), path_.size());
  fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd_ >= 0 &&
      ::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
    return;
  }
  const int problem = errno;
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  if (problem == EACCES) fail("this user may not ask the daemon; its configuration names a group");
  fail("no hostrouted answers there: " + std::string(std::strerror(problem)));
}

ControlClient::~ControlClient() {
  if (fd_ >= 0) ::close(fd_);
}

void ControlClient::fail(const std::string& what) const {
  throw CommandError(place_, path_ + ": " + what, kFailed);
}

namespace {

/// A line of the answer; discarded where it is not JSON that one may read.
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
    // A daemon that has no room for us says so before it hangs up.
    if (size < 0 && (errno == EPIPE || errno == ECONNRESET)) break;
    if (size < 0 && errno != EINTR) fail(std::strerror(errno));
    if (size > 0) sent += static_cast<size_t>(size);
  }
  auto reply = parsed(readLine(false));
  if (!reply.is_object() || !reply.contains("ok")) fail("the answer is not understood");
  if (reply["ok"] == true) return reply;
  const auto why = reply.value("error", std::string("the daemon refuses"));
  throw CommandError(place_, why, reply.value("malformed", false) ? kMisused : kFailed);
}

std::optional<Json> ControlClient::next(bool waits) {
  auto line = parsed(readLine(waits));
  if (!line.is_object()) fail("the answer is not understood");
  if (line.is_object() && line.contains("end")) return std::nullopt;
  return line;
}

std::string ControlClient::readLine(bool waits) {
  size_t searched = taken_;
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
    pollfd readable{.fd = fd_, .events = POLLIN, .revents = 0};
    const int ready = ::poll(&readable, 1, waits ? -1 : kPatience);
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) fail("the daemon does not answer");
    std::array<char, 65536> piece;
    const auto size = ::recv(fd_, piece.data(), piece.size(), 0);
    if (size < 0 && errno == EINTR) continue;
    if (size <= 0) fail("the connection ended before the answer was complete");
    buffer_.append(piece.data(), static_cast<size_t>(size));
  }
}

Json askOnce(const ControlOptions& options, const std::string& place, Json request) {
  return ControlClient(options, place).ask(std::move(request));
}

}  // namespace Cli
