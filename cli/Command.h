// The common parts of all commands: exit statuses, errors and input files.
#pragma once

#include <fstream>
#include <istream>
#include <stdexcept>
#include <string>
#include <string_view>

namespace Cli {

// Exit statuses.
inline constexpr int kFailed = 1;   ///< the engine, the output or a table failed
inline constexpr int kMisused = 2;  ///< the command line or the input is malformed

/// Ends a command. what() is "PLACE: error: MESSAGE". PLACE is the file, perhaps with a line, or
/// the command.
class CommandError : public std::runtime_error {
 public:
  CommandError(std::string_view place, std::string_view message, int status);
  int status() const { return status_; }

 private:
  int status_;
};

/// "PLACE: error: MESSAGE", safe for a terminal.
std::string errorText(std::string_view place, std::string_view message);

/// Flushes standard output. \throws CommandError when it cannot be written.
void requireOutput();

/// The error message for a text that is neither an address nor a prefix; empty when it is one of
/// them. For CLI::Option::check().
std::string refusedAddress(const std::string& text);

/// An input file; the name "-" means standard input.
class Input {
 public:
  /// \throws CommandError when it cannot be opened, or is a directory.
  explicit Input(std::string name);

  const std::string& name() const { return name_; }
  bool isStandardInput() const { return name_ == "-"; }
  std::istream& stream();

 private:
  const std::string name_;
  std::ifstream file_;
};

}  // namespace Cli
