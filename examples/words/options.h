// The command line.
#ifndef WORDS_OPTIONS_H
#define WORDS_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct Options {
  bool help = false;
  bool check_only = false;  // stop once the options are understood
  bool full = false;
  bool prompt = false;
  std::string data;        // the file of words; empty for the one that belongs to the project
  std::string expression;  // what to look for; empty for the tour or the prompt
  std::int32_t k = 10;
  std::int32_t probes = 0;  // 0 for the suitable number
  std::optional<std::int64_t> letter;
  std::optional<std::int64_t> length;
  std::vector<std::string> without;
};

// Throws UserError if the arguments make no sense.
Options parse_options(const std::vector<std::string>& arguments);

// Returns the number that the text writes in decimal digits. Throws UserError, which names what the
// number is for, if it is none or outside the range.
std::int64_t parse_number(std::string_view what, std::string_view text, std::int64_t smallest,
                          std::int64_t largest);

// The text of --help.
std::string_view help_text();

#endif
