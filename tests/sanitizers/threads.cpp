// The thread safety that the header promises: distinct handles at the same time, one handle by one
// thread at a time, and one handle read by many. Each thread repeatedly plays a call sequence with
// all 30 functions on its own index, while the others do the same; its results must equal those of
// a single thread. Then all threads use one index in turn, each call under the host's lock. At last
// all threads read one index, which nobody changes meanwhile, each with its own query.
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
constexpr int kSequences = 25;

// Everything that a call sequence returned to its host.
struct Seen {
  std::vector<std::int64_t> ids;
  std::vector<float> floats;
  std::vector<std::int64_t> numbers;

  friend bool operator==(const Seen&, const Seen&) = default;
};

// A call sequence whose vectors depend on `number`, so that threads that share anything disagree.
Seen play(int number) {
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

// All threads make their first calls together, so that the first choice of kernels is concurrent.
bool distinct_handles() {
  std::array<std::vector<Seen>, kThreads> seen;
  std::atomic<int> ready = 0;
  in_threads([&](int number) {
    ++ready;
    while (ready < kThreads) std::this_thread::yield();
    for (int i = 0; i < kSequences; ++i) {
      seen[static_cast<std::size_t>(number)].push_back(play(number));
    }
  });
  for (int number = 0; number < kThreads; ++number) {
    const Seen alone = play(number);
    for (const Seen& together : seen[static_cast<std::size_t>(number)]) {
      if (!(together == alone)) return false;
    }
  }
  return play(0).floats != play(1).floats;
}

bool one_handle_under_a_lock() {
  Scenario shared;
  QxIndex* const index = qx_index_new(Scenario::kDim, 0);
  std::mutex lock;
  in_threads([&](int number) {
    Scenario own;
    for (int turn = 0; turn < kSequences; ++turn) {
      const std::lock_guard<std::mutex> mine(lock);
      if (turn == 0 && qx_index_sealed(index) == 0) shared.write(index);
      const std::int64_t id = 100 + number * kSequences + turn;
      qx_index_insert(index, own.vectors.data(), &id, 1);
      own.search_ivf(index);
      qx_index_search_mvcc(index, &id, 1, own.vectors.data(), 1, own.out_ids.data(),
                           own.out_floats.data());
      if (own.out_ids[0] != id) std::abort();
    }
  });
  const bool all_there = qx_index_delta_count(index) == Scenario::kRows + kThreads * kSequences;
  qx_index_free(index);
  return all_there;
}

// An index of several blocks and, where spans are small, of several spans.
class ReadIndex {
 public:
  ReadIndex() {
    for (std::size_t i = 0; i < vectors_.size(); ++i) {
      vectors_[i] = static_cast<float>(i * 7919 % 1009) / 64.0f;
    }
    for (std::int64_t i = 0; i < kRows; ++i) ids_.push_back(i % 1900);
    const std::int64_t key = 1;
    const std::int32_t first = 100;
    const std::int32_t size = 1000;
    const std::int32_t offsets[] = {0, 500, kRows};
    qx_index_build(index_, vectors_.data(), kRows, kDim, ids_.data(), &key, &first, &size, 1);
    qx_index_insert(index_, vectors_.data() + kDim, ids_.data() + 300, 200);
    qx_index_delete(index_, ids_.data() + 600, 100);
    qx_index_set_rowmeta(index_, ids_.data(), ids_.data() + 5, ids_.data() + 7, 1, kRows / 2);
    qx_index_set_ivf(index_, 1, 2, 2, vectors_.data(), ids_.data(), offsets, kRows);
  }
  ReadIndex(const ReadIndex&) = delete;
  ReadIndex& operator=(const ReadIndex&) = delete;
  ~ReadIndex() { qx_index_free(index_); }

  // Everything that can be read; the query depends on `number`.
  Seen read(int number) const {
    Seen seen;
    const float* const query = vectors_.data() + std::ptrdiff_t{37} * number;
    std::vector<std::int64_t> ids(kRows + 200);
    std::vector<float> floats((kRows + 200) * kDim);
    const auto note = [&](std::int64_t returned) {
      seen.numbers.push_back(returned);
      seen.ids.insert(seen.ids.end(), ids.begin(), ids.end());
      seen.floats.insert(seen.floats.end(), floats.begin(), floats.end());
    };
    for (const std::int32_t k : {5, 60}) {
      const auto unsigned_k = static_cast<std::uint32_t>(k);
      note(qx_index_search_full(index_, query, k, ids.data(), floats.data()));
      note(qx_index_search_partition(index_, 1, query, k, ids.data(), floats.data()));
      note(qx_index_scatter_topk(index_, ids_.data(), kRows, query, k, ids.data(), floats.data()));
      note(qx_index_search_ivf(index_, 1, query, k, ids.data(), floats.data()));
      note(qx_index_search_mvcc(index_, ids_.data(), kRows, query, unsigned_k, ids.data(),
                                floats.data()));
      note(qx_index_search_filtered(index_, 1, 0, 40 + number, query, unsigned_k, ids.data(),
                                    floats.data()));
      note(qx_index_search_filtered(index_, 0, 0, 0, query, unsigned_k, ids.data(), floats.data()));
    }
    note(qx_index_match_ids(index_, 2, 0, 41, ids.data()));
    note(qx_index_visible_ids(index_, ids.data()));
    note(qx_index_export_visible(index_, floats.data(), ids.data()));
    note(qx_index_export_base(index_, floats.data(), ids.data()));
    std::vector<std::int64_t> labels(kRows);
    note(qx_index_export_rowmeta(index_, ids_.data(), kRows, labels.data(), ids.data()));
    read_numbers(note);
    return seen;
  }

 private:
  static constexpr std::int32_t kDim = 24;
  static constexpr std::int32_t kRows = 2000;

  template <typename Note>
  void read_numbers(Note note) const {
    std::uint64_t n_base;
    std::uint32_t dim;
    std::uint32_t tag;
    std::int32_t n_parts;
    std::int64_t key;
    std::int64_t size;
    note(qx_index_stats(index_, &n_base, &dim, &tag, &n_parts));
    note(qx_index_tuner_oversized(index_, 1, &key, &size));
    note(static_cast<std::int64_t>(qx_index_snapshot(index_)));
    note(qx_index_mutated(index_));
    note(qx_index_sealed(index_));
    note(qx_index_delta_count(index_));
    note(qx_index_has_ivf(index_, 1));
    note(qx_index_visible_count(index_));
  }

  QxIndex* index_ = qx_index_new(kDim, 0);
  std::vector<float> vectors_ = std::vector<float>(std::size_t{kRows} * kDim);
  std::vector<std::int64_t> ids_;
};

bool one_handle_read_by_all() {
  const ReadIndex index;
  std::array<bool, kThreads> agrees{};
  std::array<Seen, kThreads> alone;
  for (int number = 0; number < kThreads; ++number) {
    alone[static_cast<std::size_t>(number)] = index.read(number);
  }
  std::atomic<int> ready = 0;
  in_threads([&](int number) {
    ++ready;
    while (ready < kThreads) std::this_thread::yield();
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
  const bool one = one_handle_under_a_lock();
  const bool read = one_handle_read_by_all();
  std::printf(
      "%d threads, %d call sequences each: distinct handles %s, one handle under a lock %s, one "
      "handle that "
      "all read %s\n",
      kThreads, kSequences, distinct ? "agree" : "DISAGREE", one ? "agrees" : "DISAGREES",
      read ? "agrees" : "DISAGREES");
  return distinct && one && read ? 0 : 1;
}
