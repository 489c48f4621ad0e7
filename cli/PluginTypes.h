// Reads the type list of a plug-in without loading it.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace Cli {

/// A file is not a readable plug-in. what() is the file's name and the reason.
class PluginError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The names of the types that the plug-in in `file` provides, as its section .kiv.type lists them.
///
/// \throws PluginError when the file cannot be read, is not an ELF file, is damaged, or lacks the
///   section.
std::vector<std::string> pluginTypes(const std::string& file);

}  // namespace Cli
