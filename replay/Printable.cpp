#include "replay/Printable.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace Replay {
namespace {

constexpr char kDigits[] = "0123456789ABCDEF";

void appendByte(std::string& text, char byte) {
  const auto value = static_cast<unsigned char>(byte);
  switch (byte) {
    case '\n':
      text += "\\n";
      return;
    case '\r':
      text += "\\r";
      return;
    case '\t':
      text += "\\t";
      return;
    default:
      text.append({'\\', 'x', kDigits[value >> 4], kDigits[value & 0xF]});
  }
}

/// The code point at the start of a text. `bytes` is 0 when the text starts with no valid one.
struct CodePoint {
  size_t bytes = 0;
  uint32_t value = 0;
};

CodePoint decoded(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  const size_t bytes = first < 0xC2   ? 0
                       : first < 0xE0 ? 2
                       : first < 0xF0 ? 3
                       : first < 0xF5 ? 4
                                      : 0;
  if (bytes == 0 || text.size() < bytes) return {};
  uint32_t value = first & (0x7FU >> bytes);
  for (size_t i = 1; i < bytes; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xC0) != 0x80) return {};
    value = value << 6 | (next & 0x3F);
  }
  constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = value >= 0xD800 && value <= 0xDFFF;
  if (value < kSmallest[bytes] || value > 0x10FFFF || isSurrogate) return {};
  return {.bytes = bytes, .value = value};
}

/// True for C1 control characters, line separators, direction marks and characters without width.
bool isHarmful(uint32_t value) {
  return value < 0xA0 || (value >= 0x200B && value <= 0x200F) ||
         (value >= 0x2028 && value <= 0x202E) || (value >= 0x2060 && value <= 0x206F) ||
         value == 0xFEFF;
}

}  // namespace

std::string printable(std::string_view text) {
  const auto isPlain = [](char c) { return c >= ' ' && c <= '~'; };
  if (std::all_of(text.begin(), text.end(), isPlain)) return std::string(text);
  std::string shown;
  while (!text.empty()) {
    size_t taken = 1;
    if (isPlain(text[0])) {
      shown += text[0];
    } else if (const auto point = decoded(text); point.bytes == 0) {
      appendByte(shown, text[0]);
    } else {
      taken = point.bytes;
      if (!isHarmful(point.value)) {
        shown += text.substr(0, taken);
      } else {
        shown += "\\u";
        for (int shift = 12; shift >= 0; shift -= 4) shown += kDigits[point.value >> shift & 0xF];
      }
    }
    text.remove_prefix(taken);
  }
  return shown;
}

}  // namespace Replay
