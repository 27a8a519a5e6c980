#include "call_sequences/series.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "call_sequences/player.h"
#include "call_sequences/replay.h"
#include "call_sequences/shrink.h"
#include "support/child.h"

namespace qx_test {
namespace {

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

}  // namespace

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

}  // namespace qx_test
