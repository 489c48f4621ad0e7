// The text forms of values: how each type is written, and how it is read back.
#pragma once

#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "platform/kiv/containers/Ptr.h"
#include "platform/kiv/containers/String.h"

namespace Kiv {

/// The name of a type in reflection, such as "Zemit::Prefix". Each type has a specialisation with
/// the name as `kName`.
template <class T>
struct TypeName;

/// A text that is read from the front.
class TextReader {
 public:
  explicit TextReader(std::string_view text) : text_(text) {}

  bool atEnd() const noexcept { return at_ == text_.size(); }
  /// The column of the next character, counted from 1.
  long long column() const noexcept { return static_cast<long long>(at_) + 1; }
  std::string_view rest() const noexcept { return text_.substr(at_); }

  void skipBlanks() { run(kBlanks); }
  /// As skipBlanks(). \returns whether there was at least one blank.
  bool takeBlanks() { return !run(kBlanks).empty(); }
  /// Takes `literal` if the text continues with it.
  bool take(std::string_view literal);
  /// Takes the longest run of characters of `alphabet`; it may be empty.
  std::string_view run(std::string_view alphabet);
  /// Takes the text before the next blank, comma, quote, bracket or brace.
  std::string_view word();
  /// Takes the text before the next blank or brace.
  std::string_view path();
  /// Takes a word, or a text in double quotes. In quotes, \x and two hexadecimal digits stand for a
  /// byte, and \ before another character stands for that character.
  std::optional<std::string> string();
  /// Takes a number: decimal, or hexadecimal after "0x".
  std::optional<uint64_t> number(uint64_t max);

 private:
  static constexpr std::string_view kBlanks = " \t";

  /// Takes the text before the next of these characters.
  std::string_view upTo(std::string_view ends);

  std::string_view text_;
  size_t at_ = 0;
};

/// The text form of a T. Each specialisation has
///
///     static void print(std::ostream&, const T&);
///     static std::optional<T> read(TextReader&);  // takes exactly the text of the value
template <class T>
struct TextForm;

/// The form of a type that has an output operator and is parsed from a run of given characters.
template <class T>
struct RunForm {
  static void print(std::ostream& os, const T& value) { os << value; }
  static std::optional<T> read(TextReader& reader, std::string_view alphabet) {
    return T::parse(reader.run(alphabet));
  }
};

template <>
struct TextForm<bool> {
  static void print(std::ostream& os, bool value) { os << (value ? "true" : "false"); }
  static std::optional<bool> read(TextReader& reader);
};

template <>
struct TextForm<uint64_t> {
  static void print(std::ostream& os, uint64_t value) { os << value; }
  static std::optional<uint64_t> read(TextReader& reader) { return reader.number(UINT64_MAX); }
};

/// A word, in double quotes if it could not be read back otherwise.
template <>
struct TextForm<StringN> {
  static void print(std::ostream& os, const StringN& value);
  static std::optional<StringN> read(TextReader& reader) {
    if (const auto text = reader.string()) return StringN(std::string_view(*text));
    return std::nullopt;
  }
};

/// Members in ascending order between braces, with commas: "{10.0.0.5, 10.0.0.6}".
template <class T>
struct SetForm {
  template <class Members>
  static void print(std::ostream& os, const Members& members) {
    const char* separator = "{";
    for (const T& member : members) {
      os << separator;
      TextForm<T>::print(os, member);
      separator = ", ";
    }
    os << (*separator == '{' ? "{}" : "}");
  }
  static std::optional<std::vector<T>> read(TextReader& reader) {
    std::vector<T> members;
    if (!reader.take("{")) return std::nullopt;
    reader.skipBlanks();
    while (!reader.take("}")) {
      const auto member = TextForm<T>::read(reader);
      if (!member) return std::nullopt;
      members.push_back(*member);
      reader.skipBlanks();
      if (!reader.rest().starts_with('}') && !reader.take(",")) return std::nullopt;
      reader.skipBlanks();
    }
    return members;
  }
};

/// The text of a value.
template <class T>
std::string valueToStrep(const T& value) {
  std::ostringstream os;
  TextForm<T>::print(os, value);
  return std::move(os).str();
}

namespace detail {
/// \throws Kiv::Exception: no value of `type` begins at `column`.
[[noreturn]] void refuseText(long long column, const char* type);
/// \throws Kiv::Exception "junk at column ...".
[[noreturn]] void refuseJunk(long long column, const char* type);
}  // namespace detail

/// Reads one value from the front of a longer text, such as the arguments of a call.
/// \throws Kiv::Exception when there is no value at the front.
template <class T>
T sequenceToValue(TextReader& reader) {
  const long long column = reader.column();
  auto value = TextForm<T>::read(reader);
  if (!value) detail::refuseText(column, TypeName<T>::kName);
  return std::move(*value);
}

/// Reads a value whose text is the whole of `text`.
/// \throws Kiv::Exception when `text` is no value, or continues after the value.
template <class T>
T strepToValue(std::string_view text) {
  TextReader reader(text);
  T value = sequenceToValue<T>(reader);
  if (!reader.atEnd()) detail::refuseJunk(reader.column(), TypeName<T>::kName);
  return value;
}

}  // namespace Kiv

/// Defines the name of a type in reflection.
#define KIV_TYPE_NAME(...)                             \
  template <>                                          \
  struct Kiv::TypeName<__VA_ARGS__> {                  \
    static constexpr const char* kName = #__VA_ARGS__; \
  }
