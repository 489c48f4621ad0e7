#include "platform/kiv/reflection/Strep.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>

#include "platform/kiv/containers/Exception.h"

namespace Kiv {

namespace {

constexpr std::string_view kEndsWord = " \t,\"{}()[]";

}  // namespace

bool TextReader::take(std::string_view literal) {
  if (!rest().starts_with(literal)) return false;
  at_ += literal.size();
  return true;
}

std::string_view TextReader::run(std::string_view alphabet) {
  const std::string_view text = rest();
  const size_t end = std::min(text.find_first_not_of(alphabet), text.size());
  at_ += end;
  return text.substr(0, end);
}

std::string_view TextReader::upTo(std::string_view ends) {
  const std::string_view text = rest();
  const size_t end = std::min(text.find_first_of(ends), text.size());
  at_ += end;
  return text.substr(0, end);
}

std::string_view TextReader::word() {
  return upTo(kEndsWord);
}

std::string_view TextReader::path() {
  return upTo(" \t{}");
}

std::optional<std::string> TextReader::string() {
  if (!take("\"")) {
    const auto text = word();
    if (text.empty()) return std::nullopt;
    return std::string(text);
  }
  std::string text;
  while (!atEnd() && !rest().starts_with('"')) {
    if (take("\\x")) {
      const std::string_view digits = rest().substr(0, 2);
      uint8_t byte = 0;
      const auto [end, error] =
          std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
      if (error != std::errc() || end != digits.data() + 2) return std::nullopt;
      text += static_cast<char>(byte);
      at_ += 2;
      continue;
    }
    take("\\");
    if (atEnd()) return std::nullopt;
    text += text_[at_++];
  }
  if (!take("\"")) return std::nullopt;
  return text;
}

std::optional<uint64_t> TextReader::number(uint64_t max) {
  const bool isHex = rest().size() > 1 && (rest().starts_with("0x") || rest().starts_with("0X"));
  const std::string_view digits = rest().substr(isHex ? 2 : 0);
  uint64_t value = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), value, isHex ? 16 : 10);
  if (error != std::errc() || value > max) return std::nullopt;
  at_ = static_cast<size_t>(end - text_.data());
  return value;
}

std::optional<bool> TextForm<bool>::read(TextReader& reader) {
  const auto word = reader.run("abcdefghijklmnopqrstuvwxyz");
  if (word == "true") return true;
  if (word == "false") return false;
  return std::nullopt;
}

void TextForm<StringN>::print(std::ostream& os, const StringN& value) {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  const auto isControl = [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; };
  const std::string_view text = value;
  if (!text.empty() && text.find_first_of(kEndsWord) == text.npos &&
      std::none_of(text.begin(), text.end(), isControl)) {
    os << text;
    return;
  }
  os << '"';
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (isControl(c)) {
      os << "\\x" << kDigits[byte >> 4] << kDigits[byte & 0xf];
      continue;
    }
    if (c == '"' || c == '\\') os << '\\';
    os << c;
  }
  os << '"';
}

namespace detail {

void refuseText(long long column, const char* type) {
  throw Exception("no " + std::string(type) + " at column " + std::to_string(column));
}

void refuseJunk(long long column, const char* type) {
  static constexpr const char* kText = "junk at column %lld deserializing %s";
  std::string text(static_cast<size_t>(std::snprintf(nullptr, 0, kText, column, type)) + 1, '\0');
  std::snprintf(text.data(), text.size(), kText, column, type);
  text.pop_back();
  throw Exception(text);
}

}  // namespace detail
}  // namespace Kiv
