// Percent-encoding (RFC 3986, section 2.1).
#pragma once

#include <string>
#include <string_view>

namespace Kiv {

/// `text` with each byte encoded that is not plain.
std::string percentEncoded(std::string_view text, bool (*isPlain)(char));

/// The text that was encoded. A "%" that two hexadecimal digits do not follow stands for itself.
std::string percentDecoded(std::string_view text);

}  // namespace Kiv
