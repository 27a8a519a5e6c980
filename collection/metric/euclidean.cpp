// Squared distances, and why one that is ruled out by a bound is as long as that says.
//
// Let x be a row, q the query, d the dimension, e = 2^-24, and D the squared distance as it is
// computed. Sums run over the components.
//
// 1. D is computed by subtractions, which lose no bits to subnormals, squares, which lose up to
//    2^-150 each to them, and d - 1 additions that round, of numbers that are not negative. So with
//    t = sum((x - q)^2), which is exact,
//
//        D >= t (1 - e)^2 (1 - e) (1 - e)^(d - 1) - d 2^-150 >= t (1 - (d + 2) e) - d 2^-150
//
//    An overflow makes D infinite, and holds too.
// 2. t = |x|^2 + |q|^2 - 2 sum(x q). A bound B from a code is at least sum(x q), exactly
//    (engine/read/coded_query.cpp). With h <= |x|^2 / 2 and g <= |q|^2 / 2,
//
//        t >= 2 (h + g - B)
//
// 3. A row is ruled out if D > T, the distance of the worst row of the results. That follows from
//
//        B - h < L = g - (T + d 2^-150) / (2 (1 - (d + 2) e))
// 4. Sums of squares in double precision: each square is exact, and each addition rounds by 2^-53,
//    so that kBelow is enough for 2^16 of them. h is then rounded to the float below. One that
//    overflows is the largest float.
// 5. L is computed in double precision, and lowered by more than that rounds: by 2^-50 of the sum
//    of its two terms. Rounding to single precision keeps order: where B - h >= L, it is so of both
//    rounded. So the rounded ones are compared.
//
// A row without a code has a NaN for a bound, which is below nothing.
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "kernels/kernels.h"
#include "metric/metric.h"

namespace qx::collection {
namespace {

constexpr double kBelow = 1 - 0x1p-30;

// Squares of so many components are added at once: those of kMaskRows rows, and the sums so far,
// stay in the first-level cache.
constexpr std::int64_t kPart = 64;

constexpr auto kOnes = [] {
  std::array<float, kPart + 1> ones{};
  ones.fill(1);
  return ones;
}();

// In any order.
double half_norm(const float* vector, std::int64_t dim) {
  constexpr std::int64_t kLanes = 8;
  double sums[kLanes] = {};
  std::int64_t j = 0;
  for (; j + kLanes <= dim; j += kLanes) {
    for (std::int64_t l = 0; l < kLanes; ++l) {
      sums[l] += double{vector[j + l]} * double{vector[j + l]};
    }
  }
  for (; j < dim; ++j) sums[0] += double{vector[j]} * double{vector[j]};
  double sum = 0;
  for (const double lane : sums) sum += lane;
  return sum / 2 * kBelow;
}

// The sum so far, and the squares that follow.
void put_squares(const float* row, const float* query, std::int64_t count, float sum,
                 float* __restrict out) {
  *out++ = sum;
  for (std::int64_t j = 0; j < count; ++j) {
    const float difference = row[j] - query[j];
    out[j] = difference * difference;
  }
}

// A chain of fused multiply-adds with ones is a chain of additions, which begins at +0.0 + sum.
void score_by_distance(const float* const* rows, std::int64_t count, std::int64_t dim,
                       const float* query, float* scores) {
  float squares[kMaskRows * (kPart + 1)];
  std::fill_n(scores, count, 0.0f);
  for (std::int64_t first = 0; first < dim; first += kPart) {
    const std::int64_t width = std::min(kPart, dim - first);
    for (std::int64_t i = 0; i < count; ++i) {
      put_squares(rows[i] + first, query + first, width, scores[i], squares + i * (width + 1));
    }
    kernels().score_contiguous(squares, count, width + 1, kOnes.data(), CacheLevel::kL2, scores);
  }
  for (std::int64_t i = 0; i < count; ++i) scores[i] = -scores[i];
}

}  // namespace

void score_rows(Metric metric, const float* const* rows, std::int64_t count, std::int64_t dim,
                const float* query, float* scores) {
  if (metric == Metric::kEuclidean) return score_by_distance(rows, count, dim, query, scores);
  kernels().score_scattered(rows, count, dim, query, scores);
}

float half_norm_below(const float* row, std::int64_t dim) {
  const double half = half_norm(row, dim);
  constexpr float kMost = std::numeric_limits<float>::max();
  if (half >= kMost) return kMost;
  const auto nearest = static_cast<float>(half);
  return nearest > half ? std::nextafter(nearest, 0.0f) : nearest;
}

DistanceLimit::DistanceLimit(const float* query, std::int64_t dim)
    : dim_(dim), half_query_(half_norm(query, dim)) {}

float DistanceLimit::of(float threshold) const {
  const auto components = static_cast<double>(dim_);
  const double half_distance =
      (-double{threshold} + components * 0x1p-150) / (2 * (1 - (components + 2) * 0x1p-24));
  return static_cast<float>(half_query_ - half_distance - (half_query_ + half_distance) * 0x1p-50);
}

}  // namespace qx::collection
