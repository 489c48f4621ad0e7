// The commands of the interactive shell: looking into live entities, and driving them, by name.
#pragma once

#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/Switch.h"
#include "platform/kiv/EntityDirectory.h"

namespace Cli {

/// A command cannot be done. what() says why.
class ShellError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reaches the machines of a switch through reflection alone.
///
/// The roots stand at /ipv4/VRF and /ipv6/VRF.
class Shell {
 public:
  /// \param os        where the commands print; it and `sw` outlive the shell.
  /// \param coloured  whether headings are to stand out on a terminal.
  Shell(const Daemon::Switch& sw, std::ostream& os, bool coloured);

  /// Does what one line says. \returns false when it ends the shell.
  /// \throws ShellError when the command is unknown or malformed, and what the entities throw.
  bool execute(std::string_view line);
  /// What the word that ends `line` may be completed to, in ascending order.
  static std::vector<std::string> completions(std::string_view line);

 private:
  void list(std::string_view path);
  void get(std::string_view path);
  void set(std::string_view path, std::string_view value);
  void create(std::string_view path, std::string_view arguments);
  void erase(std::string_view path);
  void call(std::string_view path, std::string_view method, std::string_view arguments);
  void help();

  std::ostream& os_;
  const bool coloured_;
  std::vector<std::unique_ptr<Kiv::EntityDirectory::Mount>> mounts_;
};

}  // namespace Cli
