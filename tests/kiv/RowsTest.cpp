// Tests of rows with several columns against one std::map for each column.
#include "platform/kiv/containers/Rows.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>

#include "platform/kiv/containers/Ptr.h"

namespace Kiv {
namespace {

using Key = uint32_t;

class RowsTest : public testing::Test {
 protected:
  using Table = Rows<Key, uint64_t, std::string>;

  /// A column and its model.
  template <class V>
  struct Checked {
    explicit Checked(Table& rows) : column(rows) {}

    void emplace(Key key, V value) {
      const auto [stored, isNew] = column.tryEmplace(key, value);
      const auto expected = model.try_emplace(key, value);
      EXPECT_EQ(isNew, expected.second);
      EXPECT_EQ(*stored, expected.first->second);
      *stored = expected.first->second = value;
    }
    void erase(Key key) { EXPECT_EQ(column.erase(key), model.erase(key) == 1); }
    void expectSame(Key limit) const {
      EXPECT_EQ(column.size(), model.size());
      for (Key key = 0; key < limit; ++key) {
        const V* found = column.find(key);
        const auto expected = model.find(key);
        ASSERT_EQ(found != nullptr, expected != model.end()) << key;
        if (found != nullptr) {
          ASSERT_EQ(*found, expected->second);
        }
      }
      std::map<Key, V> walked;
      for (const auto& entry : column) walked.emplace(entry.key, entry.value);
      EXPECT_EQ(walked, model);
      EXPECT_EQ(column.keys().size(), model.size());
    }

    Table::Column<V> column;
    std::map<Key, V> model;
  };

  Key below(Key limit) { return static_cast<Key>(random() % limit); }

  Table rows;
  Checked<uint64_t> numbers{rows};
  Checked<std::string> texts{rows};
  std::mt19937 random{1};
};

// The phases fill the rows, replace rows, remove most rows, remove all rows, and fill them again.
TEST_F(RowsTest, EachColumnBehavesAsASeparateMap) {
  constexpr Key kKeys = 3'000;
  for (const Key percentInserted : {100U, 50U, 3U, 0U, 80U}) {
    for (int i = 0; i < 20'000; ++i) {
      const Key key = below(kKeys);
      const bool inserts = below(100) < percentInserted;
      if (below(2) == 0) {
        inserts ? numbers.emplace(key, random()) : numbers.erase(key);
      } else {
        inserts ? texts.emplace(key, std::string(key % 40, 'x')) : texts.erase(key);
      }
    }
    numbers.expectSame(kKeys);
    texts.expectSame(kKeys);
  }
  texts.column.clear();
  texts.model.clear();
  texts.expectSame(kKeys);
  numbers.expectSame(kKeys);
}

// During a walk, the current entry and later entries may change in either column.
TEST_F(RowsTest, AWalkVisitsEachStayingEntryOnce) {
  constexpr Key kKeys = 1'000;
  for (int round = 0; round < 20; ++round) {
    for (Key key = 0; key < kKeys; key += 1 + below(3)) numbers.emplace(key, key);
    std::map<Key, int> left;
    for (const auto& [key, value] : numbers.model) left[key] = 0;
    for (auto it = numbers.column.iterator(); it; ++it) {
      EXPECT_EQ(it.value(), it.key());
      ++left[it.key()];
      for (const Key erased : {below(kKeys), it.key()}) {
        if (below(2) == 0) continue;
        numbers.erase(erased);
        texts.erase(erased);
        left.erase(erased);
      }
      const Key added = kKeys + below(kKeys);
      texts.emplace(added, "");
      numbers.emplace(added, added);
    }
    for (const auto& [key, times] : left) {
      if (key < kKeys) {
        EXPECT_EQ(times, 1) << key;
      }
    }
    numbers.expectSame(2 * kKeys);
    texts.expectSame(2 * kKeys);
  }
  const Key some = numbers.model.begin()->first;
  EXPECT_EQ(std::as_const(numbers.column).iteratorConst(some).key(), some);
  EXPECT_FALSE(std::as_const(numbers.column).iteratorConst(2 * kKeys));
}

// Code with a pointer to an entry of one column may change another column of the same rows.
TEST_F(RowsTest, AValueKeepsItsAddressWhileOthersAreInsertedAndErased) {
  numbers.emplace(7, 70);
  const uint64_t* value = numbers.column.find(7);
  for (Key key = 8; key < 2'000; ++key) numbers.emplace(key, key);
  for (Key key = 8; key < 2'000; ++key) numbers.erase(key);
  EXPECT_EQ(numbers.column.find(7), value);
  EXPECT_EQ(*value, 70u);
}

/// Reads the column in its destructor.
struct ColumnReader : Object {
  using Table = Rows<Key, Ptr<ColumnReader>, uint64_t>;
  using Column = Table::Column<Ptr<ColumnReader>>;
  explicit ColumnReader(const Column& from) : column(from) {}
  ~ColumnReader() override { keysSeen = column.keys(); }
  const Column& column;
  static inline std::vector<Key> keysSeen;
};

// The destructor of an erased value must find the rows in a consistent state.
TEST(RowsOfObjectsTest, AValueMayUseTheColumnWhileItIsErased) {
  ColumnReader::Table rows;
  ColumnReader::Column column(rows);
  for (const Key key : {1U, 2U, 3U}) column.tryEmplace(key, make<ColumnReader>(column));
  column.erase(column.iterator().key());
  EXPECT_EQ(ColumnReader::keysSeen, (std::vector<Key>{2, 3}));
  column.clear();
  EXPECT_EQ(ColumnReader::keysSeen, std::vector<Key>{});
}

}  // namespace
}  // namespace Kiv
