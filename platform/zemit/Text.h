// The text of values: one way to print them and one way to make a string.
#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace Zemit {

/// A value that writes its own text: at most `kMaxText` bytes, to where `out` points; it returns
/// where the text ends.
template <class T>
concept HasText = requires(const T& value, char* out) {
  { value.write(out) } -> std::same_as<char*>;
  { T::kMaxText } -> std::convertible_to<size_t>;
};

/// Prints a value, whatever number base the stream is set to.
template <HasText T>
std::ostream& print(std::ostream& os, const T& value) {
  char text[T::kMaxText];
  return os << std::string_view(text, value.write(text));
}
template <HasText T>
std::ostream& operator<<(std::ostream& os, const T& value) {
  return print(os, value);
}

/// The text that a value prints as.
template <HasText T>
std::string toString(const T& value) {
  char text[T::kMaxText];
  return std::string(text, value.write(text));
}

namespace detail {

/// Writes `text`; the result is where it ends.
char* writeText(char* out, std::string_view text);
/// Writes `value` in decimal.
char* writeDecimal(char* out, uint32_t value);
/// Writes `value` in lower-case hexadecimal, without prefix or leading zeros.
char* writeHex(char* out, uint64_t value);

/// Takes "/LEN" from the end of `text`, leaving the address. LEN is decimal, without sign or
/// leading zeros, at most `max`.
std::optional<uint32_t> takeLength(std::string_view& text, uint32_t max);

/// Reads an address of family `family` (AF_INET or AF_INET6) into `bytes`, in network order.
bool parseAddr(int family, std::string_view text, unsigned char* bytes);

}  // namespace detail
}  // namespace Zemit
