// What a plug-in says of itself, without loading it.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

namespace Cli {

/// A file is no plug-in that can be read. what() says why, beginning with the file's name.
class PluginError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The names of the types that the plug-in in `file` provides, as its section .kiv.type lists them.
///
/// \throws PluginError when the file cannot be read, is no ELF file, is damaged, or has no such
/// section.
std::vector<std::string> pluginTypes(const std::string& file);

}  // namespace Cli
