// The `hostroute types` command.
#include "cli/TypesCommand.h"

#include <iostream>
#include <memory>
#include <string>

#include "cli/Command.h"
#include "cli/PluginTypes.h"
#include "replay/Json.h"
#include "replay/Printable.h"

namespace Cli {
namespace {

constexpr const char* kTypesDescription =
    R"(Lists the types that a plug-in provides, in the order in which it registers them. The file is
read and not loaded: none of its code runs, and it may be built for another machine.)";

constexpr const char* kTypesFooter = R"(Examples:
  hostroute types /usr/lib/x86_64-linux-gnu/libhostroute.so
  hostroute types --json libhostroute.so        one JSON object for each type

Exit status: 0 done; 1 the output failed; 2 the command line is malformed, or the file cannot be
read, is no ELF file, is damaged, or is no plug-in.)";

struct TypesOptions {
  std::string file;
  bool json = false;
};

void showTypes(const TypesOptions& options) {
  for (const auto& type : pluginTypes(options.file)) {
    if (options.json) {
      std::cout << Replay::JsonObject().add("type", Replay::jsonString(type)).text() << '\n';
    } else {
      std::cout << type << '\n';
    }
  }
  requireOutput();
}

}  // namespace

void addTypesCommand(CLI::App& app, int& exitCode) {
  auto* command = app.add_subcommand("types", kTypesDescription);
  const auto options = std::make_shared<TypesOptions>();
  command->add_option("file", options->file, "The plug-in; - for standard input")
      ->type_name("FILE.so")
      ->required();
  command->add_flag("--json", options->json, "Print one JSON object for each type");
  command->footer(kTypesFooter);
  command->callback([options, &exitCode] {
    try {
      showTypes(*options);
    } catch (const PluginError& error) {
      std::cout.flush();
      std::cerr << Replay::printable(error.what()) << '\n';
      exitCode = kMisused;
    }
  });
}

}  // namespace Cli
