// One daemon for each kernel table.
#include "hostrouted/InstanceLock.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <set>
#include <utility>

namespace Hostrouted {
namespace {

int claimSocket(const std::string& name) {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) throw std::runtime_error(std::string("socket: ") + std::strerror(errno));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  // The first byte of an abstract address is 0.
  const size_t size = std::min(name.size(), sizeof(address.sun_path) - 1);
  std::memcpy(address.sun_path + 1, name.data(), size);
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + size);
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0) return fd;
  const int problem = errno;
  ::close(fd);
  if (problem == EADDRINUSE) {
    throw InUseError("another hostrouted writes to " + name.substr(name.find('/') + 1));
  }
  throw std::runtime_error("bind " + name + ": " + std::strerror(problem));
}

}  // namespace

InstanceLock::~InstanceLock() {
  for (const auto& [name, fd] : sockets_) ::close(fd);
}

void InstanceLock::claim(const Config& config) {
  std::set<std::string> names;
  for (const auto& [vrf, output] : config.tables) {
    if (output.table4 != 0) names.insert("hostrouted/IPv4 table " + std::to_string(output.table4));
    if (output.table6 != 0) names.insert("hostrouted/IPv6 table " + std::to_string(output.table6));
  }
  std::map<std::string, int> added;
  try {
    for (const auto& name : names) {
      if (!sockets_.contains(name)) added.emplace(name, claimSocket(name));
    }
  } catch (...) {
    for (const auto& [name, fd] : added) ::close(fd);
    throw;
  }
  for (auto it = sockets_.begin(); it != sockets_.end();) {
    if (names.contains(it->first)) {
      ++it;
    } else {
      ::close(it->second);
      it = sockets_.erase(it);
    }
  }
  sockets_.merge(added);
}

}  // namespace Hostrouted
