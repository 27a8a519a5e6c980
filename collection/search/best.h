// The one order of hits: falling score, ascending id. It decides which rows are the k best, in
// whatever order, and by however many threads, they are offered.
#pragma once

#include <atomic>
#include <limits>
#include <mutex>
#include <optional>
#include <vector>

#include "state/state.h"

namespace qx::collection {

struct Hit {
  float score;
  Location at;
};

class Best {
 public:
  // Of rows whose score is at least the limit. Requires: k >= 1.
  Best(const State& state, std::int64_t k, std::optional<float> limit)
      : state_(state), k_(k), threshold_(limit.value_or(std::numeric_limits<float>::lowest())) {}

  // No row of a lower score can enter any more; the limit, or the lowest float, until there are k.
  float threshold() const { return threshold_.load(std::memory_order_relaxed); }

  // True if no row can enter any more that has at most this score, nor an id below that of `at`.
  bool rules_out(const Hit& bound);

  // Offers rows of one part. May be called by several threads at once.
  void offer(std::size_t part, const std::int64_t* rows, const float* scores, std::int64_t count);

  // Gives the best, best first. Must be called after the last offer, and once.
  std::vector<Hit> take();

 private:
  bool is_better(const Hit& one, const Hit& other) const;
  void insert(const Hit& hit);

  const State& state_;
  const std::int64_t k_;
  std::mutex offering_;
  std::vector<Hit> heap_;  // the worst on top
  std::atomic<float> threshold_;
};

}  // namespace qx::collection
