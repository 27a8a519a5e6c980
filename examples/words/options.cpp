#include "options.h"

#include <charconv>
#include <cstddef>

#include "text.h"
#include "vocabulary.h"

namespace {

// More neighbours or probes than these are of no use on a page or to a search.
constexpr std::int64_t kLargestK = 1000;
constexpr std::int64_t kMostProbes = 1000000;
constexpr std::int64_t kLongestWord = 1000;

constexpr std::string_view kHelp =
    R"(usage: ./demo [WORD | WORD - WORD + WORD ...] [options]

Searches English words by meaning with the qx_runtime library: each word has a vector, and the
inner product of two of them says how alike the words are.

  ./demo                        a tour of what the library does; on a terminal, then a prompt
  ./demo king                   the words nearest to "king": exact, by IVF, and by first letter
  ./demo king - man + woman     the words nearest to a sum
  ./demo --like king --letter q the words nearest to "king" that begin with q

  --like WORD     the same as WORD alone
  --letter L      only words that begin with L: a to z, or # for everything else
  --length N      only words of N characters
  --without WORD  delete WORD first; may be given several times
  --k N           show N neighbours, 1 to 1000 (10)
  --nprobe N      scan the N nearest IVF lists (a tenth of the lists)
  --prompt        no tour, only the prompt; reads commands from standard input
  --full          all 341,479 words, not only the 20,000 most frequent; fetched on first use
  --data FILE     other words: a file as data/README.md describes, or JSON as --full fetches
  --help          this text
)";

// Walks over the arguments, with the value of an option in the next argument or after '='.
class Parser {
 public:
  explicit Parser(const std::vector<std::string>& arguments) : arguments_(arguments) {}

  Options parse() {
    while (next_ < arguments_.size()) {
      const std::string& argument = arguments_[next_++];
      if (argument == "--" && !only_words_) {
        only_words_ = true;
      } else if (argument.starts_with("-") && argument.size() > 1 && !only_words_) {
        parse_option(argument);
      } else {
        add_words(argument);
      }
    }
    check_combinations();
    return options_;
  }

 private:
  void parse_option(const std::string& argument) {
    const std::size_t equals = argument.find('=');
    name_ = argument.substr(0, equals);
    inline_value_.reset();
    if (equals != std::string::npos) inline_value_ = argument.substr(equals + 1);
    if (!parse_flag() && !parse_valued_option()) {
      throw UserError("unknown option " + in_quotes(name_) + "; ./demo --help lists them all");
    }
  }

  bool parse_flag() {
    bool* flag = nullptr;
    if (name_ == "--help" || name_ == "-h") flag = &options_.help;
    if (name_ == "--full") flag = &options_.full;
    if (name_ == "--prompt") flag = &options_.prompt;
    if (name_ == "--check-options") flag = &options_.check_only;
    if (flag == nullptr) return false;
    if (inline_value_) throw UserError(name_ + " takes no value");
    *flag = true;
    return true;
  }

  bool parse_valued_option() {
    if (name_ == "--like") {
      add_words(value());
    } else if (name_ == "--letter") {
      options_.letter = parse_letter(value());
    } else if (name_ == "--length") {
      options_.length = number(1, kLongestWord);
    } else if (name_ == "--without") {
      options_.without.push_back(value());
    } else if (name_ == "--k") {
      options_.k = static_cast<std::int32_t>(number(1, kLargestK));
    } else if (name_ == "--nprobe") {
      options_.probes = static_cast<std::int32_t>(number(1, kMostProbes));
    } else if (name_ == "--data") {
      options_.data = value();
      if (options_.data.empty()) throw UserError("--data needs the name of a file");
    } else {
      return false;
    }
    return true;
  }

  std::string value() {
    if (inline_value_) return *inline_value_;
    if (next_ == arguments_.size()) throw UserError(name_ + " needs a value");
    return arguments_[next_++];
  }

  std::int64_t number(std::int64_t smallest, std::int64_t largest) {
    const std::string text = value();
    return parse_number(name_, text, smallest, largest);
  }

  void add_words(const std::string& words) {
    if (words.empty()) throw UserError("a word is empty");
    options_.expression += (options_.expression.empty() ? "" : " ") + words;
  }

  void check_combinations() const {
    if (options_.help) return;
    const bool word = !options_.expression.empty();
    if (options_.full && !options_.data.empty()) {
      throw UserError("--full and --data exclude each other");
    }
    if (options_.prompt && word) throw UserError("--prompt takes no word");
    if (!word && options_.letter) throw UserError("--letter needs a word to look for");
    if (!word && options_.length) throw UserError("--length needs a word to look for");
    if (!word && !options_.prompt && !options_.without.empty()) {
      throw UserError("--without needs a word to look for, or --prompt");
    }
  }

  const std::vector<std::string>& arguments_;
  std::size_t next_ = 0;
  bool only_words_ = false;
  std::string name_;
  std::optional<std::string> inline_value_;
  Options options_;
};

// Reads a text that is a number and nothing else.
bool is_number(std::string_view text, std::int64_t* number) {
  const char* const end = text.data() + text.size();
  const auto [read_end, error] = std::from_chars(text.data(), end, *number);
  return error == std::errc() && read_end == end;
}

}  // namespace

Options parse_options(const std::vector<std::string>& arguments) {
  return Parser(arguments).parse();
}

std::int64_t parse_number(std::string_view what, std::string_view text, std::int64_t smallest,
                          std::int64_t largest) {
  std::int64_t number = 0;
  if (!is_number(text, &number) || number < smallest || number > largest) {
    throw UserError(std::string(what) + " takes a whole number from " + std::to_string(smallest) +
                    " to " + std::to_string(largest) + ", not " + in_quotes(text));
  }
  return number;
}

std::string_view help_text() { return kHelp; }
