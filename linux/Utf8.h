// Interface names as text: Linux lets them have any bytes.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Linux {

/// How many bytes the first character of `text` has in UTF-8 (RFC 3629); 0 when it is not
/// well-formed.
size_t utf8Length(std::string_view text);
bool isUtf8(std::string_view text);

/// `text` for people: bytes that are not UTF-8 and control characters become "\xff".
std::string printable(std::string_view text);

}  // namespace Linux
