// Tests of the commands with a daemon that does not answer, or answers with errors.
#include "cli/ControlClient.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/Command.h"
#include "cli/LiveAnswers.h"
#include "cli/LiveCommands.h"
#include "cli/OperateCommands.h"
#include "cli/RoutesCommand.h"
#include "cli/StatusCommand.h"

namespace Cli {
namespace {

/// A daemon in the test process, with its socket.
class FakeDaemon {
 public:
  FakeDaemon() {
    ::unlink(path.c_str());
    listener_ = socketTo(::bind);
    EXPECT_EQ(::listen(listener_, 0), 0);
  }
  FakeDaemon(const FakeDaemon&) = delete;
  FakeDaemon& operator=(const FakeDaemon&) = delete;
  ~FakeDaemon() {
    ends_ = true;
    if (thread_.joinable()) thread_.join();
    for (const int fd : waiting_) ::close(fd);
    ::close(listener_);
    ::unlink(path.c_str());
  }

  /// Fills the queue of connections that wait for accept().
  void fillQueue() {
    for (int fd = 0; fd >= 0;) {
      fd = socketTo(::connect, SOCK_NONBLOCK);
      if (fd >= 0) waiting_.push_back(fd);
    }
  }
  /// Answers each request with these lines.
  void answer(std::string lines) {
    thread_ = std::thread([this, lines = std::move(lines)] {
      while (const int fd = accepted()) {
        std::array<char, 4096> request;
        while (::recv(fd, request.data(), request.size(), 0) > 0) {
          (void)::send(fd, lines.data(), lines.size(), MSG_NOSIGNAL);
        }
        ::close(fd);
      }
    });
  }
  /// Answers with an endless line, byte by byte, until the client disconnects.
  void drip() {
    thread_ = std::thread([this] {
      while (const int fd = accepted()) {
        while (::send(fd, " ", 1, MSG_NOSIGNAL) == 1) ::usleep(1000);
        ::close(fd);
      }
    });
  }

  const std::string path =
      testing::TempDir() + "/fake-daemon-" + std::to_string(::getpid()) + ".sock";

 private:
  template <class Call>
  int socketTo(Call call, int flags = 0) {
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (call(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return fd;
    ::close(fd);
    return -1;
  }
  /// The next client; 0 at the end of the test.
  int accepted() const {
    while (!ends_) {
      pollfd readable{.fd = listener_, .events = POLLIN, .revents = 0};
      if (::poll(&readable, 1, 20) == 1) return ::accept(listener_, nullptr, nullptr);
    }
    return 0;
  }

  int listener_ = -1;
  std::vector<int> waiting_;
  std::atomic<bool> ends_ = false;
  std::thread thread_;
};

/// The output of a command and its error.
struct Result {
  std::string output;
  std::string errors;
  std::string failure;
  int status = 0;
};

Result run(const FakeDaemon& daemon, const std::string& command) {
  Result result;
  CLI::App app;
  addRoutesCommand(app, result.status);
  addAnswerCommands(app, result.status);
  addStatusCommands(app, result.status);
  addLiveCommands(app, result.status);
  addOperateCommands(app, result.status);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  try {
    app.parse(command + " --socket " + daemon.path);
  } catch (const CommandError& error) {
    result.failure = error.what();
    result.status = error.status();
  }
  result.output = testing::internal::GetCapturedStdout();
  result.errors = testing::internal::GetCapturedStderr();
  return result;
}

class ControlClientTest : public testing::Test {
 protected:
  void expectGivenUp() {
    const ControlOptions options{.socket = daemon.path, .patience = std::chrono::milliseconds(50)};
    try {
      askOnce(options, "hostroute status", {{"request", "status"}});
      ADD_FAILURE();
    } catch (const CommandError& error) {
      EXPECT_EQ(error.what(),
                "hostroute status: error: " + daemon.path + ": the daemon does not answer");
      EXPECT_EQ(error.status(), kFailed);
    }
  }

  FakeDaemon daemon;
};

TEST_F(ControlClientTest, GivesUpIfTheDaemonDoesNotAnswer) {
  daemon.drip();
  expectGivenUp();
}

TEST_F(ControlClientTest, GivesUpIfTheDaemonDoesNotAccept) {
  daemon.fillQueue();
  expectGivenUp();
}

TEST_F(ControlClientTest, ReportsMalformedAnswersWithTheDaemonsName) {
  daemon.answer(
      R"({"ok":true,"status":[],"metrics":[{"samples":3}],"explanation":7,"level":{},)"
      R"("file":0})"
      "\n{\"neighbor\":1,\"route\":[],\"change\":\"x\",\"trace\":true}\n{\"end\":true}\n");
  for (const char* command :
       {"routes", "neighbors", "monitor", "status", "counters", "metrics", "explain 10.0.0.5",
        "history 10.0.0.5", "log-level", "trace 10.0.0.5", "record stop"}) {
    const auto result = run(daemon, command);
    EXPECT_NE(result.failure.find(daemon.path + ": the answer is not understood"),
              std::string::npos)
        << command << ": " << result.failure;
    EXPECT_EQ(result.status, kFailed) << command;
  }
}

TEST_F(ControlClientTest, PrintsTheDaemonsReadErrorsAndFails) {
  daemon.answer(
      "{\"ok\":true}\n{\"error\":\"10.0.0.5/32 is damaged\"}\n{\"text\":\"the rest\"}\n"
      "{\"end\":true}\n");
  auto result = run(daemon, "dump");
  EXPECT_EQ(result.output, "the rest\n");
  EXPECT_EQ(result.errors, "hostroute dump: error: 10.0.0.5/32 is damaged\n");
  EXPECT_NE(result.failure.find("could not read all"), std::string::npos) << result.failure;
  EXPECT_EQ(result.status, kFailed);
}

TEST_F(ControlClientTest, EscapesControlCharactersInAnswers) {
  daemon.answer(R"({"ok":true,"metrics":[{"name":"a\u001b[2J","type":"gauge","help":"b\u001bc\nd",)"
                R"("samples":[{"labels":{"l\u001b":"v\u001b"},"value":1}]}]})"
                "\n{\"text\":\"a\\u001b[31mb\"}\n{\"end\":true}\n");
  const auto metrics = run(daemon, "metrics --json").output;
  EXPECT_NE(metrics.find("\"type\":\"gauge\""), std::string::npos) << metrics;
  EXPECT_EQ(metrics, run(daemon, "counters --json").output);
  for (const char* command : {"dump", "metrics", "counters --help-texts"}) {
    const auto result = run(daemon, command);
    EXPECT_EQ(result.failure, "") << command;
    EXPECT_NE(result.output.find("\\x1B"), std::string::npos) << command << result.output;
    EXPECT_EQ(result.output.find('\033'), std::string::npos) << command;
  }
}

}  // namespace
}  // namespace Cli
