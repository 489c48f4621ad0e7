// What all commands have in common: how they end, what their errors look like, what they read.
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

/// Ends a command. what() is "PLACE: error: MESSAGE", where PLACE is the file and perhaps the line,
/// or the command itself.
class CommandError : public std::runtime_error {
 public:
  CommandError(std::string_view place, std::string_view message, int status);
  int status() const { return status_; }

 private:
  int status_;
};

/// "PLACE: error: MESSAGE", safe for a terminal.
std::string errorText(std::string_view place, std::string_view message);

/// Ends the command when what it has printed cannot be written. \throws CommandError.
void requireOutput();

/// A file to read, or standard input where it is called "-".
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
