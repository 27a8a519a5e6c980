// Searches English words by meaning with the qx_runtime library: the command line, the way through
// the program, and the prompt, which has the same language. See README.md beside this file.
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "answer.h"
#include "text.h"
#include "word_index.h"

namespace {

constexpr const char* kHelp =
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
  --k N           show N neighbours, 1 to 1000 (10; the tour 5)
  --nprobe N      scan the N nearest IVF lists (a tenth of the lists)
  --prompt        no tour, only the prompt: words and options, on lines of standard input
  --full          all 341,479 words, not only the 20,000 most frequent; fetched on first use
  --data FILE     other words: a file as data/README.md describes
  --help          this text)";

struct Options {
  bool help = false;
  bool prompt = false;
  std::string data = QX_WORDS_SAMPLE;
  std::string text;  // what to look for; empty for the tour, the prompt, or a mere change
  std::optional<std::int64_t> k;
  std::optional<std::int64_t> nprobe;
  std::optional<std::int64_t> letter;  // only words with this letter
  std::optional<std::int64_t> length;  // only words of so many characters
  std::vector<std::string> without;    // deleted first
};

using Text = const std::string&;

void add_words(Options& options, Text words) {
  if (words.empty()) throw UserError("a word is empty");
  options.text += (options.text.empty() ? "" : " ") + words;
}

const std::map<std::string, bool Options::*> kFlags = {
    {"--help", &Options::help}, {"-h", &Options::help}, {"--prompt", &Options::prompt}};

const std::map<std::string, void (*)(Options&, Text)> kSetters = {
    {"--like", add_words},
    {"--data", [](Options& o, Text text) { o.data = text; }},
    {"--letter", [](Options& o, Text text) { o.letter = parse_letter(text); }},
    {"--without", [](Options& o, Text text) { o.without.push_back(text); }},
    {"--length", [](Options& o, Text text) { o.length = parse_number("--length", text, 1000); }},
    {"--k", [](Options& o, Text text) { o.k = parse_number("--k", text, 1000); }},
    {"--nprobe", [](Options& o, Text text) { o.nprobe = parse_number("--nprobe", text, 999999); }}};

void check_combinations(const Options& options) {
  const bool word = !options.text.empty();
  if (options.prompt && word) throw UserError("--prompt takes no word");
  if (!word && (options.letter || options.length)) {
    throw UserError("--letter and --length need a word to look for");
  }
}

// Throws a UserError if the arguments make no sense.
Options parse_options(const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& name = arguments[i];
    if (!name.starts_with("-") || name == "-") {
      add_words(options, name);
    } else if (kFlags.contains(name)) {
      options.*kFlags.at(name) = true;
    } else if (!kSetters.contains(name)) {
      throw UserError("unknown option " + in_quotes(name) + "; ./demo --help lists them all");
    } else if (++i == arguments.size()) {
      throw UserError(name + " needs a value");
    } else {
      kSetters.at(name)(options, arguments[i]);
    }
  }
  if (!options.help) check_combinations(options);
  return options;
}

// What is asked for, or a UserError: before long work begins, or a change is made.
std::optional<Query> check(const Options& options, const Words& words) {
  for (const std::string& word : options.without) words.require(word);
  if (options.text.empty()) return std::nullopt;
  return parse_query(options.text, words);
}

// Makes the changes, and answers.
void carry_out(WordIndex& search, const Options& options, const std::optional<Query>& query) {
  const auto nprobe = static_cast<std::int32_t>(options.nprobe.value_or(0));
  if (nprobe > 0) {
    show_call("qx_index_set_ivf_nprobe", "", [&] { search.set_nprobe(nprobe); });
  }
  for (const std::string& word : options.without) {
    const std::int64_t id = search.words.require(word);
    show_call("qx_index_delete", word, [&] { search.erase(id); });
  }
  if (query) answer(search, *query, options.k.value_or(10), options.letter, options.length);
}

// A command on a line of standard input. Returns false when the user quits.
bool run_line(WordIndex& search, const std::string& line) {
  const std::vector<std::string> fields = split(line);
  if (fields.empty()) return true;
  const std::string only = fields.size() == 1 ? fields[0] : "";
  if (only == "quit" || only == "exit") return false;
  const Options options = parse_options(fields);
  if (options.help || only == "help") {
    say(kHelp);
  } else if (line.size() > 1000 || options.prompt || options.data != QX_WORDS_SAMPLE) {
    throw UserError("here stand words, and options of searches and changes");
  } else {
    carry_out(search, options, check(options, search.words));
  }
  return true;
}

// Reads commands until the input ends. One that makes no sense gets a line on standard error.
void run_prompt(WordIndex& search, bool interactive) {
  if (interactive) say("\nA word, or a sum such as king - man + woman; help, or quit.");
  for (std::string line;;) {
    if (interactive) std::fputs("> ", stdout);
    std::fflush(stdout);
    if (!std::getline(std::cin, line)) break;
    try {
      if (!run_line(search, line)) return;
    } catch (const UserError& problem) {
      std::fflush(stdout);
      std::fprintf(stderr, "words: %s\n", problem.what());
    }
  }
  if (interactive) say("");
}

void run(const Options& options) {
  std::optional<Words> words;
  const double read = time_of(1, [&] { words.emplace(options.data); });
  say(grouped(words->size()) + " words of " + std::to_string(words->dim()) + " numbers read in " +
      time_text(read));
  const std::optional<Query> query = check(options, *words);
  std::optional<WordIndex> search;
  const double made = time_of(1, [&] { search.emplace(std::move(*words)); });
  say("Base, metadata and " + std::to_string(search->lists.count()) + " IVF lists made in " +
      time_text(made));
  carry_out(*search, options, query);
  if (query) return;
  const bool interactive = isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1;
  if (!options.prompt) run_tour(*search, options.k.value_or(5));
  if (options.prompt || interactive) run_prompt(*search, interactive);
}

}  // namespace

int main(int argc, char** argv) {
  // A reader that has seen enough ends the program without a message, whatever the parent set.
  std::signal(SIGPIPE, SIG_DFL);
  std::setlocale(LC_CTYPE, "C.UTF-8");
  try {
    const Options options = parse_options({argv + (argc > 0 ? 1 : 0), argv + argc});
    if (options.help) {
      say(kHelp);
    } else {
      run(options);
    }
  } catch (const UserError& problem) {
    std::fflush(stdout);
    std::fprintf(stderr, "words: %s\n", problem.what());
    return 2;
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "words: internal error: %s\n", problem.what());
    return 1;
  }
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return 0;
  std::fputs("words: cannot write the output\n", stderr);
  return 1;
}
