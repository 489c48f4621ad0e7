// The control protocol: handles the requests of the control socket.
#include "hostrouted/Control.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <optional>
#include <set>
#include <span>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "hostrouted/Listings.h"
#include "hostrouted/Metrics.h"
#include "platform/kiv/containers/Exception.h"
#include "platform/kiv/runtime/Trace.h"
#include "replay/ExplanationJson.h"
#include "replay/HistoryJson.h"
#include "replay/Json.h"
#include "replay/Player.h"
#include "replay/Printable.h"
#include "replay/Time.h"

namespace Hostrouted {
namespace {

using Json = nlohmann::ordered_json;

/// The reason why a request fails.
class RequestError : public std::runtime_error {
 public:
  using runtime_error::runtime_error;
};

/// A value of the request is wrong.
class Malformed : public RequestError {
 public:
  using RequestError::RequestError;
};

/// The first line of a successful reply, with further members.
std::string success(const Json& members = Json::object()) {
  Json reply{{"version", kControlVersion}, {"ok", true}};
  reply.update(members);
  return toLine(reply);
}

/// The fields of a request. An accessor throws RequestError when the field has a wrong type.
class Request {
 public:
  static Request parse(std::string_view line) {
    if (Replay::nestsTooDeep(line)) throw RequestError("the request is nested too deep");
    auto object = Json::parse(line, nullptr, false);
    if (object.is_discarded()) throw RequestError("the request is not JSON");
    if (!object.is_object()) throw RequestError("the request is not a JSON object");
    Request request(std::move(object));
    request.checkVersion();
    return request;
  }

  std::string name() const { return text("request").value_or(""); }
  void refuseOthersThan(std::span<const std::string_view> fields) const {
    for (const auto& [name, value] : object_.items()) {
      if (name == "version" || name == "request") continue;
      if (std::ranges::find(fields, name) == fields.end()) {
        throw RequestError("there is no field " + Replay::jsonString(name) + " in this request");
      }
    }
  }
  std::optional<std::string> text(const char* field) const {
    const auto found = object_.find(field);
    if (found == object_.end()) return std::nullopt;
    if (!found->is_string()) refuse(field, "a text");
    return found->get<std::string>();
  }
  std::string requiredText(const char* field) const {
    auto value = text(field);
    if (!value) throw Malformed("\"" + std::string(field) + "\" is missing");
    return *std::move(value);
  }
  std::optional<uint64_t> number(const char* field, uint64_t min, uint64_t max) const {
    const auto found = object_.find(field);
    if (found == object_.end()) return std::nullopt;
    if (!found->is_number_unsigned() || found->get<uint64_t>() < min ||
        found->get<uint64_t>() > max) {
      refuse(field, "a whole number from " + std::to_string(min) + " to " + std::to_string(max));
    }
    return found->get<uint64_t>();
  }
  [[noreturn]] static void refuse(const char* field, const std::string& expected) {
    throw Malformed("\"" + std::string(field) + "\" is not " + expected);
  }

 private:
  explicit Request(Json object) : object_(std::move(object)) {}

  void checkVersion() const {
    const auto found = object_.find("version");
    if (found == object_.end()) throw RequestError("\"version\" is missing");
    if (*found != kControlVersion) {
      throw RequestError("this daemon speaks version " + std::to_string(kControlVersion) +
                         " of the protocol");
    }
  }

  Json object_;
};

std::optional<Linux::Prefix> parseTarget(const std::string& text) {
  if (const auto addr = Zemit::IpAddr::parse(text)) return Linux::hostPrefix(*addr);
  if (const auto addr = Zemit::Ip6Addr::parse(text)) return Linux::hostPrefix(*addr);
  const auto prefix = Zemit::Prefix::parse(text);
  if (prefix && !isNull(*prefix)) return *prefix;
  const auto prefix6 = Zemit::Ip6Prefix::parse(text);
  if (prefix6 && !isNull(*prefix6)) return *prefix6;
  return std::nullopt;
}

}  // namespace

void Feedline::add(std::string_view line) {
  if (waiting_.size() + line.size() > kMostWaiting) {
    ++lost_;
    return;
  }
  if (lost_ != 0) waiting_ += toLine({{"lost", std::exchange(lost_, 0)}});
  waiting_.append(line).append("\n");
}

void Feedline::take(std::string& out) {
  out += std::exchange(waiting_, {});
  if (lost_ != 0) out += toLine({{"lost", std::exchange(lost_, 0)}});
}

std::string Control::refusal(std::string_view why, bool isMalformed) {
  Json reply{{"version", kControlVersion}, {"ok", false}, {"error", why}};
  if (isMalformed) reply["malformed"] = true;
  return toLine(reply);
}

class Control::Work {
 public:
  explicit Work(Services services) : services_(std::move(services)) {}
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;
  ~Work() = default;

  Reply handle(std::string_view line, const Peer& peer);

 private:
  class Monitor;
  class Trace;

  /// A kind of request: its fields, whether it changes something, and its handler.
  struct Kind {
    std::string_view name;
    std::array<std::string_view, 6> fields;
    bool changes;
    Reply (Work::*answer)(const Request& request, const Peer& peer);
  };
  static std::span<const Kind> kinds();

  Reply status(const Request&, const Peer&) {
    return {success({{"status", Hostrouted::status(router(), services_.process())}}), {}, {}};
  }
  Reply counters(const Request&, const Peer&) {
    return {success({{"metrics", metrics(router())}}), {}, {}};
  }
  Reply routes(const Request& request, const Peer&);
  Reply neighbors(const Request& request, const Peer&);
  Reply names(const Request& request, const Peer&);
  Reply dump(const Request& request, const Peer&);
  Reply explain(const Request& request, const Peer&);
  Reply history(const Request& request, const Peer&);
  Reply monitor(const Request& request, const Peer&);
  Reply logLevel(const Request& request, const Peer& peer);
  Reply trace(const Request& request, const Peer&);
  Reply resync(const Request&, const Peer&);
  Reply reload(const Request&, const Peer&);
  Reply record(const Request& request, const Peer& peer);

  ListingFilter filterOf(const Request& request) const;
  std::string vrfOf(const Request& request) const;
  Reply listing(std::function<void(std::ostream&)> bulk) {
    return {success(), std::move(bulk), {}};
  }
  Json kernelJson(const std::string& vrf, const std::string& address) const;
  void tellMonitors(const Daemon::HistoryEntry& entry);
  void watchHistory();
  const Router& router() const { return services_.router; }

  Services services_;
  std::set<Monitor*> monitors_;
  Trace* trace_ = nullptr;
};

/// The changes of host routes at or inside a prefix.
class Control::Work::Monitor final : public Feedline {
 public:
  Monitor(Work& work, std::optional<std::string> vrf, std::optional<Daemon::PrefixFilter> prefixes)
      : work_(work), vrf_(std::move(vrf)), prefixes_(prefixes) {
    work_.monitors_.insert(this);
    work_.watchHistory();
  }
  Monitor(const Monitor&) = delete;
  Monitor& operator=(const Monitor&) = delete;
  ~Monitor() override {
    work_.monitors_.erase(this);
    work_.watchHistory();
  }

  bool wants(const Daemon::HistoryEntry& entry) const {
    return (!vrf_ || *vrf_ == entry.vrf) && (!prefixes_ || prefixes_->contains(entry));
  }
  bool hasEnded(double) const override { return false; }

 private:
  Work& work_;
  const std::optional<std::string> vrf_;
  const std::optional<Daemon::PrefixFilter> prefixes_;
};

/// The trace records of a VRF's machines about one address. The destructor disables the trace
/// levels again, also when the client disconnects.
class Control::Work::Trace final : public Feedline {
 public:
  Trace(Work& work, std::string vrf, const std::string& address, uint32_t levels, double end)
      : work_(work), vrf_(std::move(vrf)), end_(end) {
    auto& sw = work_.services_.router.watchedSwitch();
    sw.traceAddressIs(vrf_, address);
    sw.traceLevelIs(vrf_, levels);
    Kiv::Tracer::sinkIs([this](const Kiv::TraceRecord& record) {
      using namespace std::chrono;
      const auto now = system_clock::now().time_since_epoch();
      add(Json{{"trace",
                {{"time", Replay::timeText(duration_cast<microseconds>(now))},
                 {"facility", record.facility},
                 {"level", record.level},
                 {"object", record.objectName},
                 {"function", record.functionName},
                 {"message", record.message}}}}
              .dump(-1, ' ', false, Json::error_handler_t::replace));
    });
    work_.trace_ = this;
  }
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;
  ~Trace() override {
    auto& sw = work_.services_.router.watchedSwitch();
    sw.traceLevelIs(vrf_, 0);
    sw.traceAddressIs(vrf_, "");
    Kiv::Tracer::sinkIs({});
    work_.trace_ = nullptr;
  }
  bool hasEnded(double now) const override { return now >= end_; }

 private:
  Work& work_;
  const std::string vrf_;
  const double end_;
};

std::span<const Control::Work::Kind> Control::Work::kinds() {
  static constexpr Kind kKinds[] = {
      {"status", {}, false, &Work::status},
      {"counters", {}, false, &Work::counters},
      {"routes", {"vrf", "family", "prefix", "type", "intf"}, false, &Work::routes},
      {"neighbors", {"vrf", "family", "prefix", "intf"}, false, &Work::neighbors},
      {"names", {"kind", "begin"}, false, &Work::names},
      {"dump", {"vrf", "family", "format"}, false, &Work::dump},
      {"explain", {"vrf", "address"}, false, &Work::explain},
      {"history", {"vrf", "prefix"}, false, &Work::history},
      {"monitor", {"vrf", "prefix"}, false, &Work::monitor},
      // It changes something only with a level. The handler checks the right to do so.
      {"log-level", {"level"}, false, &Work::logLevel},
      {"trace", {"vrf", "address", "levels", "seconds"}, true, &Work::trace},
      {"resync", {}, true, &Work::resync},
      {"reload", {}, true, &Work::reload},
      {"record", {"action", "file", "size", "files"}, true, &Work::record},
  };
  return kKinds;
}

Reply Control::Work::handle(std::string_view line, const Peer& peer) {
  try {
    if (line.size() > kMaxRequestBytes) throw RequestError("the request is too long");
    const auto request = Request::parse(line);
    const auto name = request.name();
    const auto kind = std::ranges::find(kinds(), name, &Kind::name);
    if (kind == kinds().end()) {
      throw RequestError("there is no request " + Replay::jsonString(name));
    }
    std::vector<std::string_view> fields(kind->fields.begin(), kind->fields.end());
    std::erase(fields, std::string_view());
    request.refuseOthersThan(fields);
    if (kind->changes && !peer.mayChange) {
      throw RequestError("only root, the daemon's user and the admin group may ask for " + name);
    }
    return (this->*kind->answer)(request, peer);
  } catch (const Malformed& error) {
    return {refusal(error.what(), true), {}, {}};
  } catch (const Kiv::RangeException& error) {
    return {refusal(error.what(), true), {}, {}};
  } catch (const std::exception& error) {
    return {refusal(error.what()), {}, {}};
  }
}

std::string Control::Work::vrfOf(const Request& request) const {
  auto vrf = request.text("vrf").value_or(Daemon::Switch::kDefaultVrf);
  if (!router().sw().vrfs().contains(vrf)) {
    throw Malformed("there is no VRF " + Replay::jsonString(vrf));
  }
  return vrf;
}

ListingFilter Control::Work::filterOf(const Request& request) const {
  ListingFilter filter;
  if (request.text("vrf")) filter.vrf = vrfOf(request);
  if (const auto family = request.number("family", 4, 6)) {
    if (*family == 5) Request::refuse("family", "4 or 6");
    filter.family = static_cast<int>(*family);
  }
  if (const auto prefix = request.text("prefix")) {
    filter.covering = parseTarget(*prefix);
    if (!filter.covering) Request::refuse("prefix", "an address or a prefix");
  }
  filter.type = request.text("type");
  filter.intf = request.text("intf");
  return filter;
}

Reply Control::Work::routes(const Request& request, const Peer&) {
  return listing(
      [this, filter = filterOf(request)](std::ostream& out) { listRoutes(router(), filter, out); });
}

Reply Control::Work::neighbors(const Request& request, const Peer&) {
  return listing([this, filter = filterOf(request)](std::ostream& out) {
    listNeighbors(router(), filter, out);
  });
}

Reply Control::Work::names(const Request& request, const Peer&) {
  constexpr std::pair<std::string_view, NameKind> kKinds[] = {{"vrfs", NameKind::Vrfs},
                                                              {"interfaces", NameKind::Interfaces},
                                                              {"prefixes", NameKind::Prefixes}};
  const auto name = request.requiredText("kind");
  const auto* kind = std::ranges::find(kKinds, name, &std::pair<std::string_view, NameKind>::first);
  if (kind == std::end(kKinds)) Request::refuse("kind", "vrfs, interfaces or prefixes");
  return listing([this, what = kind->second, begin = request.text("begin").value_or("")](
                     std::ostream& out) { listNames(router(), what, begin, out); });
}

Reply Control::Work::dump(const Request& request, const Peer&) {
  const auto format = request.text("format").value_or("json");
  if (format != "json" && format != "text") Request::refuse("format", "json or text");
  return listing([this, filter = filterOf(request), isText = format == "text"](std::ostream& out) {
    listDump(router(), filter, isText, out);
  });
}

/// The kernel's neighbour entries for an address, including those that do not reach the engine, and
/// the state of its host route in the kernel.
Json Control::Work::kernelJson(const std::string& vrf, const std::string& address) const {
  const auto prefix = parseTarget(address);
  if (!prefix) return Json::object();
  ListingFilter filter;
  filter.vrf = vrf;
  filter.covering = prefix;
  std::stringstream lines;
  listNeighbors(router(), filter, lines);
  // Entries on interfaces without their own layer 3, such as bridge ports, are in no VRF.
  filter.vrf = "";
  listNeighbors(router(), filter, lines);
  Json kernel{{"neighbors", Json::array()}};
  for (std::string line; std::getline(lines, line);) {
    const auto row = Json::parse(line);
    if (row.contains("neighbor")) kernel["neighbors"].push_back(row.at("neighbor"));
  }
  if (const auto state = kernelState(router(), vrf, *prefix); !state.empty()) {
    kernel["route"] = state;
  }
  return kernel;
}

Reply Control::Work::explain(const Request& request, const Peer&) {
  const auto vrf = vrfOf(request);
  const auto address = request.requiredText("address");
  const auto explanation = Daemon::explain(router().sw(), vrf, address);
  auto text = Daemon::toText(explanation);
  if (router().isIncomplete()) {
    text +=
        "but              a shared table is full or damaged: host routes are missing from it "
        "(hostroute status)\n";
  }
  return {success({{"explanation", Replay::toJson(explanation)},
                   {"text", text},
                   {"complete", !router().isIncomplete()},
                   {"kernel", kernelJson(vrf, address)}}),
          {},
          {}};
}

Reply Control::Work::history(const Request& request, const Peer&) {
  if (router().config().historyEntries == 0) {
    throw RequestError("no history is kept: the configuration has history = 0");
  }
  const auto prefix = request.text("prefix");
  if (prefix && !parseTarget(*prefix)) Request::refuse("prefix", "an address or a prefix");
  const auto filter = filterOf(request);
  return listing([this, filter, prefix](std::ostream& out) {
    std::vector<Daemon::HistoryEntry> entries;
    for (const auto& [vrf, tables] : router().sw().vrfs()) {
      if (!filter.hasVrf(vrf)) continue;
      for (const char* all : {"0.0.0.0/0", "::/0"}) {
        auto found = router().sw().history(vrf, prefix ? prefix->c_str() : all);
        std::ranges::move(found, std::back_inserter(entries));
        if (prefix) break;
      }
    }
    std::ranges::stable_sort(entries, {}, &Daemon::HistoryEntry::time);
    for (const auto& entry : entries) out << toLine({{"change", Replay::toJson(entry)}});
  });
}

Reply Control::Work::monitor(const Request& request, const Peer&) {
  const auto filter = filterOf(request);
  std::optional<Daemon::PrefixFilter> prefixes;
  if (filter.covering) prefixes.emplace(*request.text("prefix"));
  return {success(), {}, std::make_unique<Monitor>(*this, filter.vrf, prefixes)};
}

void Control::Work::watchHistory() {
  auto& sw = services_.router.watchedSwitch();
  if (monitors_.empty()) {
    sw.historyObserverIs({});
  } else if (monitors_.size() == 1) {
    sw.historyObserverIs([this](const Daemon::HistoryEntry& entry) { tellMonitors(entry); });
  }
}

void Control::Work::tellMonitors(const Daemon::HistoryEntry& entry) {
  std::string line;
  for (auto* monitor : monitors_) {
    if (!monitor->wants(entry)) continue;
    if (line.empty()) {
      line = toLine({{"change", Replay::toJson(entry)}});
      line.pop_back();
    }
    monitor->add(line);
  }
}

Reply Control::Work::logLevel(const Request& request, const Peer& peer) {
  if (const auto name = request.text("level")) {
    if (!peer.mayChange) {
      throw RequestError("only root, the daemon's user and the admin group may set the log level");
    }
    const auto level = parseLogLevel(*name);
    if (!level) Request::refuse("level", "error, warning, notice, info or debug");
    services_.log.setLevel(*level);
  }
  return {success({{"level", logLevelName(services_.log.level())}}), {}, {}};
}

Reply Control::Work::trace(const Request& request, const Peer&) {
  constexpr uint64_t kLongest = 3600;
  if (trace_ != nullptr) throw RequestError("another trace goes on; there is one at a time");
  const auto vrf = vrfOf(request);
  const auto levels = Replay::parseTraceLevels(request.text("levels").value_or("0,1,2,6,7"));
  if (!levels) Request::refuse("levels", "levels, such as 0,1,2,6,7, or all");
  const auto seconds = request.number("seconds", 1, kLongest);
  const double end = services_.clock() + static_cast<double>(seconds.value_or(kLongest));
  return {success(),
          {},
          std::make_unique<Trace>(*this, vrf, request.requiredText("address"), *levels, end)};
}

Reply Control::Work::resync(const Request&, const Peer&) {
  services_.log.write(LOG_NOTICE, "resync", "asked to read all of the kernel's state again");
  services_.resynchronise();
  return {success(), {}, {}};
}

Reply Control::Work::reload(const Request&, const Peer&) {
  if (const auto why = services_.reload(); !why.empty()) throw RequestError(why);
  return {success(), {}, {}};
}

Reply Control::Work::record(const Request& request, const Peer& peer) {
  auto& recorder = services_.recorder;
  const auto action = request.requiredText("action");
  if (action == "stop") {
    if (!recorder.isOn() && recorder.problem().empty()) {
      throw RequestError("there is no recording");
    }
    recorder.stop();
    if (!recorder.problem().empty()) throw RequestError(recorder.problem());
    return {success({{"file", recorder.path()}}), {}, {}};
  }
  if (action != "start") Request::refuse("action", "start or stop");
  auto file = request.requiredText("file");
  if (Replay::printable(file) != file) {
    Request::refuse("file", "a name without control characters");
  }
  if (file.find('/') == file.npos) {
    if (file.empty() || file.front() == '.') Request::refuse("file", "the name of a file");
    file = services_.recordingDirectory + "/" + file;
  } else if (!peer.isRoot) {
    throw RequestError("only root may choose the directory of a recording");
  }
  auto limits = router().config().recording;
  constexpr uint64_t kMostMebibytes = 1 << 20;
  if (const auto size = request.number("size", 1, kMostMebibytes)) limits.fileBytes = *size << 20;
  if (const auto files = request.number("files", 1, 1000)) {
    limits.files = static_cast<uint32_t>(*files);
  }
  try {
    recorder.start(file, limits, [&router = router()](const Recorder::Output& output) {
      router.feed().snapshot(output);
    });
  } catch (const std::runtime_error& error) {
    throw RequestError(error.what());
  }
  services_.log.write(LOG_NOTICE, "record", "recording to " + file);
  return {success({{"file", file}}), {}, {}};
}

Control::Control(Services services) : work_(std::make_unique<Work>(std::move(services))) {}
Control::~Control() = default;

Reply Control::handle(std::string_view line, const Peer& peer) {
  return work_->handle(line, peer);
}

}  // namespace Hostrouted
