// Tests of the hostroute program: exit statuses, and tables that one process writes and others
// read.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "platform/zemit/Prefix.h"
#include "tests/Files.h"
#include "tests/tovan/Damage.h"

namespace {

/// Runs `command` in a shell. The output includes errors.
CommandResult runAll(const std::string& command) {
  return runShell("(" + command + ") 2>&1");
}

CommandResult run(const std::string& arguments) {
  return runAll(std::string(HOSTROUTE_PROGRAM " ") + arguments);
}

/// A replay that shares its tables and reads its events from the test.
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
  ~Writer() { end(SIGTERM); }  // removes its tables, too

  void feed(std::string_view events) {
    while (!events.empty()) {
      const auto written = ::write(input_, events.data(), events.size());
      ASSERT_GT(written, 0);
      events.remove_prefix(static_cast<size_t>(written));
    }
  }
  void endInput() { ::close(std::exchange(input_, -1)); }
  /// Sends `signal` unless it is 0 and waits for the end. Returns the status of wait().
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
  /// Runs `routes` until its output contains `wanted` and it ends with `status`, which is 0 if the
  /// tables are without fault. It reads first whether they are initialized, and then the routes.
  CommandResult routesOnce(const std::string& wanted, int status = 0) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(2);
    for (;;) {
      auto result = run("routes --json --table " + name);
      if (result.status == status && result.text.find(wanted) != std::string::npos) return result;
      if (std::chrono::steady_clock::now() > end) {
        ADD_FAILURE() << "no " << wanted << " in\n" << result.text;
        return result;
      }
      ::usleep(1000);
    }
  }

  ~ProgramTest() override { runAll("rm -f " + scene + "*"); }

  const std::string name = "hostroute-test-" + std::to_string(::getpid());
  const std::string scene = testing::TempDir() + name;  // a file for input
};

constexpr const char* kScene =
    "{\"op\":\"initialized\",\"vrf\":\"a/b%\",\"value\":true}\n"
    "{\"op\":\"fec\",\"id\":1,\"family\":4,\"vias\":[{\"intf\":\"Ethernet1\"}]}\n"
    "{\"op\":\"fec\",\"id\":2,\"family\":4,\"vias\":[{\"intf\":\"Ethernet2\"}]}\n"
    "{\"op\":\"neighbor\",\"intf\":\"Ethernet1\",\"ip\":\"10.0.0.5\"}\n"
    "{\"op\":\"route\",\"vrf\":\"a/b%\",\"prefix\":\"10.0.0.0/24\",\"fec\":1}\n";

TEST_F(ProgramTest, ExitStatusShowsTheResult) {
  const std::map<int, std::vector<std::string>> commands = {
      {0,
       {"--help", "replay --help", "routes --help", "replay /dev/null",
        "replay /dev/null --json --trace 0,2,7", "--version", "anonymize /dev/null",
        "history 10.0.0.0/24 --replay /dev/null"}},
      {1,
       {"routes --table no-such-tables", "replay /dev/null > /dev/full",
        "replay --help > /dev/full", "explain 10.0.0.5 --socket /no/such/socket",
        "status --socket /no/such/socket", "metrics --socket /no/such/socket",
        "explain 10.0.0.5 --replay /dev/null"}},
      {2,
       {"replay",
        "replay /dev/null --trace 2,10",
        "replay /dev/null --trace ''",
        "replay /dev/null --hold",
        "replay /dev/null --shared a.b",
        "replay /no/such/file",
        "replay /",
        "routes --table x --family 5",
        "types",
        ("types " HOSTROUTE_PROGRAM),
        "replay --json --json-lines /dev/null",
        "import --route4 /dev/null",
        "diff /dev/null",
        "routes --table x --type attached",
        "routes --table x 10.0.0.256",
        "shell - < /dev/zero",
        "metrics --json --http",
        "trace 10.0.0.5 --for never",
        "log-level loud",
        "record start",
        "anonymize /no/such/file",
        "explain 10.0.0 --replay /dev/null",
        "explain 10.0.0.5 --replay /dev/null --vrf blue",
        "explain 10.0.0.5 --replay /no/such/file",
        "history 10.0.0.0/33 --replay /dev/null"}}};
  for (const auto& [status, calls] : commands) {
    for (const auto& arguments : calls) EXPECT_EQ(run(arguments).status, status) << arguments;
  }
}

// The machines of the first VRF trace in their constructors, before any event.
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

TEST_F(ProgramTest, ExplainsARecordingAndTellsItsHistory) {
  const auto ask = [](const std::string& question) {
    const auto result =
        runAll("printf '%s' '" + std::string(kScene) + "' | " HOSTROUTE_PROGRAM " " + question +
               " --vrf 'a/b%' --json --replay -");
    return std::pair(result.status, nlohmann::json::parse(result.text, nullptr, false));
  };
  const auto [status, answer] = ask("explain 10.0.0.5");
  EXPECT_EQ(status, 0);
  ASSERT_FALSE(answer.is_discarded());
  EXPECT_EQ(answer["winner"]["vias"],
            nlohmann::json::parse(R"([{"hop":"10.0.0.5","intf":"Ethernet1"}])"));
  const auto [before, none] = ask("explain 10.0.0.5 --at 4");
  EXPECT_EQ(before, 1);
  EXPECT_EQ(none["missing"]["kind"], "cover");

  const auto [told, history] = ask("history 10.0.0.0/24");
  EXPECT_EQ(told, 0);
  const auto& change = history["change"];
  EXPECT_EQ(change["line"], 5);
  EXPECT_EQ(change["type"], "attached_");
  EXPECT_EQ(change["cause"]["prefix"], "10.0.0.0/24");
  EXPECT_TRUE(ask("history 10.0.0.6").second.is_discarded()) << "nothing became of it";

  // The time of the recording is shown if it has one.
  EXPECT_FALSE(change.contains("time"));
  const auto timed =
      runAll("(echo '{\"op\":\"time\",\"at\":\"2026-05-04T10:00:00.5Z\"}'; printf '%s' '" +
             std::string(kScene) +
             "') | TZ=UTC " HOSTROUTE_PROGRAM " history 10.0.0.0/24 --vrf 'a/b%' --replay -");
  EXPECT_NE(timed.text.find("6     2026-05-04 10:00:00.500  10.0.0.5/32"), std::string::npos)
      << timed.text;
}

TEST_F(ProgramTest, ReportsErrors) {
  const std::pair<const char*, const char*> errors[] = {
      {"frob",
       "hostroute: error: no command \"frob\"\nRun hostroute --help for more information.\n"},
      {"replay /", "/: error: is a directory\n"},
      {"types /", "/: error: is a directory\n"},
      {"replay '/no/such\033file'", "/no/such\\x1Bfile: error: No such file or directory\n"},
      {"import --link /", "/: error: is a directory\n"},
      {"routes --table no-such-tables",
       "hostroute routes: error: there are no route tables under \"no-such-tables\"\n"},
      {"types --help 2>&1 > /dev/full", "standard output: error: cannot be written\n"},
  };
  for (const auto& [arguments, text] : errors) {
    const auto command = std::string(HOSTROUTE_PROGRAM " ") + arguments;
    EXPECT_EQ(runAll(command).text, text) << arguments;
  }
}

// A reader that runs while the writer changes FEC and route must never combine an old one with a
// new one.
TEST_F(ProgramTest, RoutesAreReadWholeWhileTheyAreWritten) {
  Writer writer(name);
  writer.feed(kScene);
  routesOnce("10.0.0.5/32");
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
  EXPECT_EQ(after.status, 3);
  EXPECT_EQ(after.text, before.text + "hostroute routes: warning: VRF a/b% IPv4 is left behind\n");
  EXPECT_EQ(run("replay --shared " + name + " /dev/null").status, 0);
  EXPECT_EQ(run("routes --table " + name).status, 1);
}

// The program is stopped when it first checks for a writer. At that moment it has opened the
// tables, but has not read them.
TEST_F(ProgramTest, TablesThatAreRemovedWhileTheyAreReadAreReported) {
  constexpr int kNotTraced = 126;
  Writer writer(name);
  writer.feed(kScene);
  const auto before = routesOnce("10.0.0.5/32");
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(ends[1], STDOUT_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
    if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(kNotTraced);
    ::execl(HOSTROUTE_PROGRAM, HOSTROUTE_PROGRAM, "routes", "--json", "--vrf", "a/b%", "--family",
            "4", "--table", name.c_str(), nullptr);
    ::_exit(127);
  }
  ::close(ends[1]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotTraced) {
    GTEST_SKIP() << "no process may be traced here";
  }
  ASSERT_EQ(::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACESYSGOOD), 0);
  ASSERT_EQ(::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr), 0);
  __ptrace_syscall_info call{};
  do {
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSTOPPED(status)) << "it ended before it asked";
    ASSERT_GT(::ptrace(PTRACE_GET_SYSCALL_INFO, child, sizeof(call), &call), 0);
  } while ((call.op != PTRACE_SYSCALL_INFO_ENTRY || call.entry.nr != SYS_fcntl ||
            call.entry.args[1] != F_OFD_GETLK) &&
           ::ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) == 0);
  for (const char* table : {".a%2Fb%25.route4", ".fec4", ".via4", ".intf4"}) {
    EXPECT_EQ(::shm_unlink(("/hostroute-" + name + table).c_str()), 0) << table;
  }
  ::ptrace(PTRACE_DETACH, child, nullptr, nullptr);
  std::string text;
  char byte = 0;
  while (::read(ends[0], &byte, 1) == 1) text += byte;
  ::close(ends[0]);
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(WEXITSTATUS(status), 3);
  EXPECT_EQ(text, before.text + "hostroute routes: warning: VRF a/b% IPv4 is removed\n");
}

TEST_F(ProgramTest, ADamagedRouteIsReportedAndTheOthersAreShown) {
  Writer writer(name);
  writer.feed(kScene);
  writer.feed(
      "{\"op\":\"initialized\",\"value\":true}\n"
      "{\"op\":\"route\",\"prefix\":\"10.3.0.0/16\",\"metric\":3735928559}\n"
      "{\"op\":\"route\",\"prefix\":\"10.4.0.0/16\"}\n");
  routesOnce("10.4.0.0/16");
  const auto file = "/dev/shm/hostroute-" + name + ".default.route4";
  std::fstream table(file, std::ios::in | std::ios::out | std::ios::binary);
  const auto at = contents(file).find("\xEF\xBE\xAD\xDE");
  ASSERT_NE(at, std::string::npos);
  table.seekp(static_cast<std::streamoff>(at)).put('\0').flush();

  const auto read = run("routes --table " + name);
  EXPECT_EQ(read.status, 1);
  EXPECT_NE(read.text.find("error: "), std::string::npos) << read.text;
  EXPECT_EQ(read.text.find("10.3.0.0/16"), std::string::npos) << read.text;
  EXPECT_NE(read.text.find("10.4.0.0/16"), std::string::npos) << read.text;
}

TEST_F(ProgramTest, ASignalRemovesHeldTables) {
  for (const int signal : {SIGTERM, SIGHUP, SIGINT}) {
    Writer writer(name, true);
    writer.feed(kScene);
    writer.endInput();
    routesOnce("10.0.0.5/32");
    EXPECT_EQ(writer.end(signal), 0) << signal;
    EXPECT_EQ(run("routes --table " + name).status, 1) << signal;
  }
}

TEST_F(ProgramTest, ASignalDuringLoadingLeavesNoTables) {
  std::string events;
  for (int vrf = 0; vrf < 300; ++vrf) {
    events += R"({"op":"initialized","vrf":"v)" + std::to_string(vrf) + "\",\"value\":true}\n";
  }
  for (int round = 0; round < 5; ++round) {
    Writer writer(name);
    writer.feed(events);
    ::usleep(1000U * static_cast<unsigned>(round));
    writer.end(SIGTERM);
    EXPECT_EQ(runAll("ls /dev/shm/hostroute-" + name + ".*").status, 2);
  }
}

TEST_F(ProgramTest, HeldTablesAreRepairedAndTheDamageIsReported) {
  constexpr uint64_t kFec = 3735928559;
  const std::string events =
      std::string(kScene) +
      "{\"op\":\"fec\",\"id\":3735928559,\"family\":4,\"vias\":[{\"intf\":\"Et9\"}]}\n"
      "{\"op\":\"route\",\"vrf\":\"a/b%\",\"prefix\":\"10.3.0.0/16\",\"fec\":3735928559}\n";
  const auto damageRoute = [&](const char* prefix) {
    return Tovan::damage(name + ".a%2Fb%25.route4", *Zemit::Prefix::parse(prefix),
                         Tovan::kValue<Zemit::Prefix>);
  };
  {
    Writer writer(name, true);
    writer.feed(events);
    writer.endInput();
    const auto whole = routesOnce("Et9");
    // Only a writer that holds its tables makes one again that was removed.
    EXPECT_EQ(::shm_unlink(("/hostroute-" + name + ".fec4").c_str()), 0);
    routesOnce("Et9");
    for (const char* prefix : {"10.0.0.5/32", "10.0.0.0/24"}) EXPECT_EQ(damageRoute(prefix), 1U);
    EXPECT_EQ(Tovan::damage(name + ".fec4", kFec, Tovan::kValue<uint64_t> + 8), 1U);
    routesOnce(whole.text);
    EXPECT_EQ(WEXITSTATUS(writer.end(SIGTERM)), 1);
  }
  // An entry that is lost before the input has ended cannot be set again.
  Writer writer(name, true);
  writer.feed(events);
  routesOnce("Et9");
  EXPECT_EQ(damageRoute("10.3.0.0/16"), 1U);
  writer.endInput();
  routesOnce("VRF a/b% IPv4 is incomplete", 3);
  EXPECT_EQ(WEXITSTATUS(writer.end(SIGTERM)), 1);
  EXPECT_EQ(runAll("ls /dev/shm/hostroute-" + name + ".*").status, 2);
}

// The first failure is a closed output pipe.
TEST_F(ProgramTest, AFailedProcessLeavesNoTables) {
  const std::string replay = HOSTROUTE_PROGRAM " replay --shared " + name;
  runAll("(for i in 1 2 3 4 5 6 7 8; do echo '{\"op\":\"dump\"}'; sleep 0.05; done) | " + replay +
         " - | true");
  const std::string left = "ls /dev/shm/hostroute-" + name + ".*";
  EXPECT_EQ(runAll(left).status, 2);
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizers need descriptors themselves";
#endif
  // Each round allows one more descriptor, so that creating another one of the eight tables fails.
  // With the fewest descriptors, even reading the folder fails.
  std::set<std::string> refusals;
  int status = -1;
  for (int limit = 3; status != 0 && limit < 1000; ++limit) {
    const auto tried = runAll("ulimit -n " + std::to_string(limit) + "; " + replay + " /dev/null");
    status = tried.status;
    const auto table = tried.text.find("Tovan table \"" + name + ".");
    if (status == 1 && table != std::string::npos) {
      refusals.insert(tried.text.substr(table));
      EXPECT_NE(tried.text.find("Too many open files"), std::string::npos) << tried.text;
    }
    EXPECT_EQ(runAll(left).status, 2) << "limit " << limit << ": " << tried.text;
  }
  EXPECT_EQ(status, 0);
  EXPECT_GE(refusals.size(), 7U);
}

TEST_F(ProgramTest, ReportsEachFullTableOnce) {
  if (runAll("unshare -m true").status != 0) {
    GTEST_SKIP() << "only root may give itself a small /dev/shm";
  }
  {
    std::ofstream events(scene);
    events << "{\"op\":\"fec\",\"id\":1,\"family\":4,\"vias\":[{\"intf\":\"Ethernet1\"}]}\n"
              "{\"op\":\"route\",\"prefix\":\"10.0.0.0/8\",\"fec\":1}\n"
              "{\"op\":\"initialized\",\"value\":true}\n";
    for (int n = 0; n < 15000; ++n) {
      events << "{\"op\":\"neighbor\",\"intf\":\"Ethernet1\",\"ip\":\"10.1." << n / 250 << '.'
             << n % 250 + 1 << "\"}\n";
    }
  }
  const auto full =
      runAll("unshare -m sh -c 'mount -t tmpfs -o size=600k none /dev/shm && " HOSTROUTE_PROGRAM
             " replay --no-final-dump --shared " +
             name + " " + scene + "'");
  EXPECT_EQ(full.status, 1);
  std::map<std::string, int> told;
  std::istringstream lines(full.text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("hostroute: ")) ++told[line.substr(0, line.find("\" cannot") + 1)];
  }
  EXPECT_FALSE(told.empty()) << full.text;
  for (const auto& [table, times] : told) EXPECT_LE(times, 1) << table;
  EXPECT_NE(full.text.find("No space left on device: it has "), std::string::npos) << full.text;
}

// Runs with an empty /dev/shm of its own. The command line overrides HOSTROUTE_SOCKET.
TEST_F(ProgramTest, WithoutADaemonTheOnlySharedTablesAreShown) {
  if (runAll("unshare -m true").status != 0) {
    GTEST_SKIP() << "only root may give itself a /dev/shm";
  }
  std::ofstream(scene) << kScene;
  const auto shown = runAll("P=" HOSTROUTE_PROGRAM " SCENE=" + scene + " unshare -m sh -c '" + R"(
    export HOSTROUTE_SOCKET=/none
    mount -t tmpfs none /dev/shm
    $P routes; echo $?
    for name in one two; do
      $P replay --shared $name --hold $SCENE > /dev/null 2>&1 & pids="$pids $!"
      $P routes --table $name --wait 60 > /dev/null
      $P routes 10.0.0.7 --socket /other; echo $?
    done
    kill $pids; wait')");
  const std::string refused = ": no hostrouted answers there: No such file or directory\n";
  EXPECT_EQ(shown.text,
            "hostroute routes: error: /none" + refused + "1\nhostroute routes: error: /other" +
                refused + R"(hostroute routes: warning: these are the shared tables of one (--table)
VRF   FAMILY  PREFIX       TYPE        METRIC  PREFERENCE  VIA
a/b%  IPv4    10.0.0.0/24  connected_  0       1           Ethernet1
3
hostroute routes: error: /other)" +
                refused +
                R"(hostroute routes: error: there are shared tables of several; )"
                "choose with --table: one, two\n1\n");
}

TEST_F(ProgramTest, WaitsUntilTheTablesAreReady) {
  EXPECT_EQ(run("routes --wait 0 --table " + name).status, 3);
  Writer writer(name);
  writer.feed("{\"op\":\"route\",\"prefix\":\"10.3.0.0/16\"}\n");
  const auto early = run("routes --wait 0.2 --table " + name);
  EXPECT_EQ(early.status, 3);
  EXPECT_NE(early.text.find("not ready: VRF default IPv4 is not initialized"), std::string::npos)
      << early.text;
  writer.feed("{\"op\":\"initialized\",\"value\":true}\n");
  EXPECT_EQ(run("routes --wait 60 --table " + name).status, 0);
  const auto count = run("routes --count --family 4 --table " + name);
  EXPECT_EQ(count.text,
            "VRF      FAMILY  STATE        ROUTES  TYPES\n"
            "default  IPv4    initialized  1       connected_ 1\n");
  writer.feed(
      "{\"op\":\"startRibReadyVerification\",\"value\":true}\n"
      "{\"op\":\"ribReady\",\"value\":true}\n"
      "{\"op\":\"route\",\"prefix\":\"10.4.0.0/16\"}\n");
  routesOnce("10.4.0.0/16");
  EXPECT_NE(run("routes --count --table " + name).text.find("IPv4    synchronized"),
            std::string::npos);
}

TEST_F(ProgramTest, AFifoWithATablesNameDoesNotBlockReaders) {
  const auto fifo = "/dev/shm/hostroute-" + name + ".default.route4";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const std::string& command :
       {"routes --table " + name, "replay /dev/null --shared " + name}) {
    const auto result = runAll(std::string("timeout 60 " HOSTROUTE_PROGRAM " ") + command);
    EXPECT_EQ(result.status, 1) << command;
    EXPECT_NE(result.text.find("not a regular file"), std::string::npos) << result.text;
  }
  ::unlink(fifo.c_str());
}

TEST_F(ProgramTest, ShowsTheMatchesOfAnAddressAndFilters) {
  Writer writer(name);
  writer.feed(kScene);
  writer.feed(
      "{\"op\":\"route\",\"vrf\":\"a/b%\",\"prefix\":\"0.0.0.0/"
      "0\",\"fec\":2,\"type\":\"staticConfig_\"}\n");
  routesOnce("0.0.0.0/0");
  const std::string table = " --table " + name;
  EXPECT_EQ(run("routes 10.0.0.7" + table).text,
            "VRF   FAMILY  PREFIX       TYPE           METRIC  PREFERENCE  VIA\n"
            "a/b%  IPv4    10.0.0.0/24  connected_     0       1           Ethernet1\n"
            "a/b%  IPv4    0.0.0.0/0    staticConfig_  0       1           Ethernet2\n");
  EXPECT_EQ(run("routes 10.0.0.7 --type staticConfig_ --intf Ethernet2 --json" + table).text,
            run("routes --intf Ethernet2 --json" + table).text);
  EXPECT_EQ(run("routes 2001:db8::1" + table).status, 1);
  const auto unknown = run("routes --vrf nope" + table);
  EXPECT_EQ(unknown.text, "hostroute routes: error: \"" + name + "\" has no VRF \"nope\"\n");
}

TEST_F(ProgramTest, DumpsAreComparedWithOneAnotherAndWithTheTables) {
  std::ofstream(scene) << kScene;
  const std::string program = HOSTROUTE_PROGRAM;
  ASSERT_EQ(run("replay --json " + scene + " > " + scene + ".whole").status, 0);
  const auto diff = [&](const std::string& with, const std::string& input) {
    return runAll(input + program + " diff " + scene + ".whole " + with);
  };
  EXPECT_EQ(diff("-", program + " replay --json-lines " + scene + " | ").status, 0);
  const std::string moved =
      R"(echo '{"op":"neighbor","intf":"Ethernet1","ip":"10.0.0.5","present":false}
               {"op":"neighbor","intf":"Ethernet1","ip":"10.0.0.6"}')";
  const auto changed =
      diff("-", "(cat " + scene + "; " + moved + ") | " + program + " replay --json - | ");
  EXPECT_EQ(changed.status, 1);
  EXPECT_EQ(changed.text,
            "   VRF   FAMILY  PREFIX       TYPE       METRIC  PREFERENCE  VIA\n"
            "-  a/b%  IPv4    10.0.0.5/32  attached_  0       1           10.0.0.5 Ethernet1\n"
            "+  a/b%  IPv4    10.0.0.6/32  attached_  0       1           10.0.0.6 Ethernet1\n");
  EXPECT_EQ(diff(scene, "").status, 2);

  Writer writer(name);
  writer.feed(kScene);
  const auto live = routesOnce("10.0.0.5/32");
  EXPECT_EQ(diff("--table " + name, "").status, 0);
  std::ofstream(scene + ".live") << live.text;
  EXPECT_EQ(diff(scene + ".live", "").status, 0);
  writer.feed("{\"op\":\"neighborTable\",\"intf\":\"Ethernet1\",\"present\":false}\n");
  while (diff("--table " + name, "").status == 0) ::usleep(1000);
  EXPECT_EQ(diff("--table " + name + " --vrf default", "").status, 0);
}

// Traces have no values that differ between two runs, such as the address of an object.
TEST_F(ProgramTest, TwoRunsPrintTheSameTraces) {
  std::ofstream(scene) << kScene
                       << "{\"op\":\"addr\",\"intf\":\"Ethernet1\",\"addr\":\"::1/64\"}\n";
  const auto first = run("replay --trace all --json " + scene);
  EXPECT_NE(first.text.find("\"object 1::"), std::string::npos) << first.text;
  EXPECT_EQ(first.text, run("replay --trace all --json " + scene).text);
}

}  // namespace
