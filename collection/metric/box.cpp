// The best score between the least and the largest value of each component, and why no row there
// has a higher one.
//
// Inner products: each step of a score's chain, fma(x, q, s), is exact but for one rounding, and
// rounding keeps order. So the step does not fall where s rises, nor where x moves towards the end
// that the sign of q names. Finite x and q make no NaN, whatever s is. Zeros of q change the sign
// of a zero, and no comparison.
//
// Distances: no x between the ends is nearer to q than q moved to the nearer end. So the rounded
// difference is not smaller for x, nor its rounded square, nor a rounded sum of such squares; an
// infinite one is larger than others.
#include <algorithm>

#include "metric/metric.h"

namespace qx::collection {

float score_bound(Metric metric, const float* least, const float* largest, std::int64_t dim,
                  const float* query, std::vector<float>& space) {
  space.resize(static_cast<std::size_t>(dim));
  float* __restrict const best = space.data();
  if (metric == Metric::kEuclidean) {
    for (std::int64_t j = 0; j < dim; ++j) {
      best[j] = std::min(std::max(query[j], least[j]), largest[j]);
    }
  } else {
    for (std::int64_t j = 0; j < dim; ++j) best[j] = query[j] > 0 ? largest[j] : least[j];
  }
  const float* const row = best;
  float bound;
  score_rows(metric, &row, 1, dim, query, &bound);
  return bound;
}

}  // namespace qx::collection
