// From queries to hits: a batch of queries over ranges of rows, on all threads.
#pragma once

#include <optional>

#include "search/best.h"
#include "search/selection.h"
#include "threads/pool.h"

namespace qx::collection {

struct Queries {
  const float* vectors;
  std::int64_t count;
  std::int32_t dim;
  Metric metric;
  std::int64_t probes;         // how many lists each searches; 0: all rows
  std::optional<float> limit;  // the least score of a hit
  const float* vector(std::int64_t i) const { return vectors + i * dim; }
};

// The k best of the selected rows for each query as the host gives it, sorted, or all if they are
// fewer: a query without a limit that finds fewer in the lists that it probes searches further
// ones. Requires: k >= 1; without lists, probes is 0.
std::vector<std::vector<Hit>> search(const State& state, const Selection& selection,
                                     const Queries& queries, std::int64_t k, int threads,
                                     const Progress& progress);

}  // namespace qx::collection
