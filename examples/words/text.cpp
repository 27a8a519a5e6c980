#include "text.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace {

constexpr std::array<const char*, 4> kUnits = {"ns", "us", "ms", "s"};
// The smallest code that needs a sequence of this many bytes; a longer sequence for it is no UTF-8.
constexpr std::array<std::uint32_t, 5> kSmallestCode = {0, 0, 0x80, 0x800, 0x10000};

// A character of a UTF-8 text: its code and how many bytes it takes, 0 if they are not UTF-8.
struct Character {
  std::uint32_t code;
  std::size_t bytes;
};

// Returns how many bytes the character takes by its first byte, 0 if no character starts with it.
std::size_t sequence_bytes(unsigned char first) {
  if (first < 0x80) return 1;
  if (first >= 0xC2 && first < 0xE0) return 2;
  if (first >= 0xE0 && first < 0xF0) return 3;
  if (first >= 0xF0 && first < 0xF5) return 4;
  return 0;
}

Character first_character(std::string_view text) {
  const auto first = static_cast<unsigned char>(text.front());
  const std::size_t bytes = sequence_bytes(first);
  if (bytes == 0 || bytes > text.size()) return {0, 0};
  if (bytes == 1) return {first, 1};
  std::uint32_t code = first & (0x7Fu >> bytes);
  for (std::size_t i = 1; i < bytes; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xC0u) != 0x80) return {0, 0};
    code = code << 6 | (next & 0x3Fu);
  }
  const bool surrogate = code >= 0xD800 && code < 0xE000;
  if (code < kSmallestCode[bytes] || code > 0x10FFFF || surrogate) return {0, 0};
  return {code, bytes};
}

bool is_control(std::uint32_t code) {
  return code < 0x20 || (code >= 0x7F && code < 0xA0) || code == 0x2028 || code == 0x2029;
}

}  // namespace

std::string in_quotes(std::string_view text, std::size_t longest) {
  std::string result = "\"";
  std::size_t characters = 0;
  while (!text.empty() && characters < longest) {
    const Character next = first_character(text);
    const bool printable = next.bytes > 0 && !is_control(next.code);
    result += printable ? text.substr(0, next.bytes) : std::string_view("?");
    text.remove_prefix(std::max<std::size_t>(next.bytes, 1));
    ++characters;
  }
  return result + (text.empty() ? "\"" : "...\"");
}

bool is_word_text(std::string_view text) {
  if (text.empty()) return false;
  while (!text.empty()) {
    const Character next = first_character(text);
    if (next.bytes == 0 || is_control(next.code) || next.code == ' ' || next.code == 0xA0) {
      return false;
    }
    text.remove_prefix(next.bytes);
  }
  return true;
}

std::size_t character_count(std::string_view text) {
  const auto starts_character = [](char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0u) != 0x80;
  };
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), starts_character));
}

std::string fitted(std::string_view text, std::size_t width) {
  const std::size_t characters = character_count(text);
  if (characters <= width) return std::string(text) + std::string(width - characters, ' ');
  std::string result;
  for (std::size_t i = 0; i + 2 < width; ++i) {
    const std::size_t bytes = std::max<std::size_t>(first_character(text).bytes, 1);
    result += text.substr(0, bytes);
    text.remove_prefix(bytes);
  }
  return result + "..";
}

std::string lower_case(std::string_view text) {
  std::string result(text);
  for (char& letter : result) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  return result;
}

std::string grouped(std::int64_t number) {
  std::string digits = std::to_string(number);
  const std::size_t first = number < 0 ? 1 : 0;
  for (std::size_t at = digits.size(); at > first + 3;) {
    at -= 3;
    digits.insert(at, 1, ',');
  }
  return digits;
}

std::string counted(std::int64_t count, std::string_view what) {
  return grouped(count) + " " + std::string(what) + (count == 1 ? "" : "s");
}

std::string time_text(double nanoseconds) {
  double value = nanoseconds;
  std::size_t unit = 0;
  while (value >= 999.5 && unit + 1 < kUnits.size()) {
    value /= 1000;
    ++unit;
  }
  const int digits = unit == 0 || value >= 99.95 ? 0 : value >= 9.995 ? 1 : 2;
  return decimal(value, digits) + " " + kUnits[unit];
}

std::string decimal(double number, int digits) {
  std::array<char, 64> buffer{};
  std::snprintf(buffer.data(), buffer.size(), "%.*f", digits, number);
  return buffer.data();
}
