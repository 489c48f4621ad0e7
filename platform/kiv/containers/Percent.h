// Percent-encoding (RFC 3986, section 2.1).
#pragma once

#include <string>
#include <string_view>

namespace Kiv {

/// `text` with every byte encoded for which `isPlain` returns false.
std::string percentEncoded(std::string_view text, bool (*isPlain)(char));

/// Decodes `text`. A "%" without two hexadecimal digits after it stands for itself.
std::string percentDecoded(std::string_view text);

}  // namespace Kiv
