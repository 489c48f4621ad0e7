// The commands of the interactive shell: looking into live entities, and driving them, by name.
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
  /// \param player  does what lines of a replay say, on `sw`.
  /// \param os      where the commands print. All three outlive the shell.
  Shell(const Daemon::Switch& sw, Replay::Player& player, std::ostream& os,
        const Replay::TextStyle& style = {});

  /// Does what one line says, a command or a line of a replay. \returns false when it ends the
  /// shell. \throws ShellError when the command is unknown or malformed, what the entities throw,
  /// and what Replay::Player::apply() does.
  bool execute(std::string_view line);
  /// What the word that ends `line` may be completed to, in ascending order.
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
