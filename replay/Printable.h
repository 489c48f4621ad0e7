// Texts from elsewhere, made safe for a terminal.
#pragma once

#include <string>
#include <string_view>

namespace Replay {

/// `text` with escapes for all that a terminal would act on instead of showing it: control
/// characters, marks that turn the direction of writing or take no room, and bytes that are not
/// UTF-8. A line feed is "\n", an escape character "\x1B", a code point "\u202E".
std::string printable(std::string_view text);

}  // namespace Replay
