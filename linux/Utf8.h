// Interface names as text. Linux allows any bytes in them.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Linux {

/// The number of bytes of the first UTF-8 character of `text` (RFC 3629); 0 when it is malformed.
size_t utf8Length(std::string_view text);
bool isUtf8(std::string_view text);

/// `text` with bytes that are not UTF-8 and control characters written as "\xff".
std::string printable(std::string_view text);

}  // namespace Linux
