// Characters are read by the C library, in the locale C.UTF-8 that main sets.
#include "text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cwctype>
#include <iomanip>
#include <iterator>
#include <sstream>

std::string in_quotes(std::string_view text, std::size_t longest) {
  std::string shown(text.substr(0, longest));
  std::ranges::replace_if(
      shown, [](char byte) { return byte < ' ' || byte > '~'; }, '?');
  return '"' + shown + (text.size() > longest ? "...\"" : "\"");
}

bool is_word(const std::string& text) {
  std::wstring wide(text.size(), L'\0');
  const std::size_t length = std::mbstowcs(wide.data(), text.c_str(), wide.size());
  return length > 0 && length == characters(text) &&
         std::all_of(wide.begin(), wide.begin() + static_cast<std::ptrdiff_t>(length),
                     [](wchar_t one) { return std::iswgraph(static_cast<std::wint_t>(one)) != 0; });
}

std::size_t characters(std::string_view text) {
  const auto begins = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0u) != 0x80; };
  return static_cast<std::size_t>(std::ranges::count_if(text, begins));
}

std::string left(std::string text, std::size_t width) {
  if (characters(text) > width) {
    while (characters(text) > width - 2) text.pop_back();
    text += "..";
  }
  return text + std::string(width - characters(text), ' ');
}

std::string right(const std::string& text, std::size_t width) {
  return std::string(width - std::min(width, characters(text)), ' ') + text;
}

std::string lower_case(std::string text) {
  for (char& letter : text) {
    letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
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

std::int64_t parse_number(const std::string& what, const std::string& text, std::int64_t most) {
  std::int64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto [read, error] = std::from_chars(text.data(), end, number);
  if (error == std::errc() && read == end && number >= 1 && number <= most) return number;
  throw UserError(what + " takes a whole number from 1 to " + std::to_string(most) + ", not " +
                  in_quotes(text));
}

void say(std::string line) {
  line.erase(line.find_last_not_of(' ') + 1);
  std::puts(line.c_str());
}
