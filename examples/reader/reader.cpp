// Prints the IPv4 routes of a VRF in a daemon's shared tables, and then each change:
//
//   reader TABLES VRF SECONDS
//
// A line is "+ PREFIX INTERFACE..." for a new or changed route, "- PREFIX" for a removed one, and
// "restarted" after the daemon created its tables again. Ends after SECONDS without a change. The
// exit status is 1 when the tables cannot be opened or are damaged.
#include <chrono>
#include <iostream>
#include <map>
#include <string>

#include "platform/tovan/RouteTableReader.h"

namespace {

using Reader = Tovan::Fib::RouteTableReader;
using Routes = std::map<Zemit::Prefix, Reader::Resolved>;

/// Reads all routes. Reports damaged routes and leaves them out.
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
