// The thread safety that the header promises: distinct handles at the same time, and one handle
// read by many. Each thread repeatedly plays a call sequence with all 30 functions on its own
// index, while the others do the same; its results must equal those of a single thread. Then all
// threads read one index, which nobody changes meanwhile, each with its own query.
#include <array>
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "allocation/scenario.h"
#include "qx_runtime.h"

namespace {

constexpr int kThreads = 4;
constexpr int kSequences = 25;

// Everything that a call sequence returned to its host.
struct Seen {
  std::vector<std::int64_t> numbers;
  std::vector<float> floats;

  friend bool operator==(const Seen&, const Seen&) = default;
};

// The threads begin together.
template <typename Body>
void in_threads(Body body) {
  std::atomic<int> ready = 0;
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      ++ready;
      while (ready < kThreads) std::this_thread::yield();
      body(number);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// An index of several blocks and, where spans are small, of several spans. Its vectors, and the
// queries that read it, depend on a number.
class Shared {
 public:
  explicit Shared(int number) { scenario_of(number).write(index_); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  ~Shared() { qx_index_free(index_); }

  QxIndex* get() const { return index_; }

  // Everything that can be read.
  Seen read(int number) const {
    Seen seen;
    qx_test::Scenario scenario = scenario_of(number);
    const auto note = [&](std::int64_t returned) {
      const auto append = [](auto& noted, const auto& out) {
        noted.insert(noted.end(), out.begin(), out.end());
      };
      seen.numbers.push_back(returned);
      append(seen.numbers, scenario.out_ids);
      append(seen.numbers, scenario.out_values);
      append(seen.floats, scenario.out_floats);
    };
    for (const std::int32_t k : {5, 60}) {
      scenario.read_without_ivf(index_, k, note);
      note(scenario.search_ivf(index_, k));
    }
    return seen;
  }

 private:
  static constexpr std::int32_t kDim = 24;
  static constexpr std::int32_t kRows = 600;

  static qx_test::Scenario scenario_of(int number) {
    return qx_test::Scenario(kRows, kDim, static_cast<std::size_t>(37 * number));
  }

  QxIndex* index_ = qx_index_new(kDim, 0);
};

// Everything that an index of one's own gives, also to the calls that change its IVF structures.
Seen play(int number) {
  const Shared own(number);
  Seen seen = own.read(number);
  seen.numbers.push_back(qx_index_set_ivf_nprobe(own.get(), 1, 1));
  seen.numbers.push_back(qx_index_clear_ivf(own.get()));
  seen.numbers.push_back(qx_index_has_ivf(own.get(), 1));
  return seen;
}

// The first calls of all threads come together, so that the first choice of kernels is concurrent.
bool distinct_handles() {
  std::array<Seen, kThreads> seen;
  std::array<bool, kThreads> agrees{};
  in_threads([&](int number) {
    const auto at = static_cast<std::size_t>(number);
    seen[at] = play(number);
    agrees[at] = true;
    for (int i = 1; i < kSequences; ++i) agrees[at] &= play(number) == seen[at];
  });
  bool all_agree = !(seen[0].floats == seen[1].floats);
  for (int number = 0; number < kThreads; ++number) {
    const auto at = static_cast<std::size_t>(number);
    all_agree &= agrees[at] && play(number) == seen[at];
  }
  return all_agree;
}

bool one_handle_read_by_all() {
  const Shared index(0);
  std::array<bool, kThreads> agrees{};
  std::array<Seen, kThreads> alone;
  for (int number = 0; number < kThreads; ++number) {
    alone[static_cast<std::size_t>(number)] = index.read(number);
  }
  in_threads([&](int number) {
    const auto at = static_cast<std::size_t>(number);
    agrees[at] = true;
    for (int turn = 0; turn < kSequences; ++turn) agrees[at] &= index.read(number) == alone[at];
  });
  return agrees == std::array<bool, kThreads>{true, true, true, true} &&
         !(alone[0].floats == alone[1].floats);
}

}  // namespace

int main() {
  const bool distinct = distinct_handles();
  const bool read = one_handle_read_by_all();
  std::printf("%d threads, %d call sequences each: distinct handles %s, one that all read %s\n",
              kThreads, kSequences, distinct ? "agree" : "DISAGREE", read ? "agrees" : "DISAGREES");
  return distinct && read ? 0 : 1;
}
