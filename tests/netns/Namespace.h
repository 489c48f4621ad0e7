// A network namespace of a test's own.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Linux {

/// Skips the test with a reason when network namespaces are not available.
#define SKIP_WITHOUT_NAMESPACES()                                                \
  do {                                                                           \
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make network namespaces"; \
    if (std::system("ip -V >/dev/null 2>&1") != 0) GTEST_SKIP() << "needs ip";   \
  } while (false)

/// Commands of `ip` that make two ports, e1 and e2, with addresses and their hosts h1 and h2.
inline constexpr std::string_view kPorts = R"(
link set lo up
link add e1 type veth peer name h1
link add e2 type veth peer name h2
link set e1 up
link set e2 up
link set h1 up
link set h2 up
addr add 10.0.1.1/24 dev e1
addr add 10.0.2.1/24 dev e2
addr add 2001:db8:1::1/64 dev e1 nodad
addr add 2001:db8:2::1/64 dev e2 nodad
)";

/// Moves the calling thread, and the programs that it starts, into a new network namespace during
/// its lifetime.
class Namespace {
 public:
  Namespace() : outer_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    if (outer_ < 0 || unshare(CLONE_NEWNET) != 0)
      throw std::runtime_error("cannot make a network namespace");
  }
  Namespace(const Namespace&) = delete;
  Namespace& operator=(const Namespace&) = delete;
  ~Namespace() {
    if (setns(outer_, CLONE_NEWNET) != 0) std::abort();
    close(outer_);
  }

  /// Runs commands of `ip`, one on each line. \throws std::runtime_error when one fails.
  void ip(std::string_view commands) const { run("ip -batch -", commands); }
  /// Runs commands of `bridge`, one on each line.
  void bridge(std::string_view commands) const { run("bridge -batch -", commands); }
  /// Continues after a failed command.
  void ipAnyway(std::string_view commands) const {
    pipeInto("ip -force -batch - >/dev/null 2>&1", commands);
  }
  /// Waits for at most a minute until an interface has a carrier. The kernel refuses nexthop
  /// objects before.
  static void awaitCarrier(const char* name) {
    const int socket = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    std::strncpy(request.ifr_name, name, IFNAMSIZ - 1);
    for (int tries = 0; tries < 6000; ++tries) {
      if (::ioctl(socket, SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_RUNNING) != 0) {
        ::close(socket);
        return;
      }
      ::usleep(10'000);
    }
    ::close(socket);
    throw std::runtime_error(std::string(name) + " never has a carrier");
  }
  static void setSysctl(const std::string& name, const std::string& value) {
    std::FILE* file = std::fopen(("/proc/sys/net/" + name).c_str(), "w");
    const bool isOpen = file != nullptr;
    if (!isOpen || std::fputs(value.c_str(), file) < 0 || std::fclose(file) != 0)
      throw std::runtime_error("cannot set " + name);
  }

 private:
  static int pipeInto(const char* program, std::string_view text) {
    std::FILE* pipe = popen(program, "w");
    if (pipe == nullptr) throw std::runtime_error(program);
    std::fwrite(text.data(), 1, text.size(), pipe);
    return pclose(pipe);
  }
  static void run(const char* program, std::string_view commands) {
    if (pipeInto(program, commands) != 0)
      throw std::runtime_error(std::string(program) + " fails in: " + std::string(commands));
  }

  int outer_;
};

}  // namespace Linux
