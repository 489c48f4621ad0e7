// Prints the IPv4 routes of a VRF that a daemon shares, and then each that changes:
//
//   reader TABLES VRF SECONDS
//
// A line is "+ PREFIX INTERFACE..." for a route that is new or has changed, "- PREFIX" for one that
// has gone, and "restarted" when the daemon has made its tables anew. Ends when nothing has
// happened for so many seconds; with status 1 when the tables cannot be opened, or something is
// damaged.
#include <chrono>
#include <iostream>
#include <map>
#include <string>

#include "platform/tovan/RouteTableReader.h"

namespace {

using Reader = Tovan::Fib::RouteTableReader;
using Routes = std::map<Zemit::Prefix, Reader::Resolved>;

/// All routes as they are now. Those that are damaged are told of and left out.
Routes readAll(const Reader& reader, bool& isSound) {
  Routes routes;
  const auto keep = [&](const Reader::Resolved& found) { routes.emplace(found.route.key, found); };
  const auto report = [&](const std::string& damage) {
    std::cerr << damage << '\n';
    isSound = false;
  };
  reader.forEach(keep, report);
  return routes;
}

void print(const Reader::Resolved& found) {
  std::cout << "+ " << found.route.key;
  for (const auto& via : found.fec) std::cout << ' ' << via.intf;
  std::cout << '\n';
}

void printDifference(const Routes& before, const Routes& after) {
  for (const auto& [prefix, found] : before) {
    if (!after.contains(prefix)) std::cout << "- " << prefix << '\n';
  }
  for (const auto& [prefix, found] : after) {
    const auto former = before.find(prefix);
    const bool isSame = former != before.end() && former->second.route == found.route &&
                        former->second.fec == found.fec;
    if (!isSame) print(found);
  }
  std::cout.flush();
}

int follow(const std::string& tables, const std::string& vrf, std::chrono::seconds patience) {
  Reader reader(tables, vrf);
  bool isSound = true;
  Routes known;
  for (;;) {
    Routes now = readAll(reader, isSound);
    printDifference(known, now);
    known = std::move(now);
    const auto news = reader.wait(patience);
    if (news == Tovan::TableNews::None) return isSound ? 0 : 1;
    if (news == Tovan::TableNews::Reopened) std::cout << "restarted" << std::endl;
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: reader TABLES VRF SECONDS\n";
    return 2;
  }
  try {
    return follow(argv[1], argv[2], std::chrono::seconds(std::stoi(argv[3])));
  } catch (const std::exception& error) {
    std::cerr << error.what() << '\n';
    return 1;
  }
}
