// The demo: English words in a collection, asked line by line. The first screen is a script of the
// same lines. help.txt says what a line is.
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <qx_collection.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "words.h"

namespace {

using qx::TextCollection;
using Strings = std::vector<std::string>;

struct Session {
  TextCollection words;
  std::string data;  // the file that they are of
  std::int64_t k = 5;
  std::int32_t probes = 0;
  std::vector<TextCollection::Rows> removed = {};
};

// ---- Text ----

std::size_t characters(std::string_view text) {
  const auto begins = [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0u) != 0x80; };
  return static_cast<std::size_t>(std::ranges::count_if(text, begins));
}

std::string lower_case(std::string text) {
  for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
  return text;
}

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") + 1 - first);
}

std::string grouped(std::size_t number) {
  std::string digits = std::to_string(number);
  for (std::size_t at = digits.size(); at > 3;) digits.insert(at -= 3, 1, ',');
  return digits;
}

template <typename... Arguments>
std::string formatted(const char* format, Arguments... arguments) {
  char text[200];
  std::snprintf(text, sizeof text, format, arguments...);
  return text;
}

// What came from a user may hold what a terminal obeys.
void complain(const std::string& text) {
  std::string plain = "words: " + text.substr(0, 300) + (text.size() > 300 ? "..." : "");
  std::ranges::replace_if(
      plain, [](unsigned char c) { return c < ' ' || c == 127; }, '?');
  std::fflush(stdout);
  std::fprintf(stderr, "%s\n", plain.c_str());
}

template <typename T>
T number(const std::string& text, T least, T most) {
  const char* const end = text.data() + text.size();
  T value = {};
  const auto [read, error] = std::from_chars(text.data(), end, value);
  if (error == std::errc() && read == end && value >= least && value <= most) return value;
  throw std::runtime_error(
      formatted("expected a number from %g to %g", double(least), double(most)));
}

// ---- The collection ----

// Rank 1 is the most frequent word.
TextCollection made_of(const Words& read) {
  TextCollection words(
      {.dim = read.dim,
       .columns = {{"letter", QX_TEXT}, {"length", QX_INTEGER}, {"rank", QX_INTEGER}},
       .metric = qx::Metric::kCosine});
  Strings letters;
  std::vector<std::int64_t> lengths;
  std::vector<std::int64_t> ranks;
  for (const std::string& word : read.words) {
    std::size_t end = 1;
    while (end < word.size() && characters(word.substr(end, 1)) == 0) ++end;
    letters.push_back(word.substr(0, end));
    lengths.push_back(static_cast<std::int64_t>(characters(word)));
    ranks.push_back(std::ssize(ranks) + 1);
  }
  words.upsert(read.words, read.vectors, {letters, lengths, ranks});
  words.compact();
  return words;
}

// Words one change of a letter away, the most frequent first.
std::string near_spellings(const TextCollection& words, const std::string& word) {
  Strings near;
  for (std::size_t at = 0; word.size() < 30; ++at) {
    for (char c = 'a'; c <= 'z'; ++c) near.emplace_back(word).insert(at, 1, c);
    if (at == word.size()) break;
    for (char c = 'a'; c <= 'z'; ++c) near.emplace_back(word)[at] = c;
    near.emplace_back(word).erase(at, 1);
    near.push_back(word);
    if (at > 0) std::swap(near.back()[at - 1], near.back()[at]);
  }
  std::map<std::int64_t, std::string> by_rank;
  for (const auto& row : words.get(near)) {
    if (row.found) by_rank.emplace(std::get<std::int64_t>(row.values.at(2)), row.id);
  }
  std::string text;
  for (const auto& [rank, spelling] : by_rank) {
    if (text.size() < 30) text += (text.empty() ? "; did you mean " : ", ") + spelling;
  }
  return text;
}

TextCollection::Rows row_of(const TextCollection& words, const std::string& word) {
  TextCollection::Rows rows = words.get({word});
  if (rows[0].found) return rows;
  throw std::runtime_error("no word \"" + word + "\" is here" + near_spellings(words, word));
}

struct Sum {
  Strings words;
  std::vector<float> vector;
};

// The longest word that stands at a place counts, so that well-known is one, and king-man are two.
Sum sum_of(const TextCollection& words, std::string text) {
  Sum sum{{}, std::vector<float>(static_cast<std::size_t>(words.dim()))};
  for (text = trimmed(text); !text.empty() || sum.words.empty(); text = trimmed(text)) {
    const bool sign = text.find_first_of("+-") == 0 && (text.size() > 1 || !sum.words.empty());
    const float factor = sign && text[0] == '-' ? -1.0f : 1.0f;
    if (sign) text = trimmed(text.substr(1));
    if (text.empty()) throw std::runtime_error("a word is missing");
    std::string word = text.substr(0, text.find_first_of(" \t"));
    while (words.contains({word})[0] == 0 && word.find_last_of("+-") - 1 < word.size()) {
      word.resize(word.find_last_of("+-"));
    }
    const TextCollection::Rows row = row_of(words, word);
    std::ranges::transform(row[0].vector, sum.vector, sum.vector.begin(),
                           [&](float value, float total) { return total + factor * value; });
    sum.words.push_back(word);
    text.erase(0, word.size());
  }
  if (std::ranges::count(sum.vector, 0.0f) == words.dim()) {
    throw std::runtime_error("these words add up to nothing");
  }
  return sum;
}

// ---- Lines ----

void ask(Session& session, const std::string& line) {
  const std::size_t where = lower_case(line).find(" where ");
  const Sum sum = sum_of(session.words, lower_case(line.substr(0, where)));
  const std::string filter = where == std::string::npos ? "" : line.substr(where + 7);
  const auto wanted = static_cast<std::size_t>(session.k);
  const auto k = session.k + std::ssize(sum.words);  // they may be among the hits
  std::string shown;
  std::size_t count = 0;
  const TextCollection::Search search = {.filter = filter, .probes = session.probes};
  for (const auto& [id, score] : session.words.search(sum.vector, k, search)) {
    if (std::ranges::find(sum.words, id) != sum.words.end() || count++ >= wanted) continue;
    const std::string hit = "  " + std::string(id) + formatted(" %.3f", double{score});
    const std::size_t column = characters(shown.substr(shown.rfind('\n') + 1));
    shown += (column + characters(hit) > 80 ? "\n" : "") + hit;
  }
  std::puts(count == 0 ? "  no word passes" : shown.c_str());
}

void show_size(const Session& session) {
  std::printf("  %s words\n", grouped(session.words.size()).c_str());
}

// The row is kept, so that it can come back.
void remove(Session& session, const std::string& argument) {
  session.removed.push_back(row_of(session.words, lower_case(argument)));
  session.words.remove({session.removed.back()[0].id});
  show_size(session);
}

void restore(Session& session, const std::string&) {
  for (const TextCollection::Rows& rows : session.removed) {
    const auto& [id, found, vector, values] = rows[0];
    const std::vector letter = {std::get<std::string_view>(values[0])};
    const std::vector length = {std::get<std::int64_t>(values[1])};
    const std::vector rank = {std::get<std::int64_t>(values[2])};
    session.words.upsert({id}, vector, {letter, length, rank});
  }
  session.removed.clear();
  show_size(session);
}

void train_once(TextCollection& words) {
  if (words.stats().lists > 0) return;
  words.train(std::lround(std::sqrt(static_cast<double>(words.size()))));
}

QxTuning tuned(Session& session, double wanted) {
  train_once(session.words);
  return session.words.tune(session.k, wanted);
}

void probe(Session& session, const std::string& argument) {
  session.probes = number(argument, 0, 65536);
  train_once(session.words);
}

void recall(Session& session, const std::string& argument) {
  const QxTuning tuning = tuned(session, number(argument, 0.01, 1.0));
  session.probes = tuning.probes;
  std::printf("  %d of %td lists give %.1f %% of the %td nearest, for %td words\n", tuning.probes,
              std::ptrdiff_t{session.words.stats().lists}, 100 * tuning.recall,
              std::ptrdiff_t{session.k}, std::ptrdiff_t{tuning.n_queries});
}

// The median of five calls.
template <typename Call>
void show_cost(const std::string& name, Call call) {
  std::vector<double> times;
  while (times.size() < 5) {
    const auto start = std::chrono::steady_clock::now();
    call();
    times.push_back(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  std::ranges::sort(times);
  std::printf("  %-44s %9.3f ms\n", name.c_str(), 1e3 * times[2]);
}

void costs(Session& session, const std::string&) {
  TextCollection& words = session.words;
  const TextCollection::Rows rows = words.list("", {}, 100);
  std::vector<float> queries;
  Strings ids;
  for (const auto& row : rows) {
    queries.insert(queries.end(), row.vector.begin(), row.vector.end());
    ids.emplace_back(row.id);
  }
  const std::span query = rows[rows.size() / 2].vector;
  const QxTuning tuning = tuned(session, 0.95);
  const auto few = formatted("  with %d lists: recall %.3f", tuning.probes, tuning.recall);
  const auto file = std::filesystem::temp_directory_path() / formatted("words.%d", getpid());

  show_cost("read and upsert all words", [&] { made_of(read_words(session.data)); });
  const std::int64_t k = session.k;
  show_cost("search for the nearest", [&] { words.search(query, k); });
  show_cost(few, [&] { words.search(query, k, {.probes = tuning.probes}); });
  show_cost("  where letter = 'q'", [&] { words.search(query, k, {.filter = "letter = 'q'"}); });
  show_cost("search for those of 100 words", [&] { words.search_each(queries, k); });
  qx::TextView view = words.view();
  show_cost("upsert 100 words in a view", [&] { view.upsert(ids, queries); });
  show_cost("save", [&] { words.save(file.string()); });
  show_cost("load", [&] { TextCollection::load(file.string()); });
  std::filesystem::remove(file);
  const auto bytes = static_cast<std::size_t>(words.stats().bytes);
  std::printf("  %-44s %9s\n  %-44s %9s\n", "bytes", grouped(bytes).c_str(), "bytes a word",
              grouped(bytes / words.size()).c_str());
}

bool show_help() { return bool{std::cout << std::ifstream(QX_WORDS_HELP).rdbuf() << std::flush}; }

const std::map<std::string, void (*)(Session&, const std::string&)> kCommands = {
    {".k", [](Session& session, const std::string& n) { session.k = number<int>(n, 1, 1000); }},
    {".probes", probe},
    {".save", [](Session& session, const std::string& file) { session.words.save(file); }},
    {".remove", remove},
    {".restore", restore},
    {".recall", recall},
    {".costs", costs},
    {".help", [](Session&, const std::string&) { show_help(); }}};

// Returns whether the line makes sense; says what does not.
bool run(Session& session, const std::string& line) try {
  const std::size_t blank = line.find(' ');
  const auto command = kCommands.find(line.substr(0, blank));
  if (command == kCommands.end()) {
    ask(session, line);
  } else {
    command->second(session, blank == std::string::npos ? "" : trimmed(line.substr(blank)));
  }
  return true;
} catch (const std::exception& error) {
  complain(error.what());
  return false;
}

void show_what_it_does(Session& session) {
  std::printf("%s words of %d floats, by cosine. Columns: letter, length, rank\n",
              grouped(session.words.size()).c_str(), session.words.dim());
  for (const char* const line :
       {"king", "king - man + woman", "king where letter = 'q' AND length < 7", ".remove queen",
        "king - man + woman", ".restore", "king - man + woman", ".recall 0.9", ".recall 0.99",
        "king - man + woman"}) {
    std::printf("> %s\n", line);
    run(session, line);
  }
  session.probes = 0;
}

void read_lines(Session& session, bool terminal) {
  if (terminal) std::puts("A word, a sum, or a sum where a filter; .costs, .help, .quit");
  for (std::string line;;) {
    if (terminal) std::fputs("> ", stdout);
    std::fflush(stdout);
    if (!std::getline(std::cin, line)) break;
    line = trimmed(line);
    if (line == ".quit") return;
    if (!line.empty()) run(session, line);
  }
  if (terminal) std::puts("");
}

// ---- The command line ----

using Options = std::map<std::string, std::string>;  // "" is the line to run

Options options_of(const Strings& arguments) {
  Options options = {{"--data", QX_WORDS_SAMPLE}};
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& name = arguments[i];
    if (!name.starts_with("--")) {
      options[""] += name + " ";
    } else if (name == "--costs" || name == "--prompt" || name == "--help") {
      options[name] = "yes";
    } else if ((name == "--data" || name == "--file") && i + 1 < arguments.size()) {
      options[name] = arguments[++i];
    } else {
      throw std::runtime_error("option " + name + " is unknown or incomplete; see ./demo --help");
    }
  }
  return options;
}

Session session_of(const std::string& data, const std::string& file) try {
  if (!file.empty() && std::filesystem::exists(file)) return {TextCollection::load(file), data};
  Session session{made_of(read_words(data)), data};
  if (!file.empty()) session.words.save(file);
  return session;
} catch (const TextCollection::CorruptFile& error) {
  throw std::runtime_error(std::string(error.what()) + "; without the file it is made again");
}

// Returns whether the input makes sense.
bool run_all(Options options) {
  if (options.contains("--help")) return show_help();
  Session session = session_of(options["--data"], options["--file"]);
  if (options.contains("")) return run(session, trimmed(options[""]));
  if (options.contains("--costs")) return run(session, ".costs");
  const bool terminal = isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1;
  if (!options.contains("--prompt")) show_what_it_does(session);
  if (options.contains("--prompt") || terminal) read_lines(session, terminal);
  return true;
}

}  // namespace

// 0; 2 if the input makes no sense; 1 if the output cannot be written.
int main(int argc, char** argv) try {
  const bool sense = run_all(options_of({argv + std::min(argc, 1), argv + argc}));
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    complain("cannot write the output");
    return 1;
  }
  return sense ? 0 : 2;
} catch (const std::exception& error) {
  complain(error.what());
  return 2;
}
