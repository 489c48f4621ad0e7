#include "platform/kiv/runtime/Trace.h"

#include <iostream>
#include <mutex>
#include <sstream>
#include <utility>

#include "platform/kiv/containers/Exception.h"

namespace Kiv {

namespace {

TraceFacility* firstFacility = nullptr;
std::mutex switches;
std::atomic<std::ostream*> coverage = nullptr;

Tracer::Sink& currentSink() {
  static Tracer::Sink sink;
  return sink;
}

Tracer::Sink& currentFailureSink() {
  static Tracer::Sink sink;
  return sink;
}

}  // namespace

std::atomic<uint32_t> TraceFacility::building_ = 0;

TraceFacility::TraceFacility(const char* name, const char* sourceModule)
    : name_(name), sourceModule_(sourceModule), next_(std::exchange(firstFacility, this)) {
  refresh();
}

TraceFacility* TraceFacility::find(std::string_view name) noexcept {
  TraceFacility* facility = firstFacility;
  while (facility != nullptr && facility->name_ != name) facility = facility->next_;
  return facility;
}

void TraceFacility::enabledIs(bool enabled) noexcept {
  const std::lock_guard lock(switches);
  enabled_ = enabled;
  refresh();
}

void TraceFacility::levelIs(unsigned level, bool enabled) {
  KIV_REQUIRE(level < kLevels, "TraceLevel::value > 9 not allowed");
  const std::lock_guard lock(switches);
  levels_ = enabled ? levels_ | (1U << level) : levels_ & ~(1U << level);
  refresh();
}

void TraceFacility::refresh() noexcept {
  const uint32_t enabled = enabled_ ? levels_ : 0;
  enabledMask_.store(enabled, std::memory_order_relaxed);
  uint32_t own = 0;
  for (unsigned level = 0; level < kLevels; ++level) own |= uint32_t{owners_[level] != 0} << level;
  ownMask_.store(enabled_ ? own : 0, std::memory_order_relaxed);
  const uint32_t builds = coverage == nullptr ? enabled : ~uint32_t{0};
  someBuildMask_.store(builds | ownMask_.load(std::memory_order_relaxed),
                       std::memory_order_relaxed);
  const uint32_t built = buildMask_.exchange(builds, std::memory_order_relaxed);
  if ((builds != 0) != (built != 0)) {
    building_.fetch_add(builds != 0 ? 1 : ~uint32_t{0}, std::memory_order_relaxed);
  }
}

void TraceFacility::ownLevelsAre(uint32_t former, uint32_t now) noexcept {
  const std::lock_guard lock(switches);
  for (unsigned level = 0; level < kLevels; ++level) {
    owners_[level] += (now >> level & 1) - (former >> level & 1);
  }
  refresh();
}

uint32_t TraceFacility::levelsBuiltFor(const Entity& object) const noexcept {
  return buildMask_.load(std::memory_order_relaxed) | ownLevels(object.tracedLevels());
}

uint32_t TraceFacility::levelsBuiltFor(const Notifiee& object) const noexcept {
  return buildMask_.load(std::memory_order_relaxed) | ownLevels(object.tracedLevels());
}

void Tracer::sinkIs(Sink sink) {
  currentSink() = std::move(sink);
}

void Tracer::failureSinkIs(Sink sink) {
  currentFailureSink() = std::move(sink);
}

void Tracer::failed(const TraceFacility& facility, const Entity& object, std::string_view function,
                    std::string_view message) {
  const auto& sink = currentFailureSink();
  if (!sink) return;
  const Name name = object.name();
  sink({.facility = facility.name(),
        .level = 0,
        .objectName = name,
        .functionName = function,
        .message = message,
        .sourceModule = facility.sourceModule(),
        .line = 0});
}

void Tracer::coverageIs(std::ostream* stream) noexcept {
  const std::lock_guard lock(switches);
  coverage = stream;
  for (auto* facility = firstFacility; facility != nullptr; facility = facility->next_) {
    facility->refresh();
  }
}

Name Tracer::objectName(const Notifiee& reactor) {
  const Entity* notifier = reactor.notifierEntity();
  return notifier == nullptr ? Name() : notifier->name();
}

std::ostream& operator<<(std::ostream& os, const TraceRecord& record) {
  return os << record.facility << ' ' << record.level << ' ' << record.objectName << ' '
            << record.functionName << ": " << record.message;
}

struct TraceStatement::State {
  const TraceFacility& facility;
  unsigned level;
  int line;
  const char* function;
  std::ostringstream message;

  template <class Traced>
  void trace(const Traced& object) const {
    const uint32_t enabled = facility.enabledMask_.load(std::memory_order_relaxed) |
                             facility.ownLevels(object.tracedLevels());
    traceHelper(facility, Tracer::objectName(object), message.str(), level,
                (enabled >> level & 1) != 0, facility.sourceModule(), line, function);
  }
};

TraceStatement::TraceStatement(const TraceFacility& facility, unsigned level, int line,
                               const char* function)
    : state_(new State{facility, level, line, function, {}}) {}

TraceStatement::~TraceStatement() = default;

std::ostream& TraceStatement::stream() noexcept {
  return state_->message;
}

void TraceStatement::trace(const Entity& object) const {
  state_->trace(object);
}

void TraceStatement::trace(const Notifiee& object) const {
  state_->trace(object);
}

void traceHelper(const TraceFacility& handle, const Name& objectName, const std::string& message,
                 unsigned level, bool enabled, const char* sourceModule, int line,
                 const char* functionName) {
  if (std::ostream* stream = coverage) {
    *stream << sourceModule << ':' << line << ' ' << functionName << ' ' << level << ": " << message
            << '\n';
  }
  if (!enabled) return;
  const TraceRecord record{.facility = handle.name(),
                           .level = level,
                           .objectName = objectName,
                           .functionName = functionName,
                           .message = message,
                           .sourceModule = sourceModule,
                           .line = line};
  if (const auto& sink = currentSink()) {
    sink(record);
  } else {
    std::cerr << record << '\n';
  }
}

}  // namespace Kiv
