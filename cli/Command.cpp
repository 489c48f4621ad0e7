#include "cli/Command.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <system_error>
#include <utility>

#include "daemon/Family.h"
#include "replay/Printable.h"

namespace Cli {

CommandError::CommandError(std::string_view place, std::string_view message, int status)
    : std::runtime_error(errorText(place, message)), status_(status) {}

std::string errorText(std::string_view place, std::string_view message) {
  return Replay::printable(place) + ": error: " + Replay::printable(message);
}

void requireOutput() {
  if (!std::cout.flush()) throw CommandError("standard output", "cannot be written", kFailed);
}

std::string refusedAddress(const std::string& text) {
  const auto isOf = [&text](auto family) {
    using F = decltype(family);
    const auto prefix = F::Prefix::parse(text);
    return F::Addr::parse(text) || (prefix && !isNull(*prefix));
  };
  return isOf(Daemon::Ipv4()) || isOf(Daemon::Ipv6())
             ? ""
             : text + " is neither an address nor a prefix";
}

Input::Input(std::string name) : name_(std::move(name)) {
  if (isStandardInput()) return;
  if (name_.empty()) throw CommandError("hostroute", "the name of a file is empty", kMisused);
  std::error_code error;
  if (std::filesystem::is_directory(name_, error)) {
    throw CommandError(name_, "is a directory", kMisused);
  }
  file_.open(name_, std::ios::binary);
  if (!file_) throw CommandError(name_, std::strerror(errno), kMisused);
}

std::istream& Input::stream() {
  return isStandardInput() ? std::cin : file_;
}

}  // namespace Cli
