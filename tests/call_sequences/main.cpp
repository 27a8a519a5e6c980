// Plays random call sequences, by default those of `./check`:
//
//   call_sequence_tests [--seed N] [--count N | --calls N] [--workers N] [--progress] [--trace]
//                 [--replay FILE | --program FILE] [GoogleTest options]
//
// A call sequence that fails is shrunk and printed as a program that replays it; --replay also
// writes the program to a file. --program writes the whole call sequence of the first seed as such
// a program, and plays nothing.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "call_sequences/player.h"
#include "support/child.h"

namespace qx_test {
namespace {

struct SeriesOptions {
  std::uint64_t first_seed = 1;
  std::uint64_t sequences = 1000;
  std::uint64_t calls = 0;  // if not 0: play until this many calls are compared
  std::uint64_t workers = 1;
  bool progress = false;  // a line each minute
  bool trace = false;
};

struct SeriesResult {
  std::uint64_t sequences = 0;
  std::uint64_t last_seed = 0;
  std::int64_t compared = 0;
  std::int64_t made = 0;
  std::int64_t functions = 0;  // number of different functions called
  double seconds = 0;
  std::optional<std::uint64_t> failed_seed;
  std::string failure;
};

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kMostWorkers = 64;
// A new process replaces a worker after this many call sequences: by contract rebuilds keep the
// arrays of the earlier base, and each call that ends a process copies all memory of the worker.
constexpr int kSequencesOfAWorker = 200;
constexpr int kShrinkSeconds = 90;
constexpr unsigned kSequenceSeconds = 60;  // for a shrunk call sequence that does not end

// Memory that the workers share with the process that watches them.
struct Shared {
  std::atomic<std::uint64_t> taken;  // call sequences started
  std::atomic<std::int64_t> compared;
  std::atomic<std::int64_t> made;
  std::atomic<std::uint64_t> functions;  // bit i: function i of the list was called
  std::atomic<bool> stop;
  std::atomic<std::uint64_t> seeds[kMostWorkers];  // the seed that each is playing, or 0
  std::atomic<bool> disagrees[kMostWorkers];
  char failures[kMostWorkers][300];
};

Shared* share() {
  void* const memory =
      mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    std::perror("mmap");
    std::abort();
  }
  return new (memory) Shared{};
}

bool enough(const SeriesOptions& options, const Shared& shared) {
  if (options.calls != 0) return shared.compared >= static_cast<std::int64_t>(options.calls);
  return shared.taken >= options.sequences;
}

void note_calls(const CallSequence& sequence, const Player& player, Shared& shared) {
  std::uint64_t functions = 0;
  for (const Call& call : sequence) {
    const bool frees_null = call.function == Function::kFreeNull;  // the same function as kFree
    functions |= std::uint64_t{1} << static_cast<int>(frees_null ? Function::kFree : call.function);
  }
  shared.functions |= functions;
  shared.compared += player.compared();
  for (const auto& [name, count] : player.calls()) shared.made += count;
}

void work(const SeriesOptions& options, std::uint64_t worker, Shared& shared) {
  for (int played = 0; played < kSequencesOfAWorker && !shared.stop; ++played) {
    if (options.calls != 0 && enough(options, shared)) return;
    const std::uint64_t number = shared.taken++;
    if (options.calls == 0 && number >= options.sequences) {
      --shared.taken;
      return;
    }
    shared.seeds[worker] = options.first_seed + number;
    const CallSequence sequence = draw_call_sequence(Random(options.first_seed + number));
    Player player(UnderKernels::kAll, options.trace);
    const std::string failure = player.play(sequence);
    note_calls(sequence, player, shared);
    if (!failure.empty()) {
      std::strncpy(shared.failures[worker], failure.c_str(), sizeof shared.failures[worker] - 1);
      shared.disagrees[worker] = true;
      shared.stop = true;
      return;
    }
    shared.seeds[worker] = 0;
  }
}

pid_t start_worker(const SeriesOptions& options, std::uint64_t worker, Shared& shared) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child < 0) {
    std::perror("fork");
    std::abort();
  }
  if (child == 0) {
    work(options, worker, shared);
    std::exit(0);
  }
  return child;
}

void print_progress(const SeriesOptions& options, const Shared& shared, double seconds) {
  const std::int64_t compared = shared.compared;
  std::printf("%8.0f s  %llu call sequences, last seed %llu, %lld calls compared, %.0f a second\n",
              seconds, static_cast<unsigned long long>(shared.taken),
              static_cast<unsigned long long>(options.first_seed + shared.taken - 1),
              static_cast<long long>(compared), static_cast<double>(compared) / seconds);
  std::fflush(stdout);
}

void note_failure(std::uint64_t worker, int status, Shared& shared, SeriesResult& result) {
  shared.stop = true;
  if (result.failed_seed) return;
  result.failed_seed = shared.seeds[worker];
  if (shared.disagrees[worker]) {
    result.failure = shared.failures[worker];
  } else if (WIFSIGNALED(status)) {
    result.failure = std::string("the process ended: ") + strsignal(WTERMSIG(status));
  } else {
    result.failure = "the process ended with status " + std::to_string(WEXITSTATUS(status));
  }
}

// Plays the call sequences of consecutive seeds from `first_seed` on, until enough are played or
// one fails. A process that survives any failure of the engine watches those that play.
SeriesResult play_series(const SeriesOptions& options) {
  Shared& shared = *share();
  SeriesResult result;
  const auto start = Clock::now();
  const auto elapsed = [&] { return std::chrono::duration<double>(Clock::now() - start).count(); };
  const std::uint64_t workers = std::min(options.workers, kMostWorkers);
  std::vector<pid_t> children;
  for (std::uint64_t w = 0; w < workers; ++w) children.push_back(start_worker(options, w, shared));
  double next_line = 60;
  for (std::uint64_t running = workers; running > 0;) {
    for (std::uint64_t w = 0; w < workers; ++w) {
      int status = 0;
      if (children[w] < 0 || waitpid(children[w], &status, WNOHANG) != children[w]) continue;
      if (status != 0 || shared.disagrees[w]) note_failure(w, status, shared, result);
      const bool more = !shared.stop && !enough(options, shared);
      children[w] = more ? start_worker(options, w, shared) : -1;
      running -= more ? 0 : 1;
    }
    if (options.progress && elapsed() >= next_line) {
      print_progress(options, shared, elapsed());
      next_line += 60;
    }
    usleep(20000);
  }
  result.seconds = elapsed();
  result.sequences = shared.taken;
  result.last_seed = options.first_seed + shared.taken - 1;
  result.compared = shared.compared;
  result.made = shared.made;
  result.functions = std::popcount(shared.functions.load());
  munmap(&shared, sizeof shared);
  return result;
}

// Shrinks the call sequence of a seed, each attempt in a child process, as long as it fails.
// Returns a replay; empty if the call sequence does not fail again.
std::string shrunk_replay(std::uint64_t seed, const std::string& failure) {
  const auto fails_under = [](UnderKernels kernels) {
    return [kernels](const CallSequence& sequence) {
      const ChildEnd end = run_in_child([&] {
        alarm(kSequenceSeconds);
        if (!Player(kernels, false).play(sequence).empty()) _exit(1);
      });
      return end.exit_status != 0;
    };
  };
  const CallSequence sequence = draw_call_sequence(Random(seed));
  // A replay runs under the kernel that the CPU chooses, so a failure under that one is preferred.
  UnderKernels kernels = UnderKernels::kChosen;
  if (!fails_under(kernels)(sequence)) kernels = UnderKernels::kAll;
  if (!fails_under(kernels)(sequence)) return "";
  const CallSequence small = shrink(sequence, fails_under(kernels), kShrinkSeconds);
  std::string comment = " * Shrunk from the call sequence of seed " + std::to_string(seed) +
                        ", where\n *   " + failure +
                        "\n * Compile it with the public header and the library.\n";
  if (kernels == UnderKernels::kAll) {
    comment += " * It fails only under a kernel that this machine's CPU does not choose.\n";
  }
  return replay_source(small, comment);
}

SeriesOptions options;
std::string replay_file;
std::string program_file;

constexpr std::int64_t kFunctions = 30;

// Fewer call sequences may not call every function, and their average length may differ.
constexpr std::uint64_t kEnoughForAverages = 500;
constexpr std::uint64_t kLeastComparedOnAverage = 25;

bool write_file(const std::string& name, const std::string& text) {
  std::FILE* const file = std::fopen(name.c_str(), "w");
  if (file == nullptr) return false;
  const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  return std::fclose(file) == 0 && written;
}

int write_program() {
  const std::uint64_t seed = options.first_seed;
  const std::string comment = " * The call sequence of seed " + std::to_string(seed) + ".\n";
  if (write_file(program_file, replay_source(draw_call_sequence(Random(seed)), comment))) return 0;
  std::perror(program_file.c_str());
  return 1;
}

void report_failure(std::uint64_t seed, const std::string& failure) {
  std::printf("%s\nreplay: call_sequence_tests --seed %llu --count 1 --trace\n", failure.c_str(),
              static_cast<unsigned long long>(seed));
  if (options.trace) return;
  const std::string source = shrunk_replay(seed, failure);
  std::printf("%s\n", source.empty() ? "by itself it does not fail again" : source.c_str());
  if (replay_file.empty() || source.empty()) return;
  EXPECT_TRUE(write_file(replay_file, source)) << replay_file;
}

TEST(CallSequences, AgreeWithTheModel) {
  const SeriesResult result = play_series(options);
  std::printf(
      "%llu call sequences, seeds %llu to %llu, %lld calls of %lld functions, "
      "%lld of them compared with the model, %.1f s\n",
      static_cast<unsigned long long>(result.sequences),
      static_cast<unsigned long long>(options.first_seed),
      static_cast<unsigned long long>(result.last_seed), static_cast<long long>(result.made),
      static_cast<long long>(result.functions), static_cast<long long>(result.compared),
      result.seconds);
  if (result.failed_seed) {
    report_failure(*result.failed_seed, result.failure);
    FAIL() << "seed " << *result.failed_seed << ": " << result.failure;
  }
  if (result.sequences >= kEnoughForAverages) {
    EXPECT_EQ(result.functions, kFunctions);
    EXPECT_GE(result.compared,
              static_cast<std::int64_t>(kLeastComparedOnAverage * result.sequences));
  }
}

// A seed that was printed on one machine must give the same calls on every other.
TEST(CallSequences, AreTheSameWithEveryCompilerAndOnEveryCpu) {
  Digest digest;
  for (std::uint64_t seed = 1; seed <= 100; ++seed) {
    add_to(digest, draw_call_sequence(Random(seed)));
  }
  EXPECT_EQ(digest.text(), "982b490087b29ebbf1871e6e910fefde");
}

// Takes the value of an option that has one.
bool parse_value(std::string_view option, std::string_view value) {
  if (option == "--replay" || option == "--program") {
    (option == "--replay" ? replay_file : program_file) = value;
    return true;
  }
  std::uint64_t ignored = 0;
  std::uint64_t& number = option == "--seed"      ? options.first_seed
                          : option == "--count"   ? options.sequences
                          : option == "--calls"   ? options.calls
                          : option == "--workers" ? options.workers
                                                  : ignored;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  return &number != &ignored && error == std::errc() && end == value.data() + value.size();
}

bool parse_options(int count, char** arguments) {
  for (int i = 1; i < count; ++i) {
    const std::string_view option = arguments[i];
    options.trace |= option == "--trace";
    options.progress |= option == "--progress";
    if (option == "--trace" || option == "--progress") continue;
    if (++i >= count || !parse_value(option, arguments[i])) return false;
  }
  return options.workers > 0;
}

}  // namespace
}  // namespace qx_test

int main(int count, char** arguments) {
  testing::InitGoogleTest(&count, arguments);
  if (!qx_test::parse_options(count, arguments)) {
    std::fprintf(stderr,
                 "usage: call_sequence_tests [--seed N] [--count N | --calls N] [--workers N] "
                 "[--progress] [--trace] [--replay FILE | --program FILE]\n");
    return 2;
  }
  if (!qx_test::program_file.empty()) return qx_test::write_program();
  if (qx_test::options.trace) std::setvbuf(stdout, nullptr, _IONBF, 0);
  return RUN_ALL_TESTS();
}
