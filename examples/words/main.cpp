// Searches English words by meaning with the qx_runtime library. See README.md beside this file.
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "answers.h"
#include "options.h"
#include "prompt.h"
#include "query.h"
#include "report.h"
#include "text.h"
#include "tour.h"
#include "word_search.h"
#include "word_vectors.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitBadInput = 2;

using Clock = std::chrono::steady_clock;

std::string seconds_since(Clock::time_point start) {
  return time_text(std::chrono::duration<double, std::nano>(Clock::now() - start).count());
}

// The build system names the two files that belong to the project.
std::string data_path(const Options& options) {
  if (!options.data.empty()) return options.data;
  return options.full ? QX_WORDS_FULL : QX_WORDS_SAMPLE;
}

WordVectors load(const Options& options) {
  const Clock::time_point start = Clock::now();
  WordVectors data = load_words(data_path(options));
  std::printf("%s words of %d numbers read in %s", grouped(std::ssize(data.words)).c_str(),
              data.dimension, seconds_since(start).c_str());
  if (data.skipped > 0) std::printf("; %s without a vector skipped", grouped(data.skipped).c_str());
  std::printf("\n");
  return data;
}

// Builds everything without a word about it, after the words of the command line are known.
void prepare(WordSearch& search, const Options& options) {
  std::vector<std::int64_t> deleted;
  for (const std::string& word : options.without) {
    deleted.push_back(search.vocabulary().require(word));
  }
  const Clock::time_point start = Clock::now();
  search.seal();
  search.attach_metadata();
  search.attach_ivf(options.probes);
  std::printf("Base, metadata and %d IVF lists made in %s\n", search.lists().count(),
              seconds_since(start).c_str());
  for (const std::int64_t id : deleted) {
    search.erase(id);
    print_call(search.log().last(), search.vocabulary().word(id) + " is deleted");
  }
}

int run(const Options& options) {
  CallLog log;
  WordSearch search(load(options), log);
  if (!options.expression.empty()) {
    Query query = parse_query(options.expression, search);
    prepare(search, options);
    print_answer(search, {std::move(query), options.k, options.letter, options.length});
    return 0;
  }
  const bool interactive = isatty(STDIN_FILENO) == 1 && isatty(STDOUT_FILENO) == 1;
  bool correct = true;
  if (options.prompt) {
    prepare(search, options);
  } else {
    correct = run_tour(search, {options.k, options.probes});
  }
  if (options.prompt || interactive) run_prompt(search, options.k, interactive);
  return correct ? 0 : kExitFailure;
}

int run_command_line(const std::vector<std::string>& arguments) {
  const Options options = parse_options(arguments);
  if (options.help) {
    std::fwrite(help_text().data(), 1, help_text().size(), stdout);
    return 0;
  }
  return options.check_only ? 0 : run(options);
}

}  // namespace

int main(int argc, char** argv) {
  // A reader that has seen enough ends the program without a message, whatever the parent set.
  std::signal(SIGPIPE, SIG_DFL);
  int status = 0;
  try {
    status = run_command_line(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
  } catch (const UserError& problem) {
    std::fflush(stdout);
    std::fprintf(stderr, "words: %s\n", problem.what());
    return kExitBadInput;
  } catch (const std::exception& problem) {
    std::fprintf(stderr, "words: internal error: %s\n", problem.what());
    return kExitFailure;
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
    std::fputs("words: cannot write the output\n", stderr);
    return kExitFailure;
  }
  return status;
}
