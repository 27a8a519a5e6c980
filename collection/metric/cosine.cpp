// Vectors divided by their norms.
//
// The squares are exact in double precision. They are added from the first to the last; each
// component is divided by the root of the sum in double precision, and rounded to float.
//
// A quotient's rounding is at most 2^-24 of it, or 2^-150. So what is kept has a squared norm
// within 2^-23 + 2^-48 of 1; subnormal components add 2^16 * 2^-149 at most, and the roundings of
// doubles, in up to 2^16 additions, twice 2^-36. All of it is below kRounding. Vectors that near to
// 1 are kept as they are: a row that is read and upserted again does not drift.
#include <algorithm>
#include <cmath>

#include "metric/metric.h"

namespace qx::collection {
namespace {

constexpr double kRounding = 0x1.01p-23;

double squared_norm(const float* vector, std::int64_t dim) {
  double sum = 0;
  for (std::int64_t j = 0; j < dim; ++j) sum += double{vector[j]} * double{vector[j]};
  return sum;
}

// True of a zero vector too.
bool is_unit(double squared_norm) {
  return squared_norm == 0 || std::abs(squared_norm - 1) <= kRounding;
}

}  // namespace

void keep_vector(Metric metric, const float* vector, std::int64_t dim, float* kept) {
  const double square = metric == Metric::kCosine ? squared_norm(vector, dim) : 0;
  if (is_unit(square)) {
    std::copy_n(vector, dim, kept);
    return;
  }
  const double norm = std::sqrt(square);
  for (std::int64_t j = 0; j < dim; ++j) kept[j] = static_cast<float>(double{vector[j]} / norm);
}

bool is_kept(Metric metric, const float* vector, std::int64_t dim) {
  return metric != Metric::kCosine || is_unit(squared_norm(vector, dim));
}

}  // namespace qx::collection
