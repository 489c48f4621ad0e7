// Tests of strings, names and their hashes.
#include "platform/kiv/containers/String.h"

#include <gtest/gtest.h>

#include "platform/kiv/containers/Hash.h"

namespace Sample {
const Kiv::Name& staticName();
}

namespace {

using Kiv::String;
using namespace std::string_view_literals;

TEST(StringTest, CopiesShareTheirBytes) {
  const String name("Ethernet1");
  const String copy = name;  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_EQ(copy.view().data(), name.view().data());
  String assigned("Ethernet2");
  assigned = copy;
  const String& itself = assigned;
  assigned = itself;
  EXPECT_EQ(assigned.view().data(), name.view().data());
  String moved = std::move(assigned);
  EXPECT_TRUE(assigned.empty());  // NOLINT(bugprone-use-after-move): the test's subject
  EXPECT_EQ(moved, "Ethernet1"sv);
}

// The daemon finds a VRF's machine by name, so equal names must compare equal.
TEST(StringTest, ANameOfAStaticInitialiserEqualsLaterOnes) {
  EXPECT_EQ(Sample::staticName(), Kiv::Name("red"));
}

TEST(StringTest, EqualityHashAndOrderAreThoseOfTheText) {
  const auto texts = {""sv,          "a"sv,          "a\0"sv,       "a\0b"sv, "ab"sv,
                      "Ethernet1"sv, "Ethernet10"sv, "Ethernet2"sv, "\xff"sv};
  for (const auto a : texts) {
    for (const auto b : texts) {
      const String left(a), right(b);
      EXPECT_EQ(left == right, a == b) << a << " and " << b;
      EXPECT_EQ(left < right, a < b) << a << " and " << b;
      EXPECT_EQ(left.hash() == right.hash(), a == b) << a << " and " << b;
    }
  }
  EXPECT_EQ(String(""), String());
  EXPECT_TRUE(String("").empty());
  EXPECT_EQ(String(""), ""sv);
}

TEST(StringTest, PosFindsTheFirstOccurrenceFromTheGivenStart) {
  const String path("a/bb/bb");
  EXPECT_EQ(path.pos("bb"), 2u);
  EXPECT_EQ(path.pos("bb", 3), 5u);
  EXPECT_EQ(path.pos("bb", 6), String::kNotFound);
  EXPECT_EQ(path.pos("c"), String::kNotFound);
  EXPECT_EQ(path.pos("a", 100), String::kNotFound);
  EXPECT_EQ(String().pos("a"), String::kNotFound);
}

// A fixed seed gives a repeatable run. A random seed must give unpredictable hashes.
TEST(HashTest, HashesDependOnTheSeedAlone) {
  const Kiv::HashSeed drawn = Kiv::hashSeed;
  const auto hashesUnder = [](const Kiv::HashSeed& seed) {
    Kiv::hashSeedIs(seed);
    return std::vector{Kiv::hashWord(7), Kiv::hashWords(7, 8), String("Ethernet1").hash(),
                       String("Ethernet1/1").hash()};
  };
  const auto first = hashesUnder({.add = 1, .multiply = 0x9e37'79b9'7f4a'7c15});
  const auto second = hashesUnder({.add = 2, .multiply = 0x9e37'79b9'7f4a'7c15});
  EXPECT_EQ(hashesUnder({.add = 1, .multiply = 0x9e37'79b9'7f4a'7c15}), first);
  for (size_t i = 0; i < first.size(); ++i) EXPECT_NE(first[i], second[i]) << i;
  // With a multiplier of zero all hashes would be equal.
  EXPECT_NE(hashesUnder({.add = 0, .multiply = 0})[0], Kiv::hashWord(8));
  Kiv::hashSeedIs(drawn);
}

}  // namespace
