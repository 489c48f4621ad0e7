// Makes texts from untrusted sources safe for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace Replay {

/// `text` with escapes for everything that a terminal would interpret instead of showing it:
/// control characters, direction marks, characters without width, and bytes that are not UTF-8. A
/// line feed becomes "\n", an escape character "\x1B", another code point for instance "\u202E".
std::string printable(std::string_view text);

}  // namespace Replay
