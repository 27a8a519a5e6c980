// Which rows of a scan need a score. Most rows of a long scan are far below the threshold, and
// there are cheaper numbers than a score that prove it. This decides by which of them the next rows
// are judged, and from where on a row is pruned. It knows numbers and thresholds, not what a row
// is.
#pragma once

#include <cmath>
#include <limits>

#include "read/coded_query.h"
#include "read/topk.h"

namespace qx {

// By what rows are judged, cheapest first. The last judges nothing: rows are scored at once.
enum class Judge { kFourBits, kEightBits, kEstimates, kScores };
inline constexpr int kJudges = 4;

// Makes every scan use this judge, wherever its numbers are known, and the next one where they are
// not; with null, each chooses for itself. Returns false, and changes nothing, for another name
// than "four bits", "eight bits", "estimates" and "scores". For tests and benchmarks. Requires: no
// other call of the library at the same time.
bool force_judge(const char* name);

// Chooses a judge. One that leaves more than a quarter of the rows is not asked again for a while,
// each time for twice as long; the next one is asked instead. A judge that is asked again is first
// tried on few rows, so that rows of which none can be ruled out cost little more than without it.
class JudgeChoice {
 public:
  // True if there is no choice.
  static bool is_forced();

  // The cheapest judge, not cheaper than `least`, that is not held. Scores never are.
  Judge next(Judge least) const;

  // How many rows the judge should be given.
  std::int64_t rows_of(Judge judge) const;

  // True if a judge that left so many of the rows saves time.
  static bool is_worthwhile(std::int64_t rows, std::int64_t left) { return 4 * left <= rows; }

  // Asks a judge from the first row on.
  void trust(Judge judge) { states_[static_cast<int>(judge)] = {}; }

  // Records that a judge was given some rows and how many it left.
  void record(Judge judge, std::int64_t rows, std::int64_t left);

#if defined(QX_SMALL_SPANS)
  // In builds for tests: the bases of random call sequences are then judged in several pieces.
  static constexpr std::int64_t kMostRows = 256;
  static constexpr std::int64_t kPieceRows = 64;  // after which a judge is asked whether it goes on
  static constexpr std::int64_t kTrialRows = 64;
#else
  static constexpr std::int64_t kMostRows = 4096;
  static constexpr std::int64_t kPieceRows = 512;
  static constexpr std::int64_t kTrialRows = 128;
#endif
  static constexpr std::int64_t kBlockRows = 192;

 private:
  static constexpr std::int64_t kMostBlocksHeld = 32;

  struct State {
    std::int64_t held = 0;       // rows for which it is not asked
    std::int64_t next_hold = 0;  // for how many it is held next time, at least; 0 if it is trusted
  };
  // Four bits need a good threshold: they are tried after the first rows. Eight are tried first.
  State states_[kJudges] = {{kMostRows, kMostRows}, {0, kMostRows}, {}, {}};
};

// A row with a bound below this has a score below the threshold: what the chain may lose to
// subnormals is taken off, and the rounding of the conversion to float.
inline float bound_limit(float threshold, std::int64_t dim) {
  double least = threshold;
  least -= std::abs(least) * 0x1p-23 + static_cast<double>(dim + 1) * 0x1p-120;
  return static_cast<float>(std::max(least, -double{std::numeric_limits<float>::max()}));
}

// A row is pruned if its number is below a limit.
//
// By bounds: the limit is the threshold of the results, or of the seed, which is the lowest of k
// scores of other rows, whichever is larger.
//
// By estimates: the limit is the larger of two. A row's score is at most its estimate plus the
// error: prune if estimate + error < the threshold of the results. And prune if the k-th best
// estimate so far exceeds this one by more than 2 * error: those k rows all score higher, scored or
// not.
class Pruner {
 public:
  // For the k best rows. Not worthwhile until it is opened.
  // cppcheck-suppress uninitMemberVar ; the arrays are slots of best_, which empties them
  explicit Pruner(std::int64_t k)
      : k_(k),
        best_(best_ids_, best_estimates_, k <= kMaxTrackedK ? k : 1),
        tracks_best_(k <= kMaxTrackedK) {}

  // For a scan of `rows` rows, whose estimated ones have no component above `magnitude`, which may
  // be infinite, and of which some may be coded. Reads the query if estimates or bounds could save
  // scores.
  void open(const float* query, std::int64_t dim, float magnitude, std::int64_t rows, bool coded);

  // True if estimates can save scores at all; if bounds can.
  bool is_worthwhile() const { return std::isfinite(error_); }
  bool has_bounds() const { return has_bounds_; }
  bool can_prune() const { return has_bounds_ || is_worthwhile(); }

  // The query for bounds. Requires: has_bounds().
  const CodedQuery& coded_query() const { return coded_query_; }

  // Rows with a bound below this need no score.
  float bound_limit(float threshold) const {
    return qx::bound_limit(std::max(threshold, seed_), dim_);
  }

  // True if a bound can prune at all: the results or the seed have k rows.
  bool has_threshold(float threshold) const {
    return seed_ > kEmptyScore || threshold > kEmptyScore;
  }

  // Records the lowest of the scores of k rows, of the scan or of others.
  void seed(float lowest) { seed_ = std::max(seed_, lowest); }

  // Rows with an estimate below this need no score. A NaN is not below. `threshold` is a lower
  // bound of the score needed to enter the results.
  float pruning_threshold(float threshold) const {
    double least = std::max(threshold, seed_) - error_;
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
  // The best estimates are tracked for k up to this one.
  static constexpr std::int64_t kMaxTrackedK = 48;

  std::int64_t k_;
  std::int64_t dim_ = 0;
  bool has_bounds_ = false;
  float seed_ = -std::numeric_limits<float>::max();  // without one
  double error_ = std::numeric_limits<double>::infinity();
  std::int64_t best_ids_[kMaxTrackedK];
  float best_estimates_[kMaxTrackedK];
  BasicTopK<128> best_;
  bool tracks_best_;
  CodedQuery coded_query_;  // set if has_bounds_
};

}  // namespace qx
