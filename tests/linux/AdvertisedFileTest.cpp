#include "linux/AdvertisedFile.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>

#include "tests/Files.h"
#include "tests/linux/Samples.h"

namespace Linux {
namespace {

namespace fs = std::filesystem;

class AdvertisedFileTest : public testing::Test {
 protected:
  using Keys = std::map<RouteKey, uint32_t>;

  AdvertisedFileTest() {
    directory = fs::temp_directory_path() / ("advertised." + std::to_string(::getpid()));
    fs::create_directory(directory);
    path = directory / "log";
  }
  ~AdvertisedFileTest() override { fs::remove_all(directory); }

  AdvertisedFile open() {
    problems.clear();
    return AdvertisedFile(
        path, [this](const std::string& problem) { problems.push_back(problem); },
        std::chrono::milliseconds(0));
  }
  static Keys keysOf(const AdvertisedFile& file) {
    Keys keys;
    for (const auto& [key, metric] : file.keys()) keys[key] = metric;
    return keys;
  }
  void write(const std::string& text) const {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  }

  fs::path directory, path;
  std::vector<std::string> problems;
};

// The file of a killed process has the lines written so far. The last line may be cut at any byte.
TEST_F(AdvertisedFileTest, ACutFileLosesOnlyItsLastLine) {
  std::vector<std::pair<size_t, Keys>> committed;  // the length of the file and its keys
  {
    auto file = open();
    EXPECT_TRUE(problems.empty());
    for (uint32_t i = 0; i < 12; ++i) {
      file.add(key4(i % 5), i);
      file.add(key6(i, 20), 1024);
      if (i % 3 == 0) file.remove(key4(i % 5));
      file.commit();
      committed.emplace_back(contents(path).size(), keysOf(file));
    }
  }
  const auto whole = contents(path);
  for (size_t length = 0; length <= whole.size(); ++length) {
    write(whole.substr(0, length));
    const bool isTorn = length != 0 && whole[length - 1] != '\n';
    Keys found;
    {
      auto file = open();
      found = keysOf(file);
      EXPECT_EQ(problems.size(), isTorn ? 1u : 0u) << length;
      for (const auto& [size, keys] : committed) {
        EXPECT_TRUE(size != length || found == keys) << length;
      }
      // The new process can append to the file.
      file.add(key4(99), 7);
      file.commit();
    }
    found[key4(99)] = 7;
    auto again = open();
    EXPECT_TRUE(problems.empty()) << length;
    EXPECT_EQ(keysOf(again), found) << length;
    ASSERT_FALSE(HasFailure());
  }
}

TEST_F(AdvertisedFileTest, SkipsAndReportsDamagedLines) {
  {
    auto file = open();
    for (uint32_t i = 0; i < 10; ++i) file.add(key4(i), i);
  }
  const auto whole = contents(path);
  for (size_t at = 0; at < whole.size(); ++at) {
    auto damaged = whole;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x04);
    write(damaged);
    auto file = open();
    EXPECT_EQ(problems.size(), 1u) << at;
    const bool isHeader = at < whole.find('\n');
    // A line without a line feed also spoils the next line. A file of a newer version is not read.
    if (!problems[0].ends_with(".unknown")) {
      EXPECT_GE(file.keys().size(), isHeader ? 10u : whole[at] == '\n' ? 8u : 9u) << at;
      EXPECT_NE(
          problems[0].find(":" + std::to_string(1 + std::ranges::count(whole.substr(0, at), '\n'))),
          std::string::npos)
          << problems[0];
    }
    ASSERT_FALSE(HasFailure());
  }
  write("hostroute-advertised 2\nwhat that version writes\n");
  {
    auto file = open();
    ASSERT_EQ(problems.size(), 1u);
    EXPECT_TRUE(fs::exists(path.string() + ".unknown"));
    file.add(key4(1), 0);
  }
  EXPECT_EQ(keysOf(open()), (Keys{{key4(1), 0}}));
}

TEST_F(AdvertisedFileTest, StaysSmallUnderManyChanges) {
  auto file = open();
  uintmax_t largest = 0;
  for (uint32_t i = 0; i < 50000; ++i) {
    file.add(key4(i), 0);
    file.remove(key4(i));
    if (i % 10 == 0) file.add(key6(i % 1000, 20), i);
    file.commit();
    if (i % 100 == 0) largest = std::max(largest, fs::file_size(path));
  }
  EXPECT_LT(largest, 500000u);
  EXPECT_EQ(keysOf(open()), keysOf(file));
  EXPECT_TRUE(problems.empty());
}

TEST_F(AdvertisedFileTest, SurvivesAFullDisk) {
  auto file = open();
  for (uint32_t i = 0; i < 100; ++i) file.add(key4(i), 0);
  file.commit();
  const auto before = keysOf(file);
  // A limit on the file size simulates a full disk.
  ::signal(SIGXFSZ, SIG_IGN);
  rlimit old{};
  ::getrlimit(RLIMIT_FSIZE, &old);
  const rlimit full{.rlim_cur = fs::file_size(path) + 10, .rlim_max = old.rlim_max};
  ::setrlimit(RLIMIT_FSIZE, &full);
  for (uint32_t i = 100; i < 200; ++i) {
    file.add(key4(i), 0);
    file.commit();
  }
  EXPECT_FALSE(file.isSound());
  EXPECT_EQ(problems.size(), 1u);
  const auto kept = contents(path);
  ::setrlimit(RLIMIT_FSIZE, &old);
  // If the process dies now, the keys committed before are in the file.
  const auto told = problems;
  EXPECT_EQ(keysOf(open()), before);
  problems = told;

  // The retry needs no new key.
  EXPECT_TRUE(file.isBehind());
  file.commit();
  EXPECT_FALSE(file.isBehind());
  file.remove(key4(0));
  file.commit();
  EXPECT_TRUE(file.isSound());
  EXPECT_EQ(problems.size(), 2u);
  EXPECT_EQ(keysOf(open()), keysOf(file));
  EXPECT_EQ(file.keys().size(), 199u);
}

TEST_F(AdvertisedFileTest, ContinuesWithoutItsDirectory) {
  path = directory / "no" / "log";
  auto file = open();
  file.add(key4(1), 0);
  file.commit();
  EXPECT_EQ(problems.size(), 1u);
  EXPECT_FALSE(file.isSound());
  fs::create_directory(path.parent_path());
  file.add(key4(2), 0);
  file.commit();
  EXPECT_EQ(keysOf(open()).size(), 2u);
}

}  // namespace
}  // namespace Linux
