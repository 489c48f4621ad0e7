// Tracing: the handlers' decisions as text. Each level has a switch.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include "platform/kiv/runtime/Entity.h"

namespace Kiv {

/// The trace statements of one source module, with its switches.
///
/// A statement is written if the facility is enabled and the level is on, either for all objects or
/// for the object that traces; see Entity::tracedLevels(). A disabled statement costs one test. Any
/// thread may change the switches. A facility exists as long as the process.
class TraceFacility {
 public:
  static constexpr unsigned kLevels = 10;

  /// \param name          the facility's name, such as "HostRoute".
  /// \param sourceModule  the module's name in its records, such as "HostRouteSm".
  TraceFacility(const char* name, const char* sourceModule);
  TraceFacility(const TraceFacility&) = delete;
  TraceFacility& operator=(const TraceFacility&) = delete;

  /// The facility of this name, or null.
  static TraceFacility* find(std::string_view name) noexcept;

  const char* name() const noexcept { return name_; }
  const char* sourceModule() const noexcept { return sourceModule_; }

  /// Switches the facility as a whole; its levels keep their own switches. On at the start.
  void enabledIs(bool enabled) noexcept;
  /// Switches one level. All are off at the start.
  /// \throws RangeException when there is no such level.
  void levelIs(unsigned level, bool enabled);
  /// True when a level is on for all objects.
  bool isEnabled(unsigned level) const noexcept {
    return (enabledMask_.load(std::memory_order_relaxed) >> level) & 1;
  }
  /// Informs the facility that the levels of one object were `former` and are `now`, as bits.
  void ownLevelsAre(uint32_t former, uint32_t now) noexcept;

  /// True when a statement of this level may build its message: for some object, or for coverage.
  bool builds(unsigned level) const noexcept {
    return (someBuildMask_.load(std::memory_order_relaxed) >> level) & 1;
  }
  /// True when a statement of this level builds its message for `object`, an entity or a reactor.
  template <class Traced>
  bool builds(unsigned level, const Traced& object) const noexcept {
    return builds(level) && (levelsBuiltFor(object) >> level & 1) != 0;
  }
  /// True when a statement of a level above `level` builds its message for `object`.
  template <class Traced>
  bool buildsAbove(unsigned level, const Traced& object) const noexcept {
    return (someBuildMask_.load(std::memory_order_relaxed) >> level >> 1) != 0 &&
           (levelsBuiltFor(object) >> level >> 1) != 0;
  }
  /// True when any statement of any facility builds its message for all objects.
  static bool anyBuilds() noexcept { return building_.load(std::memory_order_relaxed) != 0; }

 private:
  friend class Tracer;
  friend class TraceStatement;
  void refresh() noexcept;
  uint32_t levelsBuiltFor(const Entity& object) const noexcept;
  uint32_t levelsBuiltFor(const Notifiee& object) const noexcept;
  /// Those of an object's levels that are on.
  uint32_t ownLevels(uint32_t levels) const noexcept {
    return levels & ownMask_.load(std::memory_order_relaxed);
  }

  const char* name_;
  const char* sourceModule_;
  TraceFacility* next_;
  uint32_t levels_ = 0;
  std::array<uint32_t, kLevels> owners_{};  // for each level: the number of objects that have it
  bool enabled_ = true;
  std::atomic<uint32_t> enabledMask_{0};
  std::atomic<uint32_t> ownMask_{0};
  std::atomic<uint32_t> buildMask_{0};
  std::atomic<uint32_t> someBuildMask_{0};
  static std::atomic<uint32_t> building_;  // how many facilities have a level that builds for all
};

/// One enabled statement that was reached.
struct TraceRecord {
  std::string_view facility;
  unsigned level;
  std::string_view objectName;
  std::string_view functionName;
  std::string_view message;
  std::string_view sourceModule;
  int line;
};

/// The sinks of trace records, and the helpers of the trace statement.
class Tracer {
 public:
  using Sink = std::function<void(const TraceRecord&)>;

  /// Sends records to `sink`; an empty one restores the default, a line on standard error.
  static void sinkIs(Sink sink);

  /// Sends a record for each callback that ended with an exception to `sink` as well, at every
  /// trace level. An empty function restores the default, which is no sink. Level 0 does not serve
  /// for this, because it has ordinary messages, too.
  static void failureSinkIs(Sink sink);
  /// Sends a failure of `object` to that sink.
  static void failed(const TraceFacility& facility, const Entity& object, std::string_view function,
                     std::string_view message);

  /// While set, every statement that is reached builds its message and leaves a line on `stream`,
  /// enabled or not. Null switches it off.
  static void coverageIs(std::ostream* stream) noexcept;

  /// The name under which a record knows the object that traces.
  static Name objectName(const Entity& object) { return object.name(); }
  static Name objectName(const Notifiee& reactor);
};

/// A record as one line: facility, level, object, function and message.
std::ostream& operator<<(std::ostream& os, const TraceRecord& record);

/// Sends one statement's message to the sink if it is `enabled`, and to the coverage stream.
void traceHelper(const TraceFacility& handle, const Name& objectName, const std::string& message,
                 unsigned level, bool enabled, const char* sourceModule, int line,
                 const char* functionName);

/// Builds the message of an enabled statement. Its members are not inline, so that a function that
/// traces has a small stack frame and can keep its registers.
class TraceStatement {
 public:
  TraceStatement(const TraceFacility& facility, unsigned level, int line, const char* function);
  TraceStatement(const TraceStatement&) = delete;
  TraceStatement& operator=(const TraceStatement&) = delete;
  ~TraceStatement();

  /// The stream that the message is written to.
  std::ostream& stream() noexcept;
  /// Sends the message as a record of `object`.
  void trace(const Entity& object) const;
  void trace(const Notifiee& object) const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace Kiv

/// Traces `message`, a chain of insertions such as `"removing " << prefix`, for `object` (an entity
/// or a reactor). The chain is not evaluated unless the statement builds.
#define KIV_TRACE(facility, level, object, message) \
  KIV_TRACE_AS(facility, level, object, __func__, message)

/// KIV_TRACE in a helper of a handler. The record names the handler, which is `function`.
#define KIV_TRACE_AS(facility, level, object, function, message)                      \
  do {                                                                                \
    ::Kiv::TraceFacility& kivFacility = (facility);                                   \
    if (kivFacility.builds((level), (object))) [[unlikely]] {                         \
      ::Kiv::TraceStatement kivStatement(kivFacility, (level), __LINE__, (function)); \
      kivStatement.stream() << message;                                               \
      kivStatement.trace(object);                                                     \
    }                                                                                 \
  } while (false)
