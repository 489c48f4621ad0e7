// The text forms of values: printing to a stream and conversion to a string.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace Zemit {

/// A value that can write its own text. `write(out)` writes at most `kMaxText` bytes to `out` and
/// returns the end of the text.
template <class T>
concept HasText = requires(const T& value, char* out) {
  { value.write(out) } -> std::same_as<char*>;
  { T::kMaxText } -> std::convertible_to<size_t>;
};

/// Prints a value. The stream's number base has no effect.
template <HasText T>
std::ostream& print(std::ostream& os, const T& value) {
  char text[T::kMaxText];
  return os << std::string_view(text, value.write(text));
}
template <HasText T>
std::ostream& operator<<(std::ostream& os, const T& value) {
  return print(os, value);
}

/// The text form of a value.
template <HasText T>
std::string toString(const T& value) {
  char text[T::kMaxText];
  return std::string(text, value.write(text));
}

namespace detail {

/// Writes `text` and returns its end.
char* writeText(char* out, std::string_view text);
/// Writes `value` in decimal.
char* writeDecimal(char* out, uint32_t value);
/// Writes `value` in lower-case hexadecimal, without prefix or leading zeros.
char* writeHex(char* out, uint64_t value);

/// Removes "/LEN" from the end of `text`, so that the address remains. LEN is decimal, without sign
/// or leading zeros, at most `max`.
std::optional<uint32_t> takeLength(std::string_view& text, uint32_t max);

/// Reads an address of family `family` (AF_INET or AF_INET6) into `bytes`, in network order.
bool parseAddr(int family, std::string_view text, unsigned char* bytes);

}  // namespace detail
}  // namespace Zemit
