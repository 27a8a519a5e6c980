// What the header allows threads to do: distinct handles at the same time, and one handle by one
// thread at a time. Every thread lives a life of its own index with all 30 functions, again and
// again, while the others do; its results must equal those of a thread alone. Then one index goes
// from thread to thread, each call under the host's lock.
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "allocation/scenario.h"
#include "qx_runtime.h"

namespace {

using qx_test::Scenario;

constexpr int kThreads = 4;
constexpr int kLives = 25;

// Everything that a life has let its host see.
struct Seen {
  std::vector<std::int64_t> ids;
  std::vector<float> floats;
  std::vector<std::int64_t> numbers;

  friend bool operator==(const Seen&, const Seen&) = default;
};

// A life whose vectors depend on `number`, so that threads which share anything disagree.
Seen live(int number) {
  Scenario scenario;
  for (std::size_t i = 0; i < scenario.vectors.size(); ++i) {
    scenario.vectors[i] = static_cast<float>((static_cast<int>(i) * 7 + number * 3) % 11);
  }
  Seen seen;
  QxIndex* const index = qx_index_new(Scenario::kDim, static_cast<std::uint32_t>(number));
  scenario.write(index);
  scenario.read_without_ivf(index);
  seen.numbers.push_back(qx_index_set_ivf_nprobe(index, 3, 1));
  scenario.search_ivf(index);
  seen.ids = scenario.out_ids;
  seen.floats = scenario.out_floats;
  seen.numbers.push_back(static_cast<std::int64_t>(qx_index_snapshot(index)));
  seen.numbers.push_back(qx_index_visible_count(index));
  seen.numbers.push_back(qx_index_clear_ivf(index));
  seen.numbers.push_back(qx_index_has_ivf(index, 3));
  qx_index_free(index);
  return seen;
}

template <typename Body>
void in_threads(Body body) {
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int number = 0; number < kThreads; ++number) threads.emplace_back(body, number);
  for (std::thread& thread : threads) thread.join();
}

// The first calls of all threads come together: the first choice of kernels is among them.
bool distinct_handles() {
  std::array<std::vector<Seen>, kThreads> seen;
  std::atomic<int> ready = 0;
  in_threads([&](int number) {
    ++ready;
    while (ready < kThreads) std::this_thread::yield();
    for (int life = 0; life < kLives; ++life) {
      seen[static_cast<std::size_t>(number)].push_back(live(number));
    }
  });
  for (int number = 0; number < kThreads; ++number) {
    const Seen alone = live(number);
    for (const Seen& together : seen[static_cast<std::size_t>(number)]) {
      if (!(together == alone)) return false;
    }
  }
  return live(0).floats != live(1).floats;
}

bool one_handle_under_a_lock() {
  Scenario shared;
  QxIndex* const index = qx_index_new(Scenario::kDim, 0);
  std::mutex lock;
  in_threads([&](int number) {
    Scenario own;
    for (int turn = 0; turn < kLives; ++turn) {
      const std::lock_guard<std::mutex> mine(lock);
      if (turn == 0 && qx_index_sealed(index) == 0) shared.write(index);
      const std::int64_t id = 100 + number * kLives + turn;
      qx_index_insert(index, own.vectors.data(), &id, 1);
      own.search_ivf(index);
      qx_index_search_mvcc(index, &id, 1, own.vectors.data(), 1, own.out_ids.data(),
                           own.out_floats.data());
      if (own.out_ids[0] != id) std::abort();
    }
  });
  const bool all_there = qx_index_delta_count(index) == Scenario::kRows + kThreads * kLives;
  qx_index_free(index);
  return all_there;
}

}  // namespace

int main() {
  const bool distinct = distinct_handles();
  const bool one = one_handle_under_a_lock();
  std::printf("%d threads, %d lives each: distinct handles %s, one handle under a lock %s\n",
              kThreads, kLives, distinct ? "agree" : "DISAGREE", one ? "agrees" : "DISAGREES");
  return distinct && one ? 0 : 1;
}
