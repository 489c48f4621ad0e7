// Interface names as text. Linux allows any bytes in them.
#include "linux/Utf8.h"

namespace Linux {

size_t utf8Length(std::string_view text) {
  if (text.empty()) return 0;
  const auto byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned lead = byte(0);
  if (lead < 0x80) return 1;
  const size_t length = lead >= 0xC2 && lead < 0xE0   ? 2
                        : lead >= 0xE0 && lead < 0xF0 ? 3
                        : lead >= 0xF0 && lead < 0xF5 ? 4
                                                      : 0;
  if (length == 0 || length > text.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  // An overlong form, half of a surrogate pair, or a number above the last character.
  const unsigned second = byte(1);
  if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second >= 0xA0) ||
      (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second >= 0x90)) {
    return 0;
  }
  return length;
}

bool isUtf8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = utf8Length(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

std::string printable(std::string_view text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string shown;
  while (!text.empty()) {
    const size_t length = utf8Length(text);
    const auto byte = static_cast<unsigned char>(text[0]);
    if (length == 0 || byte < 0x20 || byte == 0x7F) {
      shown += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
      text.remove_prefix(1);
    } else {
      shown.append(text.substr(0, length));
      text.remove_prefix(length);
    }
  }
  return shown;
}

}  // namespace Linux
