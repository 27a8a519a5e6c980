// What a metric makes of a vector that is kept, and how two vectors compare. It knows floats, not
// what a row is.
#pragma once

#include <cstdint>
#include <vector>

#include "read/row_span.h"

namespace qx::collection {

// As the host numbers them.
enum class Metric : std::int32_t { kInnerProduct, kCosine, kEuclidean };

// Writes what is kept of a vector, of a row or of a query: with kCosine, the vector divided by its
// norm, and otherwise itself. Of what is kept, the same is kept again.
void keep_vector(Metric metric, const float* vector, std::int64_t dim, float* kept);

// True if a vector is as keep_vector() leaves it.
bool is_kept(Metric metric, const float* vector, std::int64_t dim);

// Scores up to kMaskRows rows, scattered: higher is better. With kEuclidean that is minus the
// squared distance, and -0.0 if it is zero.
void score_rows(Metric metric, const float* const* rows, std::int64_t count, std::int64_t dim,
                const float* query, float* scores);

// The score as the host sees it.
inline float score_given_out(Metric metric, float score) {
  return metric == Metric::kEuclidean ? -score : score;
}

// No row whose components are between these has a higher score. `space` is any memory of the
// caller's.
float score_bound(Metric metric, const float* least, const float* largest, std::int64_t dim,
                  const float* query, std::vector<float>& space);

// ---- Bounds of distances ----

// A lower bound of half the squared norm of a row.
float half_norm_below(const float* row, std::int64_t dim);

// Squared distances to a query that can be coded, of rows whose inner products are bounded.
class DistanceLimit {
 public:
  DistanceLimit(const float* query, std::int64_t dim);

  // A row scores below `threshold` by kEuclidean if `bound` - `half_norm`, in single precision, is
  // below this. `bound` is at least the exact inner product, `half_norm` is half_norm_below().
  float of(float threshold) const;

 private:
  std::int64_t dim_;
  double half_query_;
};

}  // namespace qx::collection
