// A router without a kernel, with its control protocol.
#pragma once

#include <linux/if_link.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "hostrouted/Control.h"
#include "tests/linux/Samples.h"

namespace Hostrouted {

/// Accepts every request except those for one prefix.
class ObedientKernel final : public Linux::RouteChannel {
 public:
  void perform(std::span<const Linux::RouteRequest> requests, std::span<int> results) override {
    for (size_t i = 0; i < requests.size(); ++i) {
      results[i] = Linux::toString(requests[i].key.prefix) == refused ? ENETDOWN : 0;
      told.push_back(toString(requests[i]));
    }
  }
  std::string refused;
  std::vector<std::string> told;
};

class ForgetfulLog final : public Linux::AdvertisedLog {
 public:
  void add(const Linux::RouteKey&, uint32_t) override {}
  void remove(const Linux::RouteKey&) override {}
};

/// A router with the ports p1 (1) with 10.0.1.1/24, p2 (2) with 10.0.2.1/24, and m1 (3) with
/// 10.0.3.1/24. Only ports with names that begin with p are selected.
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
             .report =
                 [this](int, std::string_view, const std::string& message,
                        const std::vector<LogField>& fields) {
                   reports.emplace_back(message, fields);
                 },
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
    Linux::LinkIndex index = 0;
    for (const char* name : {"p1", "p2", "m1"}) {
      ++index;
      tellPort(Linux::linkOf(index, name), "10.0." + std::to_string(index) + ".");
    }
    router.endDump();
  }

  /// Feeds an interface with the address .1 of a subnet, and the subnet's route.
  void tellPort(const Linux::Link& link, const std::string& subnet,
                Linux::TableId table = RT_TABLE_MAIN) {
    tell(link);
    Linux::InterfaceAddress address;
    address.link = link.index;
    address.addr = Linux::addrOf(subnet + "1");
    address.len = 24;
    tell(address);
    tell(Linux::route(subnet + "0/24", {Linux::hop(link.index)}, RTPROT_KERNEL, table));
  }

  void tell(Linux::Object object, bool present = true) {
    router.apply({.object = std::move(object), .present = present});
  }
  void learn(const std::string& addr, Linux::LinkIndex link, bool present = true) {
    tell(Linux::neighbor(link, addr), present);
    router.endTurn();
  }

  std::vector<std::pair<std::string, std::vector<LogField>>> reports;
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
