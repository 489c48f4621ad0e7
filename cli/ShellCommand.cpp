// The command around the shell: the replay before it, and the lines that it is given.
#include "cli/ShellCommand.h"

#include <editline/readline.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/Shell.h"
#include "cli/Terminal.h"
#include "platform/kiv/Exception.h"
#include "replay/Output.h"
#include "replay/Player.h"

namespace Cli {
namespace {

constexpr const char* kDescription =
    R"(Feeds a switch's recorded inputs to the host-route state machines, and then takes commands on
them: every entity, attribute and method is reached by its name.)";

constexpr const char* kFooter =
    R"(On a terminal, lines can be edited, recalled and completed with the tab key; `help` lists the
commands. From a pipe, each line is one command, and one that fails does not keep the rest from
running.

Examples:
  hostroute shell examples/leaf.jsonl
  echo 'get /ipv4/default/receiveAddrToIntfName' | hostroute shell examples/leaf.jsonl
  echo 'call /ipv4/default/routeSm doFibLookup 10.1.10.0/24' | hostroute shell examples/leaf.jsonl

Exit status: 0 done; 1 a command failed that was not typed; 2 the command line is malformed, or the
recorded inputs cannot be read.)";

constexpr int kFailed = 1;
constexpr int kMisused = 2;

struct FreeText {
  void operator()(char* text) const { std::free(text); }
};

/// Gives the library the completions one by one; it frees them.
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
  // A path may go on.
  rl_completion_append_character = *word == '/' ? 0 : ' ';
  return rl_completion_matches(word, nextCompletion);
}

/// A line that is typed, with editing and history.
std::optional<std::string> editedLine() {
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
  if (!std::getline(std::cin, line)) return std::nullopt;
  return line;
}

int runShell(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    std::cerr << path << ": error: " << std::strerror(errno) << '\n';
    return kMisused;
  }
  Daemon::Switch sw;
  const auto output = Replay::textOutput(std::cout, isColoured());
  {
    Replay::Player player(sw, *output, {.dumpsAtEnd = false});
    if (player.run(file, path, std::cout, std::cerr) == Replay::Player::Outcome::Refused) {
      return kMisused;
    }
  }

  const bool isTyped = isTerminal(STDIN_FILENO);
  if (isTyped) {
    ::using_history();
    rl_attempted_completion_function = completions;
    static char wordBreaks[] = " \t";
    rl_completer_word_break_characters = wordBreaks;
  }
  std::optional<Shell> shell;
  try {
    shell.emplace(sw, std::cout, isColoured());
  } catch (const Kiv::Exception& error) {
    std::cerr << path << ": error: " << error.what() << '\n';
    return kMisused;
  }
  bool failed = false;
  for (size_t number = 1;; ++number) {
    const auto line = isTyped ? editedLine() : plainLine();
    if (!line) break;
    try {
      if (!shell->execute(*line)) break;
    } catch (const std::exception& error) {
      std::cout.flush();
      if (!isTyped) std::cerr << "line " << number << ": ";
      std::cerr << "error: " << error.what() << '\n';
      failed = failed || !isTyped;
    }
    std::cout.flush();
  }
  if (!std::cout) {
    std::cerr << "standard output: error: cannot be written\n";
    return kFailed;
  }
  return failed ? kFailed : 0;
}

}  // namespace

void addShellCommand(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("shell", kDescription);
  const auto path = std::make_shared<std::string>();
  command->add_option("file", *path, "The recorded inputs")->type_name("FILE")->required();
  command->footer(kFooter);
  command->callback([path, &exitCode] { exitCode = runShell(*path); });
}

}  // namespace Cli
