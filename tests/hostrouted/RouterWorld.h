// A router without a kernel, and what its control protocol needs.
#pragma once

#include <linux/if_link.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "hostrouted/Control.h"
#include "tests/linux/Samples.h"

namespace Hostrouted {

/// Takes every request but those for prefixes that it is told to refuse.
class ObedientKernel final : public Linux::RouteChannel {
 public:
  void perform(std::span<const Linux::RouteRequest> requests, std::span<int> results) override {
    for (size_t i = 0; i < requests.size(); ++i) {
      results[i] = Linux::toString(requests[i].key.prefix) == refused ? ENETDOWN : 0;
    }
  }
  std::string refused;
};

class ForgetfulLog final : public Linux::AdvertisedLog {
 public:
  void add(const Linux::RouteKey&, uint32_t) override {}
  void remove(const Linux::RouteKey&) override {}
};

/// A router whose kernel has two ports: p1 (1) with 10.0.1.1/24, p2 (2) with 10.0.2.1/24; only
/// those whose names begin with p are selected, and m1 (3) with 10.0.3.1/24 is not.
struct RouterWorld {
  static Config config() {
    Config config;
    config.feed.interfaces = {"p*"};
    return config;
  }

  explicit RouterWorld(const Config& used = config(), const std::string& directory = "/nowhere")
      : router(
            used,
            {.channel = kernel,
             .log = advertised,
             .clock = [this] { return now; },
             .probe = [](std::span<const Linux::Probe>) {},
             .report = [](int, const std::string&) {},
             .record = [this](const Daemon::Operation& operation) { recorder.write(operation); }}),
        control({.router = router,
                 .log = log,
                 .recorder = recorder,
                 .clock = [this] { return now; },
                 .process =
                     [] {
                       ProcessStatus process;
                       process.version = "1.2";
                       return process;
                     },
                 .resynchronise = [this] { ++resynchronisations; },
                 .reload = [this] { return reloadError; },
                 .recordingDirectory = directory}) {
    router.beginDump();
    int index = 0;
    for (const char* name : {"p1", "p2", "m1"}) {
      Linux::Link link;
      link.index = static_cast<Linux::LinkIndex>(++index);
      link.name = name;
      tell(link);
      const auto subnet = "10.0." + std::to_string(index) + ".";
      Linux::InterfaceAddress address;
      address.link = link.index;
      address.addr = Linux::addrOf(subnet + "1");
      address.len = 24;
      tell(address);
      auto route = Linux::route(subnet + "0/24", {Linux::hop(link.index)}, RTPROT_KERNEL);
      tell(route);
    }
    router.endDump();
  }

  void tell(Linux::Object object, bool present = true) {
    router.apply({.object = std::move(object), .present = present});
  }
  void learn(const std::string& addr, Linux::LinkIndex link, bool present = true) {
    tell(Linux::neighbor(link, addr), present);
    router.endTurn();
  }

  ObedientKernel kernel;
  ForgetfulLog advertised;
  Log log;
  Recorder recorder{log};
  double now = 100;
  Router router;
  int resynchronisations = 0;
  std::string reloadError;
  Control control;
};

}  // namespace Hostrouted
