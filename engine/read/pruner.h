// Which rows of a scan need a score. Most rows of a long scan are far below the threshold, and an
// estimate, which is several times as cheap as a score, proves it. It knows estimates and
// thresholds, not what a row is.
#pragma once

#include <cmath>
#include <limits>
#include <numeric>

#include "read/topk.h"

namespace qx {

// A row is pruned if its estimate is below the pruning threshold, the larger of two. Its score is
// at most its estimate plus the error: prune if estimate + error < the threshold of the results.
// And prune if the k-th best estimate so far exceeds this one by more than 2 * error: those k rows
// all score higher, scored or not.
class Pruner {
 public:
  // For the k best rows. Not worthwhile until it is opened.
  // cppcheck-suppress uninitMemberVar ; the arrays are slots of best_, which empties them
  explicit Pruner(std::int64_t k)
      : k_(k),
        best_(best_ids_, best_estimates_, k <= kMaxTrackedK ? k : 1),
        tracks_best_(k <= kMaxTrackedK) {}

  // For a scan of `rows` rows, whose estimated ones have no component above `magnitude`, which may
  // be infinite. Reads the query if estimates could save scores.
  void open(const float* query, std::int64_t dim, float magnitude, std::int64_t rows) {
    if (dim < kMinEstimatedDim || rows / 4 < k_) return;
    error_ = max_error(query, dim, magnitude);
  }

  // True if estimates can save scores at all.
  bool is_worthwhile() const { return std::isfinite(error_); }

  // Rows with an estimate below this need no score. A NaN is not below. `threshold` is a lower
  // bound of the score needed to enter the results.
  float pruning_threshold(float threshold) const {
    double least = threshold - error_;
    if (tracks_best_) least = std::max(least, best_.threshold() - 2 * error_);
    // Lowered by more than the rounding of the conversion to float.
    least -= std::abs(least) * 0x1p-20 + 0x1p-120;
    return static_cast<float>(std::max(least, -double{std::numeric_limits<float>::max()}));
  }

  // Records the estimates of up to kMaxObserved rows of the scan.
  static constexpr std::int64_t kMaxObserved = 192;
  void observe(const float* estimates, std::int64_t count) {
    static constexpr std::int64_t kNoIds[kMaxObserved] = {};
    static constexpr std::int64_t kFew = 16;
    if (!tracks_best_) return;
    if (count > kFew) {
      best_.offer(estimates, kNoIds, count);
    } else {
      for (std::int64_t i = 0; i < count; ++i) best_.offer(estimates[i], 0);
    }
    best_.finish();
  }

  // True if fewer than k estimates have been observed that could be of use.
  bool is_empty() const { return tracks_best_ && best_.threshold() == kEmptyScore; }

 private:
  // Below this dimension a score costs no more than an estimate.
  static constexpr std::int64_t kMinEstimatedDim = 8;
  // The best estimates are tracked for k up to this one.
  static constexpr std::int64_t kMaxTrackedK = 48;

  // Relative error below 0.5 % for up to 2^20 components.
  static double sum_of_magnitudes(const float* floats, std::int64_t count) {
    constexpr std::int64_t kLanes = 16;  // independent sums, which compilers turn into SIMD
    float sums[kLanes] = {};
    std::int64_t i = 0;
    for (; i + kLanes <= count; i += kLanes) {
      for (std::int64_t lane = 0; lane < kLanes; ++lane) sums[lane] += std::abs(floats[i + lane]);
    }
    for (; i < count; ++i) sums[0] += std::abs(floats[i]);
    return std::accumulate(sums, sums + kLanes, 0.0);
  }

  // The largest difference of an estimate and a score; not finite if none is known. Twice the
  // distance that kernels.h states, and a little for the arithmetic here.
  static double max_error(const float* query, std::int64_t dim, float magnitude) {
    constexpr std::int64_t kMaxDim = std::int64_t{1} << 20;
    constexpr double kLargestSum = 0x1p+120;
    if (dim > kMaxDim) return std::numeric_limits<double>::infinity();
    const double sum = double{magnitude} * sum_of_magnitudes(query, dim);
    if (!(sum < kLargestSum)) return std::numeric_limits<double>::infinity();
    const double roundings = static_cast<double>(dim) * 0x1p-24;
    return 2.02 * (sum * roundings / (1 - roundings) + static_cast<double>(dim) * 0x1p-120);
  }

  std::int64_t k_;
  double error_ = std::numeric_limits<double>::infinity();
  std::int64_t best_ids_[kMaxTrackedK];
  float best_estimates_[kMaxTrackedK];
  BasicTopK<128> best_;
  bool tracks_best_;
};

}  // namespace qx
