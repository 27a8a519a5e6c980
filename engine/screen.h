// Which rows of a scan need a score. Most rows of a long scan are far from entering the results,
// and an estimate, which is several times as cheap as a score, proves it. It knows estimates and
// the bars of top-k buffers; what a row is, it does not know.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>

#include "support/room.h"
#include "support/topk.h"

namespace qx {

// A row whose score cannot enter is left out of a scan without changing its results. Two bars prove
// that. The row's score is at most its estimate plus the error, so an estimate by more than the
// error below the last slot of the results will do. And k rows whose estimates are by more than two
// errors better have better scores than it, whichever of them have been scored so far.
class Screen {
 public:
  // For the k best rows. Knows of no estimates that could save scores until it is opened.
  explicit Screen(std::int64_t k)
      : k_(k),
        best_(best_ids_.data(), best_estimates_.data(), k <= kMostTracked ? k : 1),
        tracks_(k <= kMostTracked) {}

  // For a scan of `rows` rows, of which those that are estimated have no component above
  // `magnitude`, which may be infinite. Reads the query where estimates could save scores.
  void open(const float* query, std::int64_t width, float magnitude, std::int64_t rows) {
    if (width < kShortestRow || rows / 4 < k_) return;
    error_ = largest_error(query, width, magnitude);
    pays_ = std::isfinite(error_);
  }

  // Whether estimates can save scores at all.
  bool pays() const { return pays_; }

  // Rows with an estimate below the limit need no score. A NaN is not below. `bar` is what a score
  // must beat, or less.
  float limit(float bar) const {
    double below = bar - error_;
    if (tracks_) below = std::max(below, best_.bar() - 2 * error_);
    // Less by more than the conversion rounds.
    below -= std::abs(below) * 0x1p-20 + 0x1p-120;
    return static_cast<float>(std::max(below, -double{std::numeric_limits<float>::max()}));
  }

  // Takes note of the estimates of up to kMostLearned rows that are in the scan.
  static constexpr std::int64_t kMostLearned = 192;
  void learn(const float* estimates, std::int64_t count) {
    static constexpr std::int64_t kNoIds[kMostLearned] = {};
    static constexpr std::int64_t kFew = 16;
    if (!tracks_) return;
    if (count > kFew) {
      best_.offer(estimates, kNoIds, count);
    } else {
      for (std::int64_t i = 0; i < count; ++i) best_.offer(estimates[i], 0);
    }
    best_.finish();
  }

  bool knows_nothing() const { return tracks_ && best_.bar() == kEmptyScore; }

 private:
  // Below this width a score costs no more than an estimate.
  static constexpr std::int64_t kShortestRow = 8;
  // The best estimates are kept for k up to this one.
  static constexpr std::int64_t kMostTracked = 48;

  // Within a two-hundredth, for the widest.
  static double sum_of_magnitudes(const float* floats, std::int64_t count) {
    constexpr std::int64_t kLanes = 16;  // sums side by side, which compilers turn into SIMD
    float sums[kLanes] = {};
    std::int64_t i = 0;
    for (; i + kLanes <= count; i += kLanes) {
      for (std::int64_t lane = 0; lane < kLanes; ++lane) sums[lane] += std::abs(floats[i + lane]);
    }
    for (; i < count; ++i) sums[0] += std::abs(floats[i]);
    double sum = 0;
    for (const float part : sums) sum += double{part};
    return sum;
  }

  // By how much an estimate and a score may differ, at most; not finite if nothing is known. Twice
  // the distance that kernels.h states, and a little for the arithmetic here.
  static double largest_error(const float* query, std::int64_t width, float magnitude) {
    constexpr std::int64_t kWidest = std::int64_t{1} << 20;
    constexpr double kLargestSum = 0x1p+120;
    if (width > kWidest) return std::numeric_limits<double>::infinity();
    const double sum = double{magnitude} * sum_of_magnitudes(query, width);
    if (!(sum < kLargestSum)) return std::numeric_limits<double>::infinity();
    const double roundings = static_cast<double>(width) * 0x1p-24;
    return 2.02 * (sum * roundings / (1 - roundings) + static_cast<double>(width) * 0x1p-120);
  }

  std::int64_t k_;
  double error_ = std::numeric_limits<double>::infinity();
  bool pays_ = false;
  Room<std::int64_t, kMostTracked> best_ids_;
  Room<float, kMostTracked> best_estimates_;
  BasicTopK<128> best_;
  bool tracks_;
};

}  // namespace qx
