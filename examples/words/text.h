// Small helpers for words and numbers as text. They know nothing of vectors or of the engine.
#ifndef WORDS_TEXT_H
#define WORDS_TEXT_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

// What is wrong with the user's input, in one line. The program prints it and ends with status 2;
// the prompt prints it and goes on.
class UserError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Returns the text in double quotes, safe to print on one line: control characters and bytes that
// are not UTF-8 become '?', and a text of more characters than the longest is cut.
constexpr std::size_t kLongestWordShown = 40;
constexpr std::size_t kLongestPathShown = 400;
std::string in_quotes(std::string_view text, std::size_t longest = kLongestWordShown);

// Returns true if the text is not empty, is UTF-8 and has no control characters or blanks.
bool is_word_text(std::string_view text);

// Returns the number of characters of a UTF-8 text.
std::size_t character_count(std::string_view text);

// Returns the text filled with blanks, or cut with "..", to exactly width characters.
std::string fitted(std::string_view text, std::size_t width);

// Returns the text with A to Z made small.
std::string lower_case(std::string_view text);

// Returns the number with a comma between groups of three digits.
std::string grouped(std::int64_t number);

// Returns "1 row" or "20,000 rows".
std::string counted(std::int64_t count, std::string_view what);

// Returns a duration in the unit that suits it, with three digits: "63 ns", "1.24 us", "12.3 ms".
std::string time_text(double nanoseconds);

// Returns the number with the given count of digits after the point.
std::string decimal(double number, int digits);

#endif
