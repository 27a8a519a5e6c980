// The thread safety that the header promises: distinct handles at the same time, and one handle
// read by many. Each thread repeatedly plays a call sequence with all 30 functions on its own
// index, while the others do the same; its results must equal those of a single thread. Then all
// threads read one index, which nobody changes meanwhile, each with its own query.
#include <array>
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "qx_runtime.h"
#include "support/call.h"

namespace {

constexpr int kThreads = 4;
constexpr int kSequences = 25;

// Everything that a call sequence returned to its host.
struct Seen {
  std::vector<std::int64_t> ids;
  std::vector<float> floats;
  std::vector<std::int64_t> numbers;

  friend bool operator==(const Seen&, const Seen&) = default;
};

// The threads begin together.
template <typename Body>
void in_threads(Body body) {
  std::atomic<int> ready = 0;
  std::vector<std::thread> threads;
  for (int number = 0; number < kThreads; ++number) {
    threads.emplace_back([&, number] {
      ++ready;
      while (ready < kThreads) std::this_thread::yield();
      body(number);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// An index of several blocks and, where spans are small, of several spans. Its vectors depend on
// `number`.
class Shared {
 public:
  explicit Shared(int number) {
    for (std::size_t i = 0; i < vectors_.size(); ++i) {
      const std::size_t drawn = (i + static_cast<std::size_t>(number)) * 7919 % 1009;
      vectors_[i] = static_cast<float>(drawn) / 64.0f;
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
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  ~Shared() { qx_index_free(index_); }

  QxIndex* get() const { return index_; }

  // Everything that can be read; the query depends on `number`.
  Seen read(int number) const {
    Seen seen;
    const float* const query = vectors_.data() + std::ptrdiff_t{37} * number;
    const std::int64_t* const ids = ids_.data();
    std::vector<std::int64_t> out_ids(kRows + 200);
    std::vector<std::int64_t> values(out_ids.size());
    std::vector<float> floats(out_ids.size() * kDim);
    const auto note = [&](auto function, auto... arguments) {
      const auto returned = qx_test::call_c(function, index_, arguments...);
      seen.numbers.push_back(static_cast<std::int64_t>(returned));
      seen.ids.insert(seen.ids.end(), out_ids.begin(), out_ids.end());
      seen.ids.insert(seen.ids.end(), values.begin(), values.end());
      seen.floats.insert(seen.floats.end(), floats.begin(), floats.end());
    };
    for (const int k : {5, 60}) {
      const auto search = [&](auto function, auto... arguments) {
        note(function, arguments..., k, out_ids.data(), floats.data());
      };
      search(qx_index_search_full, query);
      search(qx_index_search_partition, 1, query);
      search(qx_index_scatter_topk, ids, kRows, query);
      search(qx_index_search_ivf, 1, query);
      search(qx_index_search_mvcc, ids, kRows, query);
      search(qx_index_search_filtered, QX_FILTER_LABEL, 0, 40 + number, query);
      search(qx_index_search_filtered, QX_FILTER_ALL, 0, 0, query);
    }
    note(qx_index_match_ids, QX_FILTER_COLUMN, 0, 41, out_ids.data());
    note(qx_index_visible_ids, out_ids.data());
    note(qx_index_export_visible, floats.data(), out_ids.data());
    note(qx_index_export_base, floats.data(), out_ids.data());
    note(qx_index_export_rowmeta, ids, kRows, out_ids.data(), values.data());
    note(qx_index_tuner_oversized, 1, out_ids.data(), values.data());
    std::uint64_t n_base;
    std::uint32_t dim;
    std::uint32_t tag;
    std::int32_t n_parts;
    note(qx_index_stats, &n_base, &dim, &tag, &n_parts);
    note(qx_index_snapshot);
    note(qx_index_mutated);
    note(qx_index_sealed);
    note(qx_index_delta_count);
    note(qx_index_has_ivf, 1);
    note(qx_index_visible_count);
    return seen;
  }

 private:
  static constexpr std::int32_t kDim = 24;
  static constexpr std::int32_t kRows = 2000;

  QxIndex* index_ = qx_index_new(kDim, 0);
  std::vector<float> vectors_ = std::vector<float>(std::size_t{kRows} * kDim);
  std::vector<std::int64_t> ids_;
};

// Everything that an index of one's own gives, also by the functions that take no index.
Seen play(int number) {
  const Shared own(number);
  Seen seen = own.read(number);
  std::uint32_t first = 0;
  std::uint32_t second = 0;
  seen.numbers.push_back(qx_tuner_defaults(&first, &second));
  seen.numbers.insert(seen.numbers.end(), {first, second, qx_runtime_format_version()});
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
