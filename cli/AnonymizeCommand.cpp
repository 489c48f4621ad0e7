// The `hostroute anonymize` command.
#include "cli/AnonymizeCommand.h"

#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "cli/Anonymizer.h"
#include "cli/Command.h"
#include "replay/Event.h"
#include "replay/Player.h"

namespace Cli {
namespace {

constexpr const char* kAnonymizeDescription =
    R"(Prints a recording with other addresses, MAC addresses and names, so that it can be shared.
Prefixes keep their lengths and nesting. An address or a name is replaced in the same way
everywhere, so that the machines end in the same state.)";

constexpr const char* kAnonymizeFooter =
    R"(Loopback, link-local, multicast and reserved prefixes stay, and so do some leading bits of
other addresses, the VRF "default" and the times. Comments are left out. Without --key, the former
addresses cannot be found, not even by guessing. With --key, the key is enough to find them.

Examples:
  hostroute anonymize incident.jsonl > report.jsonl
  hostroute anonymize --key SECRET incident.jsonl.1 > report.jsonl.1    as other files with that key

Exit status: 0 done; 1 the output cannot be written; 2 the command line is malformed, the input
cannot be read, or one of its lines is no event.)";

struct AnonymizeOptions {
  std::string file;
  std::string key;
};

Anonymizer::Key randomKey() {
  std::random_device device;
  const auto word = [&] { return uint64_t{device()} << 32 | device(); };
  return {word(), word()};
}

void anonymize(const AnonymizeOptions& options) {
  Input input(options.file);
  Anonymizer anonymizer(options.key.empty() ? randomKey() : Anonymizer::keyOf(options.key));
  std::vector<std::string> lines;
  for (std::string line; Replay::readLine(input.stream(), line);) {
    anonymizer.note(line);
    lines.push_back(line);
  }
  if (input.stream().bad()) throw CommandError(input.name(), "cannot be read", kMisused);
  for (size_t i = 0; i < lines.size(); ++i) {
    const auto start = lines[i].find_first_not_of(" \t\r");
    if (start == std::string::npos || lines[i][start] == '#') continue;
    try {
      std::cout << anonymizer.line(lines[i]) << '\n';
    } catch (const Replay::EventError& error) {
      std::cout.flush();
      throw CommandError(input.name() + ":" + std::to_string(i + 1), error.what(), kMisused);
    }
  }
  requireOutput();
}

}  // namespace

void addAnonymizeCommand(CLI::App& app) {
  const auto options = std::make_shared<AnonymizeOptions>();
  auto* command = app.add_subcommand("anonymize", kAnonymizeDescription);
  command->add_option("file", options->file, "The recording; - for standard input")
      ->type_name("FILE")
      ->required();
  command->add_option("--key", options->key, "The key of the mapping; random by default")
      ->type_name("TEXT");
  command->footer(kAnonymizeFooter);
  command->callback([options] { anonymize(*options); });
}

}  // namespace Cli
