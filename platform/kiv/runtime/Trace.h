// Tracing: the handlers' decisions in words, switched on level by level.
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
/// A statement is written when the facility is enabled and its level is, for all objects or for the
/// one that traces; see Entity::tracedLevels(). A disabled one costs one test. The switches may be
/// turned by any thread. A facility lives as long as the process.
class TraceFacility {
 public:
  static constexpr unsigned kLevels = 10;

  /// \param name          under which the facility is known, such as "HostRoute".
  /// \param sourceModule  the module that its records name, such as "HostRouteSm".
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
  /// Tells the facility that the levels of one object's own were `former`, and are `now`; a bit for
  /// each.
  void ownLevelsAre(uint32_t former, uint32_t now) noexcept;

  /// True when a statement of this level builds its message for some object: it is enabled, or
  /// coverage is on.
  bool builds(unsigned level) const noexcept {
    return (someBuildMask_.load(std::memory_order_relaxed) >> level) & 1;
  }
  /// True when it does for `object`, an entity or a reactor.
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
  /// The levels of an object's own that are on.
  uint32_t ownLevels(uint32_t levels) const noexcept {
    return levels & ownMask_.load(std::memory_order_relaxed);
  }

  const char* name_;
  const char* sourceModule_;
  TraceFacility* next_;
  uint32_t levels_ = 0;
  std::array<uint32_t, kLevels> owners_{};  // how many objects have each level as their own
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

/// Where trace records go, and the helpers of the trace statement.
class Tracer {
 public:
  using Sink = std::function<void(const TraceRecord&)>;

  /// Sends records to `sink`; an empty one restores the default, a line on standard error.
  static void sinkIs(Sink sink);

  /// Sends a record for each callback that ended with an exception to `sink` as well, at every
  /// trace level. An empty function restores the default, which is no sink. Level 0 does not serve
  /// for this, because it has ordinary messages, too.
  static void failureSinkIs(Sink sink);
  /// Hands a failure of `object` on to that sink.
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

/// Hands one statement's message on: to the sink when `enabled`, and to the coverage stream.
void traceHelper(const TraceFacility& handle, const Name& objectName, const std::string& message,
                 unsigned level, bool enabled, const char* sourceModule, int line,
                 const char* functionName);

/// An enabled statement while it is made. All of it is out of line, so that a function that traces
/// keeps a small frame and its own registers.
class TraceStatement {
 public:
  TraceStatement(const TraceFacility& facility, unsigned level, int line, const char* function);
  TraceStatement(const TraceStatement&) = delete;
  TraceStatement& operator=(const TraceStatement&) = delete;
  ~TraceStatement();

  /// Where the message is built.
  std::ostream& stream() noexcept;
  /// Hands the message on as one of `object`.
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

/// KIV_TRACE in a helper of a handler: the record names the handler, `function`.
#define KIV_TRACE_AS(facility, level, object, function, message)                      \
  do {                                                                                \
    ::Kiv::TraceFacility& kivFacility = (facility);                                   \
    if (kivFacility.builds((level), (object))) [[unlikely]] {                         \
      ::Kiv::TraceStatement kivStatement(kivFacility, (level), __LINE__, (function)); \
      kivStatement.stream() << message;                                               \
      kivStatement.trace(object);                                                     \
    }                                                                                 \
  } while (false)
