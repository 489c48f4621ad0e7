// Tests of text tables with untrusted names and with lines that are too long for the terminal.
#include "replay/TextTable.h"

#include <sstream>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "replay/Printable.h"

namespace {

TEST(TextTableTest, EscapesAllThatATerminalWouldInterpret) {
  using namespace std::literals;
  for (const auto& [text, shown] : {
           std::pair{"Ethernet1/1"sv, "Ethernet1/1"sv},
           {"blü \xE2\x82\xAC \xF0\x9F\x98\x80"sv, "blü \xE2\x82\xAC \xF0\x9F\x98\x80"sv},
           {"a\033[2Jb\nc\r\t\177\0"sv, "a\\x1B[2Jb\\nc\\r\\t\\x7F\\x00"sv},
           {"\xC2\x9B!"sv, "\\u009B!"sv},           // a C1 control character
           {"\xE2\x80\xAE!"sv, "\\u202E!"sv},       // right-to-left override
           {"\xC3"sv, "\\xC3"sv},                   // truncated
           {"\xC0\xAF"sv, "\\xC0\\xAF"sv},          // overlong encoding
           {"\xED\xA0\x80"sv, "\\xED\\xA0\\x80"sv}  // half of a surrogate pair
       }) {
    EXPECT_EQ(Replay::printable(text), shown);
  }
}

TEST(TextTableTest, LinesThatAreTooLongAreCutWithAMark) {
  Replay::TextTable table({"VRF", "VIA"});
  table.add({"blü", "Ethernet1"});
  table.add({"x\n", "e"});
  std::ostringstream os;
  table.print(os, {.width = 10});
  EXPECT_EQ(os.str(), "VRF  VIA\nblü  Ethe>\nx\\n  e\n");
  os.str("");
  table.print(os, {.width = 14});
  EXPECT_EQ(os.str(), "VRF  VIA\nblü  Ethernet1\nx\\n  e\n");
}

}  // namespace
