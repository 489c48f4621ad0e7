// Tests that read the type list of the real plug-in and of damaged copies.
#include "cli/PluginTypes.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "tests/Files.h"

namespace Cli {
namespace {

const std::vector<std::string> kTypes = {
    "Routing::Host::RouteSm",     "Routing::Host::IntfAddresses", "Routing::Host::PrefixList",
    "Routing::Host::RouteSmRoot", "Routing6::Host::RouteSm",      "Routing6::Host::IntfAddresses",
    "Routing6::Host::PrefixList", "Routing6::Host::RouteSmRoot"};

/// A file that starts as a copy of the plug-in and is damaged in place.
class PluginTypesTest : public testing::Test {
 protected:
  void SetUp() override { std::filesystem::copy_file(PLUGIN, file); }
  void TearDown() override { std::filesystem::remove(file); }

  void write(size_t at, const std::string& text) {
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    ASSERT_TRUE(stream.seekp(static_cast<std::streamoff>(at)) << text << std::flush);
  }
  /// The reason why the file is refused; empty when it is accepted.
  std::string refusal() const {
    try {
      pluginTypes(file);
    } catch (const PluginError& error) {
      const std::string message = error.what();
      const std::string place = file + ": error: ";
      EXPECT_TRUE(message.starts_with(place)) << message;
      return message.substr(place.size());
    }
    return {};
  }

  const std::string file = testing::TempDir() + "plugin-" + std::to_string(::getpid());
  const std::string bytes = contents(PLUGIN);
  const std::string section = [] {
    std::string all;
    for (const auto& type : kTypes) all.append(type).push_back('\0');
    return all;
  }();
};

TEST_F(PluginTypesTest, ThePluginListsItsTypesInTheOrderOfTheirRegistration) {
  EXPECT_EQ(pluginTypes(PLUGIN), kTypes);
}

TEST_F(PluginTypesTest, RefusesFilesThatAreNoPlugins) {
  const auto names = bytes.find(section);
  const auto name = bytes.rfind(".kiv.type");
  ASSERT_NE(names, bytes.npos);
  const auto end = names + section.size() - 1;
  for (const auto& [at, damage, reason] : {
           std::tuple{end, "x", "damaged: the last type name does not end"},
           std::tuple{names + 3, "\x1b", "damaged: type name 1 is not one"},
           std::tuple{name, ".kiv.typo", "no plug-in: it has no section .kiv.type"},
           std::tuple{size_t{0}, "?", "not an ELF file"},
       }) {
    write(at, damage);
    EXPECT_EQ(refusal(), reason);
    write(at, bytes.substr(at, std::string(damage).size()));
  }
  EXPECT_EQ(pluginTypes(file), kTypes);
  std::filesystem::remove(file);
  EXPECT_EQ(refusal(), "No such file or directory");
  EXPECT_THROW(pluginTypes(testing::TempDir()), PluginError);
}

// The section table is at the end of the file, so a truncated file must be refused.
TEST_F(PluginTypesTest, RefusesATruncatedFile) {
  for (auto size = bytes.size() - 1;; size = size > 200 ? size * 9 / 10 : size - 1) {
    std::filesystem::resize_file(file, size);
    EXPECT_NE(refusal(), "") << size << " of " << bytes.size() << " bytes";
    if (size == 0) break;
  }
}

// With a wrong byte the answer may be wrong, but no memory outside the file may be accessed.
TEST_F(PluginTypesTest, SurvivesAnyDamage) {
  constexpr size_t kHeaderSize = 64;
  constexpr size_t kTail = 4096;  // with the section table
  const auto names = bytes.find(section);
  ASSERT_GT(bytes.size(), kTail);
  std::minstd_rand random(1);
  const auto survives = [&](size_t at) {
    const char wrong = static_cast<char>(bytes[at] ^ static_cast<char>(1 + random() % 255));
    write(at, std::string(1, wrong));
    bool isRefused = false;
    try {
      isRefused = pluginTypes(file) != kTypes;
    } catch (const PluginError&) {
      isRefused = true;
    }
    write(at, bytes.substr(at, 1));
    return !isRefused;
  };
  for (size_t i = 0; i < section.size(); ++i) EXPECT_FALSE(survives(names + i)) << i;
  size_t survivors = 0;
  for (size_t at = 0; at < kHeaderSize; ++at) survivors += survives(at);
  for (size_t at = bytes.size() - kTail; at < bytes.size(); ++at) survivors += survives(at);
  EXPECT_LT(survivors, kHeaderSize + kTail);
  EXPECT_EQ(pluginTypes(file), kTypes);
}

}  // namespace
}  // namespace Cli
