// Characters are read by the C library, in the locale C.UTF-8 that main sets.
#include "text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cuchar>
#include <cwctype>
#include <iomanip>
#include <iterator>
#include <sstream>

namespace {

struct Character {
  std::string_view bytes;
  bool printable;  // it is UTF-8, and controls no terminal
  bool blank;
};

// Bytes that are not UTF-8 count as characters of their own.
std::vector<Character> split_characters(std::string_view text) {
  std::vector<Character> result;
  while (!text.empty()) {
    char32_t code = 0;
    std::mbstate_t state{};
    const std::size_t read = std::mbrtoc32(&code, text.data(), text.size(), &state);
    const std::size_t bytes = read > text.size() || read == 0 ? 1 : read;
    result.push_back({text.substr(0, bytes), read <= text.size() && std::iswcntrl(code) == 0,
                      std::iswspace(code) != 0});
    text.remove_prefix(bytes);
  }
  return result;
}

}  // namespace

std::string in_quotes(std::string_view text, std::size_t longest) {
  const std::vector<Character> all = split_characters(text);
  std::string result = "\"";
  for (std::size_t i = 0; i < std::min(all.size(), longest); ++i) {
    result += all[i].printable ? all[i].bytes : "?";
  }
  return result + (all.size() > longest ? "...\"" : "\"");
}

bool is_word(std::string_view text) {
  return !text.empty() && std::ranges::all_of(split_characters(text), [](const Character& one) {
    return one.printable && !one.blank;
  });
}

std::size_t characters(std::string_view text) { return split_characters(text).size(); }

std::string left(std::string_view text, std::size_t width) {
  const std::vector<Character> all = split_characters(text);
  if (all.size() <= width) return std::string(text) + std::string(width - all.size(), ' ');
  return std::string(text.begin(), all[width - 2].bytes.begin()) + "..";
}

std::string right(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, characters(text)), ' ') + text;
}

std::string lower_case(std::string text) {
  for (char& letter : text) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  return text;
}

std::vector<std::string> split(const std::string& text) {
  std::istringstream fields(text);
  return {std::istream_iterator<std::string>(fields), {}};
}

std::string decimal(double number, int digits) {
  std::ostringstream text;
  text << std::fixed << std::setprecision(digits) << number;
  return text.str();
}

std::string grouped(std::int64_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3;) digits.insert(at -= 3, 1, ',');
  return digits;
}

std::string time_text(double nanoseconds) {
  constexpr std::array<const char*, 4> kUnits = {" ns", " us", " ms", " s"};
  std::size_t unit = 0;
  for (; nanoseconds >= 999.5 && unit + 1 < kUnits.size(); ++unit) nanoseconds /= 1000;
  const int digits = unit == 0 || nanoseconds >= 99.95 ? 0 : nanoseconds >= 9.995 ? 1 : 2;
  return decimal(nanoseconds, digits) + kUnits[unit];
}

std::int64_t parse_number(const std::string& what, const std::string& text, std::int64_t smallest,
                          std::int64_t largest) {
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [read, error] = std::from_chars(text.data(), end, number);
  if (error == std::errc() && read == end && number >= smallest && number <= largest) return number;
  throw UserError(what + " takes a whole number from " + std::to_string(smallest) + " to " +
                  std::to_string(largest) + ", not " + in_quotes(text));
}

void say(std::string line) {
  line.erase(line.find_last_not_of(' ') + 1);
  std::puts(line.c_str());
}
