// The commands of the interactive shell, which reads and changes live entities by name.
#pragma once

#include <functional>
#include <memory>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "daemon/Switch.h"
#include "platform/kiv/reflection/EntityDirectory.h"
#include "replay/Player.h"
#include "replay/TextTable.h"

namespace Cli {

/// A command failed. what() gives the reason.
class ShellError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Accesses the machines of a switch only through reflection.
///
/// The roots have the paths /ipv4/VRF and /ipv6/VRF.
class Shell {
 public:
  /// The three references must stay valid.
  /// \param player  applies lines of a replay to `sw`.
  /// \param os      the output of the commands.
  Shell(const Daemon::Switch& sw, Replay::Player& player, std::ostream& os,
        const Replay::TextStyle& style = {});

  /// Executes one line: a command or a line of a replay. \returns false when the line ends the
  /// shell. \throws ShellError when the command is unknown or malformed; the exceptions of the
  /// entities and
  ///   of Replay::Player::apply().
  bool execute(std::string_view line);
  /// The possible completions of the last word of `line`, in ascending order.
  static std::vector<std::string> completions(std::string_view line);

 private:
  void mountVrfs();
  void list(std::string_view path);
  void get(std::string_view path);
  void set(std::string_view path, std::string_view value);
  void create(std::string_view path, std::string_view arguments);
  void erase(std::string_view path);
  void call(std::string_view path, std::string_view method, std::string_view arguments);
  void help();

  const Daemon::Switch& sw_;
  Replay::Player& player_;
  std::ostream& os_;
  const Replay::TextStyle style_;
  std::set<std::string, std::less<>> mountedVrfs_;
  std::vector<std::unique_ptr<Kiv::EntityDirectory::Mount>> mounts_;
};

}  // namespace Cli
