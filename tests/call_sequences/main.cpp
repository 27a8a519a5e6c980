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
#include <cinttypes>
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

struct Options {
  std::uint64_t first_seed = 1;
  std::uint64_t sequences = 1000;
  std::uint64_t calls = 0;  // if not 0: play until this many calls are compared
  std::uint64_t workers = 1;
  bool progress = false;  // a line each minute
  bool trace = false;
  std::string replay_file;
  std::string program_file;
} options;

constexpr int kFunctions = 30;

// Fewer call sequences may not call every function, and their average length may differ.
constexpr std::uint64_t kEnoughForAverages = 500;
constexpr std::uint64_t kLeastComparedOnAverage = 25;

constexpr std::uint64_t kMostWorkers = 64;
// A new process replaces a worker after this many call sequences: by contract rebuilds keep the
// arrays of the earlier base, and each call that ends a process copies all memory of the worker.
constexpr int kSequencesOfAWorker = 200;
constexpr int kShrinkSeconds = 90;
constexpr unsigned kSequenceSeconds = 60;  // for a shrunk call sequence that does not end

// Memory that the workers share with the process that watches them.
struct Shared {
  std::atomic<std::uint64_t> taken;  // call sequences started
  std::atomic<std::uint64_t> compared;
  std::atomic<std::int64_t> made;
  std::atomic<std::uint64_t> functions;  // bit i: function i of the list was called
  std::atomic<bool> stop;
  std::atomic<std::uint64_t> seeds[kMostWorkers];  // the seed that each is playing, or 0
  std::atomic<bool> disagrees[kMostWorkers];
  char failures[kMostWorkers][300];
};

// Plays the call sequences of consecutive seeds until enough are played or one fails. A process
// that survives any failure of the engine watches those that play.
class Series {
 public:
  Series() {
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) fail("mmap");
    shared_ = new (memory) Shared{};
    play();
  }
  Series(const Series&) = delete;
  Series& operator=(const Series&) = delete;
  ~Series() { munmap(shared_, sizeof(Shared)); }

  const Shared& played() const { return *shared_; }
  std::uint64_t last_seed() const { return options.first_seed + shared_->taken - 1; }
  double seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
  }
  const std::optional<std::uint64_t>& failed_seed() const { return failed_seed_; }
  const std::string& failure() const { return failure_; }

 private:
  [[noreturn]] static void fail(const char* what) {
    std::perror(what);
    std::abort();
  }

  bool enough() const {
    return options.calls != 0 ? shared_->compared >= options.calls
                              : shared_->taken >= options.sequences;
  }

  void play() {
    const std::uint64_t workers = std::min(options.workers, kMostWorkers);
    std::vector<pid_t> children;
    for (std::uint64_t w = 0; w < workers; ++w) children.push_back(start_worker(w));
    double next_line = 60;
    for (std::uint64_t running = workers; running > 0;) {
      for (std::uint64_t w = 0; w < workers; ++w) {
        int status = 0;
        if (children[w] < 0 || waitpid(children[w], &status, WNOHANG) != children[w]) continue;
        if (status != 0 || shared_->disagrees[w]) note_failure(w, status);
        const bool more = !shared_->stop && !enough();
        children[w] = more ? start_worker(w) : -1;
        running -= more ? 0 : 1;
      }
      if (options.progress && seconds() >= next_line) {
        std::printf("%8.0f s  %" PRIu64 " call sequences, last seed %" PRIu64 ", %" PRIu64
                    " calls compared, %.0f a second\n",
                    seconds(), shared_->taken.load(), last_seed(), shared_->compared.load(),
                    static_cast<double>(shared_->compared) / seconds());
        std::fflush(stdout);
        next_line += 60;
      }
      usleep(20000);
    }
  }

  pid_t start_worker(std::uint64_t worker) {
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) fail("fork");
    if (child == 0) {
      work(worker);
      std::exit(0);
    }
    return child;
  }

  void work(std::uint64_t worker) {
    for (int played = 0; played < kSequencesOfAWorker && !shared_->stop; ++played) {
      if (options.calls != 0 && enough()) return;
      const std::uint64_t number = shared_->taken++;
      if (options.calls == 0 && number >= options.sequences) {
        --shared_->taken;
        return;
      }
      const std::uint64_t seed = options.first_seed + number;
      shared_->seeds[worker] = seed;
      const CallSequence sequence = draw_call_sequence(Random(seed));
      Player player(UnderKernels::kAll, options.trace);
      const std::string failure = player.play(sequence);
      note_calls(sequence, player);
      if (!failure.empty()) {
        char* const noted = shared_->failures[worker];
        std::strncpy(noted, failure.c_str(), sizeof shared_->failures[worker] - 1);
        shared_->disagrees[worker] = true;
        shared_->stop = true;
        return;
      }
      shared_->seeds[worker] = 0;
    }
  }

  void note_calls(const CallSequence& sequence, const Player& player) {
    std::uint64_t functions = 0;
    for (const Call& call : sequence) {
      const bool frees_null = call.function == Function::kFreeNull;  // the same function as kFree
      functions |= std::uint64_t{1}
                   << static_cast<int>(frees_null ? Function::kFree : call.function);
    }
    shared_->functions |= functions;
    shared_->compared += static_cast<std::uint64_t>(player.compared());
    for (const auto& [name, count] : player.calls()) shared_->made += count;
  }

  void note_failure(std::uint64_t worker, int status) {
    shared_->stop = true;
    if (failed_seed_) return;
    failed_seed_ = shared_->seeds[worker];
    failure_ = "the process ended with status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) {
      failure_ = std::string("the process ended: ") + strsignal(WTERMSIG(status));
    }
    if (shared_->disagrees[worker]) failure_ = shared_->failures[worker];
  }

  Shared* shared_ = nullptr;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::optional<std::uint64_t> failed_seed_;
  std::string failure_;
};

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

bool write_file(const std::string& name, const std::string& text) {
  std::FILE* const file = std::fopen(name.c_str(), "w");
  if (file == nullptr) return false;
  const bool written = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  return std::fclose(file) == 0 && written;
}

int write_program() {
  const std::uint64_t seed = options.first_seed;
  const std::string comment = " * The call sequence of seed " + std::to_string(seed) + ".\n";
  if (write_file(options.program_file, replay_source(draw_call_sequence(Random(seed)), comment)))
    return 0;
  std::perror(options.program_file.c_str());
  return 1;
}

void report_failure(std::uint64_t seed, const std::string& failure) {
  std::printf("%s\nreplay: call_sequence_tests --seed %" PRIu64 " --count 1 --trace\n",
              failure.c_str(), seed);
  if (options.trace) return;
  const std::string source = shrunk_replay(seed, failure);
  std::printf("%s\n", source.empty() ? "by itself it does not fail again" : source.c_str());
  if (options.replay_file.empty() || source.empty()) return;
  EXPECT_TRUE(write_file(options.replay_file, source)) << options.replay_file;
}

TEST(CallSequences, AgreeWithTheModel) {
  const Series series;
  const Shared& played = series.played();
  const int functions = std::popcount(played.functions.load());
  std::printf("%" PRIu64 " call sequences, seeds %" PRIu64 " to %" PRIu64 ", %" PRId64
              " calls of %d functions, %" PRIu64 " of them compared with the model, %.1f s\n",
              played.taken.load(), options.first_seed, series.last_seed(), played.made.load(),
              functions, played.compared.load(), series.seconds());
  if (series.failed_seed()) {
    report_failure(*series.failed_seed(), series.failure());
    FAIL() << "seed " << *series.failed_seed() << ": " << series.failure();
  }
  if (played.taken >= kEnoughForAverages) {
    EXPECT_EQ(functions, kFunctions);
    EXPECT_GE(played.compared, kLeastComparedOnAverage * played.taken);
  }
}

// A seed that was printed on one machine must give the same calls on every other.
TEST(CallSequences, AreTheSameWithEveryCompilerAndOnEveryCpu) {
  Digest digest;
  for (std::uint64_t seed = 1; seed <= 100; ++seed) {
    add_to(digest, draw_call_sequence(Random(seed)));
  }
  EXPECT_EQ(digest.text(), "ab860312863b4e17dc1ac70f59d385e2");
}

// Takes the value of an option that has one.
bool parse_value(std::string_view option, std::string_view value) {
  if (option == "--replay" || option == "--program") {
    (option == "--replay" ? options.replay_file : options.program_file) = value;
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
  if (!qx_test::options.program_file.empty()) return qx_test::write_program();
  if (qx_test::options.trace) std::setvbuf(stdout, nullptr, _IONBF, 0);
  return RUN_ALL_TESTS();
}
