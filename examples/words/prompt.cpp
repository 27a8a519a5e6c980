#include "prompt.h"

#include <cstddef>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "answers.h"
#include "options.h"
#include "query.h"
#include "report.h"
#include "text.h"

namespace {

constexpr std::size_t kLongestLine = 1000;
constexpr std::size_t kLongestNewWord = 64;
constexpr std::int64_t kMostCharacters = 1000;

constexpr std::string_view kCommands =
    R"(   WORD or WORD - WORD + WORD      nearest words
   like WORD ...                   the same, for a word that is also a command
   letter L WORD ...               nearest words that begin with L: a to z, or # for the others
   length N WORD ...               nearest words of N characters
   delete WORD                     hide a word
   insert WORD                     bring a word back, with its own vector
   insert NEW = WORD - WORD ...    give a new word the vector of a sum
   nprobe N                        scan the N nearest IVF lists
   status                          what the index holds now
   help, quit
)";

// Reads one line without its end. What is beyond kLongestLine is dropped, and too_long set.
bool read_line(std::string& line, bool& too_long) {
  line.clear();
  too_long = false;
  int byte = std::getc(stdin);
  if (byte == EOF) return false;
  for (; byte != EOF && byte != '\n'; byte = std::getc(stdin)) {
    if (line.size() == kLongestLine) {
      too_long = true;
    } else {
      line += static_cast<char>(byte);
    }
  }
  return true;
}

// Returns the fields from the given one on, with blanks between them.
std::string joined(const std::vector<std::string>& fields, std::size_t first) {
  std::string text;
  for (std::size_t i = first; i < fields.size(); ++i) text += (i > first ? " " : "") + fields[i];
  return text;
}

class Prompt {
 public:
  Prompt(WordSearch& search, std::int32_t k) : search_(search), k_(k) {}

  // Returns false when the user quits.
  bool run(const std::string& line) {
    const std::vector<std::string> fields = split_fields(line);
    if (fields.empty()) return true;
    const std::string command = lower_case(fields[0]);
    const bool alone = fields.size() == 1;
    const bool sum = fields.size() > 2 && is_sign(fields[1]);
    if (alone && (command == "quit" || command == "exit")) return false;
    if (alone && command == "help") {
      std::fwrite(kCommands.data(), 1, kCommands.size(), stdout);
    } else if (alone && command == "status") {
      print_status();
    } else if (alone || sum || !run_command(command, fields)) {
      answer(line, std::nullopt, std::nullopt);
    }
    return true;
  }

 private:
  // Commands with arguments. Returns false if the line is none.
  bool run_command(const std::string& command, const std::vector<std::string>& fields) {
    if (command == "like") {
      answer(joined(fields, 1), std::nullopt, std::nullopt);
    } else if (command == "letter") {
      answer(joined(fields, 2), parse_letter(fields[1]), std::nullopt);
    } else if (command == "length") {
      const std::int64_t length = parse_number("length", fields[1], 1, kMostCharacters);
      answer(joined(fields, 2), std::nullopt, length);
    } else if (command == "delete") {
      erase(joined(fields, 1));
    } else if (command == "insert") {
      insert(fields);
    } else if (command == "nprobe") {
      set_probes(joined(fields, 1));
    } else {
      return false;
    }
    return true;
  }

  static bool is_sign(const std::string& field) { return field == "+" || field == "-"; }

  void answer(const std::string& text, std::optional<std::int64_t> letter,
              std::optional<std::int64_t> length) {
    print_answer(search_, {parse_query(text, search_), k_, letter, length});
  }

  void erase(const std::string& text) {
    const std::int64_t id = search_.vocabulary().require(text);
    if (!search_.is_visible(id)) throw UserError(in_quotes(text) + " is deleted already");
    search_.erase(id);
    print_call(search_.log().last(), search_.vocabulary().word(id) + " is hidden from now on");
  }

  void insert(const std::vector<std::string>& fields) {
    if (fields.size() > 2) {
      if (fields[2] != "=") throw UserError("after insert stands one word, or NEW = a sum");
      return insert_new(lower_case(fields[1]), joined(fields, 3));
    }
    const std::int64_t id = search_.vocabulary().require(fields[1]);
    if (search_.is_visible(id)) throw UserError(in_quotes(fields[1]) + " is there already");
    search_.insert(id);
    print_call(search_.log().last(), search_.vocabulary().word(id) + " is visible again");
  }

  void insert_new(const std::string& word, const std::string& sum) {
    if (!is_word_text(word) || word.size() > kLongestNewWord) {
      throw UserError(in_quotes(word) + " cannot be a word here");
    }
    if (search_.vocabulary().find(word)) throw UserError(in_quotes(word) + " is a word already");
    const Query query = parse_query(sum, search_);
    const std::int64_t id = search_.insert_new(word, query.vector);
    print_call(search_.log().last(), word + " is visible, with id " + std::to_string(id));
  }

  void set_probes(const std::string& text) {
    const std::int32_t lists = search_.lists().count();
    const std::int64_t probes = parse_number("nprobe", text, 1, lists);
    search_.set_probes(static_cast<std::int32_t>(probes));
    print_call(search_.log().last(), "IVF searches scan " + std::to_string(probes) + " of " +
                                         std::to_string(lists) + " lists");
  }

  void print_status() {
    Index& index = search_.index();
    const IndexStats stats = index.stats();
    print_call(search_.log().last(), grouped(static_cast<std::int64_t>(stats.base_rows)) +
                                         " sealed rows in " + std::to_string(stats.partitions) +
                                         " partitions");
    const std::int64_t delta = index.delta_count();
    print_call(search_.log().last(), counted(delta, "row") + " in the delta");
    const std::int64_t visible = index.visible_count();
    print_call(search_.log().last(), counted(visible, "row") + " visible");
    const std::uint64_t snapshot = index.snapshot();
    print_call(search_.log().last(), "snapshot " + std::to_string(snapshot));
  }

  WordSearch& search_;
  std::int32_t k_;
};

}  // namespace

void run_prompt(WordSearch& search, std::int32_t k, bool interactive) {
  Prompt prompt(search, k);
  if (interactive) std::puts("\nA word, a sum such as king - man + woman, or help; quit ends.");
  std::string line;
  bool too_long = false;
  while (true) {
    if (interactive) std::fputs("> ", stdout);
    std::fflush(stdout);
    if (!read_line(line, too_long)) break;
    try {
      if (too_long) throw UserError("the line has more than 1000 bytes");
      if (!prompt.run(line)) return;
    } catch (const UserError& problem) {
      std::fflush(stdout);
      std::fprintf(stderr, "words: %s\n", problem.what());
    }
  }
  if (interactive) std::puts("");
}
