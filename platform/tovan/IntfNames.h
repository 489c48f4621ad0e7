// The interfaces that shared tables refer to, by name.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/tovan/TovanMap.h"
#include "platform/zemit/IntfId.h"

namespace Tovan {

/// Numbers of interfaces that have the same meaning in every process that has a table open, and for
/// the next writer. Number 0 is "no interface".
///
/// The writer counts the entries that refer to each number. Names that no entry refers to are
/// removed only when there are many of them, so that an entry that is repeatedly added and removed
/// does not publish a name each time. A number is never assigned to another name, because readers
/// keep the names that they have read.
class IntfNames {
 public:
  static constexpr size_t kMaxBytes = 127;

  explicit IntfNames(const TableConfig& config);

  /// Counts one more entry of the interface, and returns the interface's number. Publishes the name
  /// of a new interface.
  /// \throws Kiv::RangeException when the name is over kMaxBytes; NoSpaceException.
  uint32_t take(Zemit::IntfId intf);
  /// Counts an entry of a former writer. Its number is not assigned to a new interface, even if the
  /// number's name is lost.
  void hold(uint32_t number);
  /// Counts one entry less. Readers must not be able to find the entry any more.
  void drop(uint32_t number);
  /// The interface with this number, or none.
  /// \throws CorruptionDetectedException.
  Zemit::IntfId intfOf(uint32_t number) const {
    if (number == 0) return {};
    const Known* known = find(number);
    return known != nullptr ? known->intf : fetch(number);
  }
  /// The number of names, including those that no entry refers to any more.
  size_t size() const { return names_.size(); }

  /// See Table.
  bool isCurrent() const { return names_.isCurrent(); }
  void cleanup() { names_.cleanup(); }
  /// As TovanMap::tend(). Lost names are published again.
  void tend(TendRound& round) {
    names_.tend(round);
    mend();
  }

 private:
  struct Text {
    std::array<char, kMaxBytes + 1> bytes;  // ends with a zero byte
  };
  struct Known {
    Zemit::IntfId intf;  // none if it is unknown
    uint32_t uses = 0;   // entries that refer to it; counted by the writer only
  };
  static constexpr uint32_t kChunk = 256;
  using Chunk = std::array<Known, kChunk>;
  static constexpr size_t kMostUnused = 64;

  static Text textOf(std::string_view name);
  void mend();
  void removeUnused();
  Zemit::IntfId fetch(uint32_t number) const;
  static Zemit::IntfId read(const Text& text);
  Known& learn(uint32_t number, Zemit::IntfId intf) const;
  void numberIs(Zemit::IntfId intf, uint32_t number);
  /// The data of a number, or null if it is unknown.
  Known* find(uint32_t number) const {
    const size_t chunk = number / kChunk;
    if (chunk >= chunks_.size() || chunks_[chunk] == nullptr) return nullptr;
    Known& known = (*chunks_[chunk])[number % kChunk];
    return known.intf == Zemit::IntfId() ? nullptr : &known;
  }
  /// Calls `visit` with each known number and its data.
  template <class Visit>
  void forEachKnown(Visit visit) const {
    for (size_t chunk = 0; chunk < chunks_.size(); ++chunk) {
      if (chunks_[chunk] == nullptr) continue;
      for (uint32_t at = 0; at < kChunk; ++at) {
        Known& known = (*chunks_[chunk])[at];
        const auto number = static_cast<uint32_t>(chunk * kChunk) + at;
        if (known.intf != Zemit::IntfId()) visit(number, known);
      }
    }
  }

  TovanMap<uint32_t, Text> names_;
  uint32_t next_ = 1;                                   // larger than all assigned numbers
  mutable std::vector<std::unique_ptr<Chunk>> chunks_;  // by number; null if none is known
  std::vector<uint32_t> numbers_;                       // by the value of the interface's id
  size_t unused_ = 0;                                   // known numbers that no entry refers to
};

}  // namespace Tovan
