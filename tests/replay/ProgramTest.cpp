// The hostroute program: exit statuses, and tables that one process writes and others read.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

/// What a run of the program printed, errors included, and how it ended.
struct Result {
  int status;
  std::string text;
};

Result run(const std::string& arguments) {
  Result result{-1, {}};
  std::FILE* pipe =
      ::popen((std::string(HOSTROUTE_PROGRAM " ") + arguments + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return result;
  for (int c = std::getc(pipe); c != EOF; c = std::getc(pipe)) {
    result.text += static_cast<char>(c);
  }
  const int status = ::pclose(pipe);
  if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
  return result;
}

/// A replay that shares its tables and takes its events from us.
class Writer {
 public:
  explicit Writer(const std::string& name, bool holds = false) {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(ends[0], STDIN_FILENO);
      ::execl(HOSTROUTE_PROGRAM, HOSTROUTE_PROGRAM, "replay", "--no-final-dump", "--shared",
              name.c_str(), "-", holds ? "--hold" : nullptr, nullptr);
      ::_exit(127);
    }
    ::close(ends[0]);
    input_ = ends[1];
  }
  ~Writer() { end(SIGTERM); }  // its tables go with it

  void feed(std::string_view events) {
    while (!events.empty()) {
      const auto written = ::write(input_, events.data(), events.size());
      ASSERT_GT(written, 0);
      events.remove_prefix(static_cast<size_t>(written));
    }
  }
  void endInput() { ::close(std::exchange(input_, -1)); }
  /// Waits for the end, after sending `signal` unless it is 0. Returns the status as wait() does.
  int end(int signal) {
    if (pid_ <= 0) return -1;
    if (signal != 0) ::kill(pid_, signal);
    if (input_ >= 0) endInput();
    int status = -1;
    ::waitpid(std::exchange(pid_, -1), &status, 0);
    return status;
  }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
};

class ProgramTest : public testing::Test {
 protected:
  /// What `routes` prints as soon as it prints `wanted`.
  Result routesOnce(const std::string& wanted) {
    for (;;) {
      auto result = run("routes --json --table " + name);
      if (result.text.find(wanted) != std::string::npos) return result;
      ::usleep(1000);
    }
  }

  const std::string name = "hostroute-test-" + std::to_string(::getpid());
};

constexpr const char* kScene =
    "{\"op\":\"initialized\",\"vrf\":\"a/b%\",\"value\":true}\n"
    "{\"op\":\"fec\",\"id\":1,\"family\":4,\"vias\":[{\"intf\":\"Ethernet1\"}]}\n"
    "{\"op\":\"fec\",\"id\":2,\"family\":4,\"vias\":[{\"intf\":\"Ethernet2\"}]}\n"
    "{\"op\":\"neighbor\",\"intf\":\"Ethernet1\",\"ip\":\"10.0.0.5\"}\n"
    "{\"op\":\"route\",\"vrf\":\"a/b%\",\"prefix\":\"10.0.0.0/24\",\"fec\":1}\n";

TEST_F(ProgramTest, TellsByItsStatusHowItEnded) {
  const std::pair<const char*, int> statuses[] = {
      {"--help", 0},
      {"replay --help", 0},
      {"routes --help", 0},
      {"replay /dev/null", 0},
      {"replay /dev/null --json --trace 0,2,7", 0},
      {"replay", 2},
      {"replay /dev/null --trace 2,10", 2},
      {"replay /dev/null --trace ''", 2},
      {"replay /dev/null --hold", 2},
      {"replay /dev/null --shared a.b", 2},
      {"replay /no/such/file", 2},
      {"replay /", 2},
      {"routes --table x --family 5", 2},
      {"routes --table no-such-tables", 1},
      {"types", 2},
      {"types " HOSTROUTE_PROGRAM, 2},
  };
  for (const auto& [arguments, status] : statuses) {
    EXPECT_EQ(run(arguments).status, status) << arguments;
  }
}

// What the machines of the first VRF say while they are made is said before any event.
TEST_F(ProgramTest, TracesFromTheStart) {
  const auto result = run("replay /dev/null --json --trace 8 --no-final-dump");
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(result.text.starts_with(R"({"trace":)")) << result.text;
  for (const char* said : {"void Routing::Host::RouteSmRoot::handleInitialized()",
                           "void Routing::Host::RouteSm::handleFec()",
                           "void Routing6::Host::RouteSm::handleVirtualIp6Status()"}) {
    EXPECT_NE(result.text.find(said), std::string::npos) << said;
  }
}

// A reader that comes while the writer changes FEC and route must never pair one with the other's.
TEST_F(ProgramTest, RoutesAreReadWholeWhileTheyAreWritten) {
  Writer writer(name);
  writer.feed(kScene);
  EXPECT_EQ(routesOnce("10.0.0.5/32").status, 0);
  for (int round = 0; round < 20; ++round) {
    std::string events;
    for (int i = 0; i < 200; ++i) {
      const auto fec = std::to_string(1 + i % 2);
      for (const char* prefix : {"10.0.0.0/24", "10.1.0.0/16", "10.2.0.0/15"}) {
        events +=
            R"({"op":"route","vrf":"a/b%","fec":)" + fec + R"(,"prefix":")" + prefix + "\"}\n";
      }
    }
    writer.feed(events);
    const auto read = run("routes --json --table " + name + " --vrf a/b% --family 4");
    EXPECT_EQ(read.status, 0) << read.text;
    for (size_t at = 0; at < read.text.size(); at = read.text.find('\n', at) + 1) {
      const auto line = read.text.substr(at, read.text.find('\n', at) - at);
      const auto route = nlohmann::json::parse(line).at("route");
      ASSERT_EQ(route.at("vias").size(), 1u) << line;
      if (const uint64_t fec = route.at("fec"); fec < 3) {
        EXPECT_EQ(route.at("vias")[0].at("intf"), "Ethernet" + std::to_string(fec)) << line;
      }
    }
  }
  writer.endInput();
  EXPECT_EQ(writer.end(0), 0);
  EXPECT_EQ(run("routes --table " + name).status, 1);
}

TEST_F(ProgramTest, TheTablesOfAKilledWriterStayUntilTheNextOne) {
  Writer writer(name);
  writer.feed(kScene);
  const auto before = routesOnce("10.0.0.5/32");
  const auto refused = run("replay --shared " + name + " /dev/null");
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.text.find("has a living writer"), std::string::npos) << refused.text;

  writer.end(SIGKILL);
  const auto after = run("routes --json --table " + name);
  EXPECT_EQ(after.text, before.text);
  EXPECT_EQ(run("replay --shared " + name + " /dev/null").status, 0);
  EXPECT_EQ(run("routes --table " + name).status, 1);
}

TEST_F(ProgramTest, ADamagedRouteIsReportedAndTheOthersAreShown) {
  Writer writer(name);
  writer.feed(kScene);
  writer.feed(
      "{\"op\":\"route\",\"prefix\":\"10.3.0.0/16\",\"metric\":3735928559}\n"
      "{\"op\":\"route\",\"prefix\":\"10.4.0.0/16\"}\n");
  EXPECT_EQ(routesOnce("10.4.0.0/16").status, 0);
  std::fstream table("/dev/shm/hostroute-" + name + ".default.route4",
                     std::ios::in | std::ios::out | std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(table)), {});
  const auto at = bytes.find("\xEF\xBE\xAD\xDE");
  ASSERT_NE(at, bytes.npos);
  table.seekp(static_cast<std::streamoff>(at)).put('\0').flush();

  const auto read = run("routes --table " + name);
  EXPECT_EQ(read.status, 1);
  EXPECT_NE(read.text.find("error: "), std::string::npos) << read.text;
  EXPECT_EQ(read.text.find("10.3.0.0/16"), std::string::npos) << read.text;
  EXPECT_NE(read.text.find("10.4.0.0/16"), std::string::npos) << read.text;
}

TEST_F(ProgramTest, HeldTablesGoWithASignal) {
  Writer writer(name, true);
  writer.feed(kScene);
  writer.endInput();
  EXPECT_EQ(routesOnce("10.0.0.5/32").status, 0);
  EXPECT_EQ(writer.end(SIGTERM), 0);
  EXPECT_EQ(run("routes --table " + name).status, 1);
}

}  // namespace
