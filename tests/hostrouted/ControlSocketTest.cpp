// Tests of the control socket with clients that do not read.
#include "hostrouted/ControlSocket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "tests/hostrouted/RouterWorld.h"

namespace Hostrouted {
namespace {

class ControlSocketTest : public testing::Test {
 protected:
  ControlSocketTest() {
    // As in the daemon, the loop gets SIGCHLD.
    sigset_t child;
    ::sigemptyset(&child);
    ::sigaddset(&child, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &child, nullptr);
    ::sd_event_new(&event);
    socket.emplace(event, ControlSocket::Options{.path = path, .group = {}, .adminGroup = {}},
                   world.control, world.log);
  }
  ~ControlSocketTest() override {
    for (const int client : clients) ::close(client);
    socket.reset();
    ::sd_event_unref(event);
  }

  /// A client that requests an answer longer than the socket's buffer.
  int client() {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    clients.push_back(fd);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    EXPECT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    constexpr std::string_view kRequest = "{\"version\":1,\"request\":\"neighbors\"}\n";
    EXPECT_EQ(::send(fd, kRequest.data(), kRequest.size(), 0), ssize_t(kRequest.size()));
    return fd;
  }
  /// Reads the first bytes of the answer, with the loop running until they are there.
  std::string begin(int fd) {
    std::array<char, 400> piece;
    for (;;) {
      const auto size = ::recv(fd, piece.data(), piece.size(), 0);
      if (size >= 0) return {piece.data(), static_cast<size_t>(size)};
      ::sd_event_run(event, 10000);
    }
  }

  const std::string path =
      testing::TempDir() + "/control-socket-" + std::to_string(::getpid()) + ".sock";
  RouterWorld world;
  sd_event* event = nullptr;
  std::optional<ControlSocket> socket;
  std::vector<int> clients;
};

TEST_F(ControlSocketTest, LimitsTheLongAnswersInProgress) {
  for (int subnet = 0; subnet < 40; ++subnet) {
    for (int last = 1; last < 251; ++last) {
      world.tell(Linux::neighbor(1, "10.9." + std::to_string(subnet) + "." + std::to_string(last)));
    }
  }
  const bool isRoot = ::geteuid() == 0;
  const size_t most = isRoot ? ControlSocket::kMostWriters : ControlSocket::kMostWritersOfAUser;
  for (size_t i = 0; i < most; ++i) {
    EXPECT_NE(begin(client()).find("\"ok\":true"), std::string::npos) << i;
  }
  EXPECT_NE(begin(client()).find("ask again later"), std::string::npos);
  // A client that disconnects makes room.
  ::close(clients.front());
  clients.erase(clients.begin());
  for (std::string answer; answer.find("\"ok\":true") == answer.npos;) {
    answer = begin(client());
    ASSERT_NE(answer.find("ok"), answer.npos);
    ::close(clients.back());
    clients.pop_back();
  }
}

}  // namespace
}  // namespace Hostrouted
