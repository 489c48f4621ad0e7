// The interfaces that shared tables refer to, by name.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/tovan/TovanMap.h"
#include "platform/zemit/IntfId.h"

namespace Tovan {

/// Numbers of interfaces that have the same meaning in every process that has a table open, and for
/// the next writer. Number 0 is "no interface".
class IntfNames {
 public:
  static constexpr size_t kMaxBytes = 127;

  explicit IntfNames(const TableConfig& config);

  /// The interface's number; a new interface's name is published first.
  /// \throws Kiv::RangeException when the name is over kMaxBytes; NoSpaceException.
  uint32_t numberOf(Zemit::IntfId intf);
  /// The interface with this number, or none.
  /// \throws CorruptionDetectedException.
  Zemit::IntfId intfOf(uint32_t number) const {
    const auto known = number < intfs_.size() ? intfs_[number] : Zemit::IntfId();
    return number == 0 || known != Zemit::IntfId() ? known : fetch(number);
  }
  /// Notes that a table refers to a number: no new interface gets it, even if its name is lost.
  void passOver(uint32_t number);

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

  static Text textOf(std::string_view name);
  void mend();
  Zemit::IntfId fetch(uint32_t number) const;
  static Zemit::IntfId read(const Text& text);
  void learn(uint32_t number, Zemit::IntfId intf) const;

  TovanMap<uint32_t, Text> names_;
  uint32_t next_ = 1;                         // never one that was given before
  mutable std::vector<Zemit::IntfId> intfs_;  // by number; none is unknown
  mutable std::vector<uint32_t> numbers_;     // by the value of the interface's id; 0 is unknown
};

}  // namespace Tovan
