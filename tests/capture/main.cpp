// Makes the captures for the tests of messages: the kernel's notifications of changes.
//
// Usage, as root: netlink_capture tests/linux/captures. Each file NAME.ip there has commands of
// `ip`. NAME.nl gets the netlink messages that the kernel sends meanwhile.
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <array>
#include <fstream>
#include <iostream>
#include <string>
#include <thread>

#include "tests/Files.h"
#include "tests/netns/Namespace.h"

namespace {

constexpr const char* kCaptures[] = {"links",  "addresses", "neighbors",
                                     "routes", "routes6",   "nexthops"};

constexpr std::array kGroups = {RTNLGRP_LINK,        RTNLGRP_NEIGH,      RTNLGRP_IPV4_IFADDR,
                                RTNLGRP_IPV6_IFADDR, RTNLGRP_IPV4_ROUTE, RTNLGRP_IPV6_ROUTE,
                                RTNLGRP_NEXTHOP};

/// The notifications of a namespace's sockets during the commands of a file and shortly afterwards.
std::string capture(const std::string& file) {
  const Linux::Namespace space;
  space.ip(Linux::kPorts);
  mnl_socket* const socket = mnl_socket_open(NETLINK_ROUTE);
  if (socket == nullptr || mnl_socket_bind(socket, 0, MNL_SOCKET_AUTOPID) != 0)
    throw std::runtime_error("cannot open a netlink socket");
  for (int group : kGroups)
    mnl_socket_setsockopt(socket, NETLINK_ADD_MEMBERSHIP, &group, sizeof group);
  const std::string commands = contents(file + ".ip");
  if (commands.empty()) throw std::runtime_error("there is no " + file + ".ip");
  space.ipAnyway(commands);
  if (file.ends_with("links")) {
    space.ip("link add br1 type bridge\nlink set br1 up\nlink set h2 master br1");
    space.bridge(
        "fdb add 02:00:00:00:00:11 dev h2 master dynamic\n"
        "fdb add 02:00:00:00:00:13 dev h2 self permanent\n"
        "fdb del 02:00:00:00:00:11 dev h2 master");
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));
  std::string bytes;
  std::array<char, 65536> buffer{};
  for (ssize_t size = 0;; bytes.append(buffer.data(), static_cast<size_t>(size))) {
    size = recv(mnl_socket_get_fd(socket), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (size <= 0) break;
    bytes.resize((bytes.size() + 3) / 4 * 4);
  }
  mnl_socket_close(socket);
  return bytes;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: netlink_capture DIR\n";
    return 2;
  }
  try {
    for (const char* name : kCaptures) {
      const std::string file = std::string(argv[1]) + "/" + name;
      const std::string bytes = capture(file);
      std::ofstream out(file + ".nl", std::ios::binary);
      if (!(out << bytes).flush()) throw std::runtime_error("cannot write into the folder");
      std::cout << name << ": " << bytes.size() << " bytes\n";
    }
  } catch (const std::exception& error) {
    std::cerr << "netlink_capture: " << error.what() << "\n";
    return 1;
  }
}
