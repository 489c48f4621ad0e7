// A program outside this project: makes a root of each family, and is refused something.
#include <iostream>

#include "host/RouteSmRoot.h"
#include "host6/RouteSmRoot.h"
#include "platform/kiv/containers/Exception.h"

int main() {
  const auto root = Routing::Host::routeSmRootFactory("red");
  const auto root6 = Routing6::Host::routeSmRootFactory("red6");
  try {
    root->adjacencyToPrefixIs(nullptr);
  } catch (const Kiv::RangeException&) {
    std::cout << root->name() << ' ' << root6->fullName() << '\n';
    return 0;
  }
  return 1;
}
