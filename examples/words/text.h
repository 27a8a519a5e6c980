// Words and numbers as text: what may be shown, how it is aligned, and what the user typed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// What is wrong with the user's input, in one line. The program prints it and ends with status 2;
// the prompt prints it and goes on.
class UserError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// In double quotes and safe to print: what is not plain ASCII becomes '?'.
constexpr std::size_t kLongestPath = 400;
std::string in_quotes(std::string_view text, std::size_t longest = 40);

// Whether the text is UTF-8, and neither empty nor has blanks or control characters.
bool is_word(const std::string& text);

// The number of characters; the text filled with blanks behind or before; left cuts what is longer.
std::size_t characters(std::string_view text);
std::string left(std::string text, std::size_t width);
std::string right(const std::string& text, std::size_t width);

std::string lower_case(std::string text);                 // A to Z alone
std::vector<std::string> split(const std::string& text);  // at blanks
std::string decimal(double number, int digits);
std::string grouped(std::int64_t number);   // 20,000
std::string time_text(double nanoseconds);  // 63 ns, 1.24 us, 12.3 ms

// Reads a whole number from 1 on, or throws a UserError that says what it is for.
std::int64_t parse_number(const std::string& what, const std::string& text, std::int64_t most);

// Prints a line without the blanks at its end.
void say(std::string line);
