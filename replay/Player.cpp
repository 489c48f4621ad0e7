// Applies the recorded inputs of a switch to its state machines.
#include "replay/Player.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

#include "platform/tovan/Reports.h"
#include "replay/Event.h"
#include "replay/Printable.h"
#include "replay/Time.h"

namespace Replay {
namespace {

using Daemon::Switch;

/// An operation: its name, its fields and its function.
///
/// The function reads all fields before it changes anything, so a bad field changes nothing.
struct Op {
  std::string_view name;
  std::array<std::string_view, 8> fields;
  void (*apply)(const Event& event, Switch& sw);
};

void applyIntf(const Event& event, Switch& sw) {
  const auto intf = event.intf("name");
  const auto vrf = event.vrf();
  if (event.present()) {
    sw.setInterface(intf, vrf);
  } else {
    sw.vrf(vrf);
    sw.removeInterface(intf);
  }
}

void applyAddr(const Event& event, Switch& sw) {
  const auto intf = event.intf();
  const bool present = event.present();
  event.withFamilyOf("addr", [&](auto family) {
    using F = decltype(family);
    const auto addr =
        event.value<typename F::AddrWithMask>("addr", "an interface address with its length");
    if constexpr (std::is_same_v<F, Daemon::Ipv4>) {
      sw.setAddress(intf, addr, event.flag("secondary", false), present);
    } else {
      if (event.has("secondary")) throw EventError("\"secondary\" is for IPv4 addresses only");
      sw.setAddress(intf, addr, present);
    }
  });
}

void applyNeighbor(const Event& event, Switch& sw) {
  const auto intf = event.intf();
  const auto mac = event.has("mac") ? event.value<Zemit::EthAddr>("mac", "an Ethernet address")
                                    : Zemit::EthAddr();
  event.withFamilyOf("ip", [&](auto family) {
    const auto ip = event.value<typename decltype(family)::Addr>("ip", "an address");
    sw.setNeighbor(intf, typename decltype(family)::Neighbor{.ipAddr = ip, .mac = mac},
                   event.present());
  });
}

void applyNeighborTable(const Event& event, Switch& sw) {
  sw.setNeighborTable(event.intf(), event.present());
}

void applyFec(const Event& event, Switch& sw) {
  if (event.family() == 4) {
    sw.setFec(event.fec<Daemon::Ipv4>(), event.present());
  } else {
    sw.setFec(event.fec<Daemon::Ipv6>(), event.present());
  }
}

void applyRoute(const Event& event, Switch& sw) {
  constexpr auto kMaxMetric = std::numeric_limits<Routing::RouteMetric>::max();
  constexpr auto kMaxPreference = std::numeric_limits<Routing::RoutePreference>::max();
  const auto metric = event.number("metric", 0, kMaxMetric, 0);
  const auto preference = event.number("preference", 0, kMaxPreference, 1);
  event.withFamilyOf("prefix", [&](auto family) {
    using F = decltype(family);
    const typename F::Route route{
        .key = event.prefix<typename F::Prefix>("prefix"),
        .metricPref = {.metric = static_cast<Routing::RouteMetric>(metric),
                       .preference = static_cast<Routing::RoutePreference>(preference)},
        .routeType = event.routeType<typename F::RouteType>("type", F::kConnected),
        .fecId = event.number("fec", 0, Event::kMaxFecId, 0)};
    sw.setRoute(event.vrf(), route, event.present());
  });
}

void applyVirtualIp(const Event& event, Switch& sw) {
  const L3::VrfName vrf{Kiv::String(event.vrf())};
  event.withFamilyOf("addr", [&](auto family) {
    if constexpr (std::is_same_v<decltype(family), Daemon::Ipv4>) {
      const auto addr =
          event.value<Zemit::IpAddrWithMask>("addr", "an IPv4 address with its length");
      sw.setVirtualIp(Routing::Fhrp::VrfIpWithMaskPair(vrf, addr), event.present());
    } else {
      const auto addr = event.value<Zemit::Ip6Addr>("addr", "an IPv6 address");
      sw.setVirtualIp(Routing::Fhrp::VrfIpPair(vrf, addr), event.present());
    }
  });
}

/// Calls `visit` with the family of the event, or with both when it names none.
template <class Visit>
void forEachNamedFamily(const Event& event, Visit visit) {
  Daemon::forEachFamily([&](auto family) {
    if (event.concerns(family.kNumber)) visit(family);
  });
}

void applyInitialized(const Event& event, Switch& sw) {
  const auto vrf = event.vrf();
  const bool value = event.flag("value");
  // The failure of one family's machine must not keep the event from the other's.
  std::exception_ptr failure;
  forEachNamedFamily(event, [&](auto family) {
    try {
      sw.setInitialized<decltype(family)>(vrf, value);
    } catch (const std::exception&) {
      if (!failure) failure = std::current_exception();
    }
  });
  if (failure) std::rethrow_exception(failure);
}

void applyRibReady(const Event& event, Switch& sw) {
  sw.setRibReady(event.vrf(), event.flag("value"));
}

void applyStartRibReadyVerification(const Event& event, Switch& sw) {
  sw.setStartRibReadyVerification(event.vrf(), event.flag("value"));
}

void applyNotifyFecs(const Event& event, Switch& sw) {
  forEachNamedFamily(event, [&](auto family) { sw.notifyFecs<decltype(family)>(); });
}

void applyTeardown(const Event& event, Switch& sw) {
  const auto vrf = event.vrf();
  forEachNamedFamily(event, [&](auto family) { sw.teardown<decltype(family)>(vrf); });
}

constexpr Op kOps[] = {
    {"vrf",
     {"name"},
     [](const Event& event, Switch& sw) {
       event.string("name");
       sw.vrf(event.vrf("name"));
     }},
    {"intf", {"name", "vrf", "present"}, applyIntf},
    {"addr", {"intf", "addr", "secondary", "present"}, applyAddr},
    {"neighbor", {"intf", "ip", "mac", "present"}, applyNeighbor},
    {"neighborTable", {"intf", "present"}, applyNeighborTable},
    {"fec", {"id", "family", "vias", "present"}, applyFec},
    {"route", {"vrf", "prefix", "type", "fec", "metric", "preference", "present"}, applyRoute},
    {"virtualIp", {"vrf", "addr", "present"}, applyVirtualIp},
    {"initialized", {"vrf", "family", "value"}, applyInitialized},
    {"ribReady", {"vrf", "value"}, applyRibReady},
    {"startRibReadyVerification", {"vrf", "value"}, applyStartRibReadyVerification},
    {"notifyFecs", {"family"}, applyNotifyFecs},
    {"teardown", {"vrf", "family"}, applyTeardown},
};

constexpr std::string_view kDumpFields[] = {"vrf", "family"};
constexpr std::string_view kTimeFields[] = {"at"};

/// Enables exactly these levels of both families' trace facilities.
void enableTraces(uint32_t levels) {
  Daemon::forEachFamily([levels](auto family) {
    for (unsigned level = 0; level < Kiv::TraceFacility::kLevels; ++level) {
      family.trace().levelIs(level, (levels >> level & 1) != 0);
    }
  });
  Tovan::tableTrace().levelIs(0, (levels & 1) != 0);
}

}  // namespace

Tracing::Tracing(Output& output, uint32_t levels) : output_(output) {
  Kiv::Tracer::sinkIs([this](const Kiv::TraceRecord& record) { trace(record); });
  enableTraces(levels);
}

Tracing::~Tracing() {
  enableTraces(0);
  Kiv::Tracer::sinkIs({});
}

/// Prints a record. Replaces an object's memory address at its start by a number, so that two runs
/// print the same text.
void Tracing::trace(const Kiv::TraceRecord& record) {
  constexpr std::string_view kStart = "0x";
  const std::string_view message = record.message;
  const size_t end = message.starts_with(kStart)
                         ? message.find_first_not_of("0123456789abcdef", kStart.size())
                         : message.npos;
  if (end == message.npos || !message.substr(end).starts_with("::")) return output_.trace(record);
  const auto known = objectNumbers_.find(message.substr(0, end));
  const size_t number =
      known != objectNumbers_.end()
          ? known->second
          : objectNumbers_.emplace(message.substr(0, end), objectNumbers_.size() + 1).first->second;
  const std::string numbered =
      "object " + std::to_string(number) + std::string(message.substr(end));
  Kiv::TraceRecord shown = record;
  shown.message = numbered;
  output_.trace(shown);
}

Player::Player(Daemon::Switch& sw, Output& output, const Options& options)
    : sw_(sw), output_(output), options_(options) {
  Kiv::Tracer::failureSinkIs([this](const Kiv::TraceRecord& record) {
    if (failures_++ != 0) return;
    firstFailure_ = std::string("VRF ").append(record.objectName).append(": ");
    firstFailure_ += record.message;
  });
}

Player::~Player() {
  Kiv::Tracer::failureSinkIs({});
}

std::string Player::takeFailures() {
  const size_t more = std::exchange(failures_, 0);
  std::string text = std::exchange(firstFailure_, {});
  if (more > 1) text += " (and " + std::to_string(more - 1) + " more)";
  return text;
}

void Player::apply(std::string_view line) {
  const Event event = Event::parse(line);
  if (event.op() == "dump") return dump(event);
  if (event.op() == "time") return time(event);
  const auto* op = std::find_if(std::begin(kOps), std::end(kOps),
                                [&](const Op& known) { return known.name == event.op(); });
  if (op == std::end(kOps)) event.refuse("op", "an operation");
  event.refuseOthersThan(op->fields);
  op->apply(event, sw_);
}

void Player::dump(const Event& event) {
  event.refuseOthersThan(kDumpFields);
  DumpSelection selection{.vrfs = {}, .ipv4 = event.concerns(4), .ipv6 = event.concerns(6)};
  if (event.has("vrf")) {
    selection.vrfs.push_back(&sw_.vrf(event.vrf()));
  } else {
    for (const auto& [name, vrf] : sw_.vrfs()) selection.vrfs.push_back(&vrf);
  }
  output_.dump(sw_, selection);
}

/// The machines know no time.
void Player::time(const Event& event) {
  event.refuseOthersThan(kTimeFields);
  const auto at = parseTime(event.string("at"));
  if (!at) event.refuse("at", "a time, such as \"2026-05-04T10:00:00.5Z\"");
  output_.time(*at);
}

void Player::dumpAll() {
  DumpSelection selection;
  for (const auto& [name, vrf] : sw_.vrfs()) selection.vrfs.push_back(&vrf);
  output_.dump(sw_, selection);
}

bool readLine(std::istream& in, std::string& line) {
  line.clear();
  std::array<char, 4096> piece;
  for (;;) {
    in.getline(piece.data(), piece.size());
    const auto taken = static_cast<size_t>(in.gcount());
    if (in.good()) {
      line.append(piece.data(), taken - 1);  // without the line feed
      return true;
    }
    line.append(piece.data(), taken);
    if (in.bad() || in.eof()) return !in.bad() && !line.empty();
    // The buffer is full. The line continues, or its line feed is the next byte.
    if (line.size() > Player::kMaxLineBytes) return true;
    in.clear();
  }
}

Player::Outcome Player::run(std::istream& in, const std::string& name, std::ostream& out,
                            std::ostream& errors, const std::function<void(size_t)>& progress) {
  constexpr size_t kProgressLines = 1 << 14;
  constexpr size_t kReportedFailures = 10;
  Outcome outcome = Outcome::Done;
  size_t number = 0;
  size_t failures = 0;
  size_t lastFailure = 0;
  const auto report = [&](const std::string& what) {
    out.flush();
    errors << printable(name) << ':' << number << ": error: " << printable(what) << std::endl;
  };
  const auto failed = [&](const std::string& what) {
    outcome = Outcome::Failed;
    lastFailure = number;
    if (++failures <= kReportedFailures) report(what);
  };
  const auto ended = [&] {
    sw_.setLoading(false);
    if (progress) progress(0);
    out.flush();
    if (failures > kReportedFailures) {
      errors << printable(name) << ": error: a machine failed on " << failures - kReportedFailures
             << " more lines, the last is " << lastFailure << std::endl;
    }
  };
  sw_.setLoading(true);
  for (std::string line;;) {
    if (in.rdbuf()->in_avail() <= 0) {
      sw_.setLoading(false);
      out.flush();
    }
    if (!out) {
      ended();
      return outcome;
    }
    if (number != 0 && number == options_.lastLine) break;
    if (!readLine(in, line)) break;
    ++number;
    if (line.size() > kMaxLineBytes) {
      ended();
      report("the line is longer than " + std::to_string(kMaxLineBytes >> 20) + " MiB");
      return Outcome::Refused;
    }
    if (progress && number % kProgressLines == 0) progress(number);
    const auto start = line.find_first_not_of(" \t\r");
    if (start == line.npos || line[start] == '#') continue;
    if (options_.echoes) output_.event(number, line);
    try {
      apply(line);
    } catch (const EventError& error) {
      ended();
      report(error.what());
      return Outcome::Refused;
    } catch (const std::bad_alloc&) {
      failed("out of memory");
    } catch (const Pindo::Exception& error) {
      // Like the daemon, keeps the changes made so far and continues with the next event.
      failed(error.what());
    }
    if (failures_ != 0) failed(takeFailures());
  }
  ended();
  if (in.bad()) {
    report("the rest of the input cannot be read");
    return Outcome::Refused;
  }
  if (options_.dumpsAtEnd) dumpAll();
  out.flush();
  return outcome;
}

std::optional<uint32_t> parseTraceLevels(std::string_view text) {
  constexpr uint32_t kAll = (uint32_t{1} << Kiv::TraceFacility::kLevels) - 1;
  if (text == "all") return kAll;
  uint32_t levels = 0;
  for (;;) {
    if (text.empty() || text[0] < '0' || text[0] > '9') return std::nullopt;
    levels |= uint32_t{1} << (text[0] - '0');
    if (text.size() == 1) return levels;
    if (text[1] != ',') return std::nullopt;
    text.remove_prefix(2);
  }
}

}  // namespace Replay
