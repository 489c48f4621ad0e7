// Handles any lines as requests to a daemon's control socket. Each request gets a reply that begins
// with a line of JSON.
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>

#include <nlohmann/json.hpp>

#include "tests/hostrouted/RouterWorld.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Hostrouted::RouterWorld world;
  static const bool isSetUp = [] {
    world.learn("10.0.1.5", 1);
    world.learn("10.0.3.5", 3);
    return true;
  }();
  (void)isSetUp;
  std::istringstream in(std::string(data, data + size));
  for (std::string line; std::getline(in, line);) {
    // Not as root, because root's requests may write files in any directory.
    const auto reply = world.control.handle(line, {.isRoot = false, .mayChange = true});
    const auto first = nlohmann::json::parse(reply.text, nullptr, false);
    if (!first.is_object() || !first.contains("ok")) std::abort();
    std::ostringstream out;
    if (reply.bulk) reply.bulk(out);
    std::string more;
    if (reply.feed) reply.feed->take(more);
  }
  return 0;
}
