// The `hostroute shell` command: the replay before the shell, and the input of lines.
#include "cli/ShellCommand.h"

#include <editline/readline.h>

#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "cli/Command.h"
#include "cli/Shell.h"
#include "cli/Terminal.h"
#include "platform/kiv/containers/Exception.h"
#include "replay/Output.h"
#include "replay/Player.h"
#include "replay/Printable.h"

namespace Cli {
namespace {

constexpr const char* kShellDescription =
    R"(Replays the recorded inputs of a switch and then executes commands. The commands read and
change entities, attributes and methods by their names.)";

constexpr const char* kShellFooter =
    R"(On a terminal, lines can be edited, recalled, and completed with the tab key. Ctrl-C drops a
line, Ctrl-D ends the shell, `help` lists the commands. The typed lines are stored in
hostroute/history under $XDG_STATE_HOME or ~/.local/state. From a pipe, each line is one command.
If a command fails, the next ones are still executed. A line of a replay is a command, too.

Examples:
  hostroute shell examples/leaf.jsonl
  hostroute import | hostroute shell -       this machine; the commands come from the terminal
  echo 'get /ipv4/default/receiveAddrToIntfName' | hostroute shell examples/leaf.jsonl
  echo 'call /ipv4/default/routeSm doFibLookup 10.1.10.0/24' | hostroute shell examples/leaf.jsonl

Exit status: 0 done; 1 a command from a pipe failed, or the output cannot be written; 2 the command
line is malformed, or the recorded inputs cannot be read.)";

struct FreeText {
  void operator()(char* text) const { std::free(text); }
};

/// Returns the completions one by one to the readline library, which frees them.
char* nextCompletion(const char* /*word*/, int state) {
  static std::vector<std::string> candidates;
  if (state == 0) {
    candidates = Shell::completions(
        std::string_view(rl_line_buffer).substr(0, static_cast<size_t>(rl_point)));
  }
  const auto at = static_cast<size_t>(state);
  return at < candidates.size() ? ::strdup(candidates[at].c_str()) : nullptr;
}

char** completions(const char* word, int /*start*/, int /*end*/) {
  rl_attempted_completion_over = 1;  // not with the names of files
  // A completed path may continue, so no blank follows it.
  rl_completion_append_character = *word == '/' ? 0 : ' ';
  return rl_completion_matches(word, nextCompletion);
}

/// During its lifetime, Ctrl-C clears the edited line instead of ending the process. A running
/// command is still interrupted.
class InterruptKeyOff {
 public:
  InterruptKeyOff() : isKnown_(::tcgetattr(STDIN_FILENO, &former_) == 0) {
    if (!isKnown_) return;
    auto changed = former_;
    changed.c_cc[VINTR] = _POSIX_VDISABLE;
    ::tcsetattr(STDIN_FILENO, TCSADRAIN, &changed);
  }
  InterruptKeyOff(const InterruptKeyOff&) = delete;
  InterruptKeyOff& operator=(const InterruptKeyOff&) = delete;
  ~InterruptKeyOff() {
    if (isKnown_) ::tcsetattr(STDIN_FILENO, TCSADRAIN, &former_);
  }

 private:
  struct termios former_ {};
  const bool isKnown_;
};

/// Reads a line from the terminal, with editing and history.
std::optional<std::string> editedLine() {
  const InterruptKeyOff interruptKeyOff;
  const std::unique_ptr<char, FreeText> line(::readline("hostroute> "));
  if (!line) {
    std::cout << '\n';
    return std::nullopt;
  }
  if (*line != '\0') ::add_history(line.get());
  return line.get();
}

std::optional<std::string> plainLine() {
  std::string line;
  if (!Replay::readLine(std::cin, line)) return std::nullopt;
  return line;
}

/// The file with the history of typed lines; empty when there is no directory for it.
std::string historyFile() {
  const auto variable = [](const char* name) {
    const char* value = std::getenv(name);
    return std::filesystem::path(value == nullptr ? "" : value);
  };
  auto folder = variable("XDG_STATE_HOME");
  if (folder.empty()) {
    const auto home = variable("HOME");
    if (home.empty()) return {};
    folder = home / ".local" / "state";
  }
  folder /= "hostroute";
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  return error ? std::string() : (folder / "history").string();
}

/// Loads the history of typed lines and saves it at the end.
class Editor {
 public:
  Editor() : history_(historyFile()) {
    ::rl_initialize();
    ::using_history();
    ::stifle_history(kLines);
    if (!history_.empty()) ::read_history(history_.c_str());
    rl_attempted_completion_function = completions;
    static char wordBreaks[] = " \t";
    rl_completer_word_break_characters = wordBreaks;
    ::rl_parse_and_bind("bind ^C em-kill-line");
  }
  Editor(const Editor&) = delete;
  Editor& operator=(const Editor&) = delete;
  ~Editor() {
    if (history_.empty()) return;
    const auto former = ::umask(S_IRWXG | S_IRWXO);
    ::write_history(history_.c_str());
    ::umask(former);
  }

 private:
  static constexpr int kLines = 1000;
  const std::string history_;
};

/// Makes the terminal the standard input, after the recording was read from the former one.
void turnToTerminal() {
  if (std::freopen("/dev/tty", "r", stdin) == nullptr) {
    throw CommandError("standard input",
                       "it held the recorded inputs, and there is no terminal for the commands",
                       kMisused);
  }
}

int runShell(const std::string& path) {
  Input input(path);
  Daemon::Switch sw;
  const auto output = Replay::textOutput(std::cout, tableStyle());
  Replay::Player player(sw, *output, {.dumpsAtEnd = false});
  const auto outcome = player.run(input.stream(), path, std::cout, std::cerr, showProgress);
  if (outcome == Replay::Player::Outcome::Refused) return kMisused;
  if (input.isStandardInput()) turnToTerminal();

  const bool isTyped = isTerminal(STDIN_FILENO);
  std::optional<Editor> editor;
  if (isTyped) editor.emplace();
  std::optional<Shell> shell;
  try {
    shell.emplace(sw, player, std::cout, tableStyle());
  } catch (const Kiv::Exception& error) {
    throw CommandError(path, error.what(), kMisused);
  }
  bool failed = outcome == Replay::Player::Outcome::Failed;
  for (size_t number = 1; std::cout; ++number) {
    const auto line = isTyped ? editedLine() : plainLine();
    if (!line) break;
    std::string problem;
    bool goesOn = true;
    try {
      // The rest of the long line would be read as a line of its own.
      goesOn = line->size() <= Replay::Player::kMaxLineBytes;
      if (!goesOn) throw ShellError("the line is too long");
      goesOn = shell->execute(*line);
      problem = player.takeFailures();
    } catch (const std::exception& error) {
      problem = error.what();
    }
    std::cout.flush();
    if (!problem.empty()) {
      const std::string place = isTyped ? "hostroute shell" : "-:" + std::to_string(number);
      std::cerr << errorText(place, problem) << '\n';
      failed = failed || !isTyped;
    }
    if (!goesOn) break;
  }
  requireOutput();
  return failed ? kFailed : 0;
}

}  // namespace

void addShellCommand(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("shell", kShellDescription);
  const auto path = std::make_shared<std::string>();
  command->add_option("file", *path, "The recorded inputs; - for standard input")
      ->type_name("FILE")
      ->required();
  command->footer(kShellFooter);
  command->callback([path, &exitCode] { exitCode = runShell(*path); });
}

}  // namespace Cli
