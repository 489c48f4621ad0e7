// The kernel's objects of one kind.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/kiv/containers/HashMap.h"

namespace Linux {

/// The identity of an object, as two functions: `hash(object)`, and `isSame(a, b)` for two states
/// of one object.
template <class T>
struct Identity;

/// The objects of one kind, each with the number of the dump in which it was last seen. Needs
/// little more memory than the objects.
template <class T>
class ObjectSet {
  /// The map knows a cell by its object's identity; the rest of the object may change.
  struct Cell {
    mutable T object;
    mutable uint16_t dump = 0;

    uint32_t hash() const { return Identity<T>::hash(object); }
    friend bool operator==(const Cell& a, const Cell& b) {
      return Identity<T>::isSame(a.object, b.object);
    }
  };
  struct Probe {
    const T& object;

    friend bool operator==(const Cell& cell, const Probe& probe) {
      return Identity<T>::isSame(cell.object, probe.object);
    }
  };
  template <class Test>
  struct Search {
    const Test& isSought;

    friend bool operator==(const Cell& cell, const Search& search) {
      return search.isSought(cell.object);
    }
  };

 public:
  size_t size() const { return cells_.size(); }
  bool empty() const { return size() == 0; }

  /// The object with the identity of `like`, or null. Valid until the next put().
  const T* find(const T& like) const { return objectOf(cells_.findKey(Probe{like}, hash(like))); }
  /// An object with the hash of `like` of which `isSought` is true, or null.
  template <class Test>
  const T* findIf(const T& like, const Test& isSought) const {
    return objectOf(cells_.findKey(Search<Test>{isSought}, hash(like)));
  }
  /// Adds the object or replaces its state, and marks it as seen in this dump.
  /// \return true when it is new or changed.
  bool put(const T& object, uint16_t dump) {
    const uint32_t hash = ObjectSet::hash(object);
    if (const Cell* known = cells_.findKey(Probe{object}, hash)) {
      known->dump = dump;
      if (known->object == object) return false;
      known->object = object;
    } else {
      cells_.add({.object = object, .dump = dump}, hash);
    }
    return true;
  }
  /// As put(), without the mark. \pre the object exists
  void change(const T& object) { cells_.findKey(Probe{object}, hash(object))->object = object; }
  /// \return true when the object existed.
  bool erase(const T& object) { return cells_.erase({.object = object, .dump = 0}); }

  /// Copies of all objects, or of those that were not seen in this dump.
  std::vector<T> objects() const {
    return select([](const Cell&) { return true; });
  }
  std::vector<T> unseen(uint16_t dump) const {
    return select([dump](const Cell& cell) { return cell.dump != dump; });
  }
  template <class Visit>
  void forEach(const Visit& visit) const {
    for (const Cell& cell : cells_) visit(static_cast<const T&>(cell.object));
  }

 private:
  static uint32_t hash(const T& object) { return Identity<T>::hash(object); }
  static const T* objectOf(const Cell* cell) { return cell == nullptr ? nullptr : &cell->object; }

  template <class Test>
  std::vector<T> select(const Test& isSelected) const {
    std::vector<T> selected;
    for (const Cell& cell : cells_) {
      if (isSelected(cell)) selected.push_back(cell.object);
    }
    return selected;
  }

  Kiv::HashMap<Cell, Kiv::Present> cells_;
};

}  // namespace Linux
