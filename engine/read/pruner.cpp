#include "read/pruner.h"

#include <atomic>
#include <cstring>
#include <numeric>

#include "kernels/kernels.h"
#include "kernels/tuning.h"

namespace qx {
namespace {

constexpr const char* kJudgeNames[kJudges] = {"four bits", "eight bits", "estimates", "scores"};
constexpr int kNotForced = -1;

constinit std::atomic<int> forced{kNotForced};

// Below this dimension a score costs no more than an estimate.
constexpr std::int64_t kMinEstimatedDim = 8;

// Relative error below 0.5 % for up to 2^20 components.
double sum_of_magnitudes(const float* floats, std::int64_t count) {
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
double max_error(const float* query, std::int64_t dim, float magnitude) {
  constexpr std::int64_t kMaxDim = std::int64_t{1} << 20;
  constexpr double kLargestSum = 0x1p+120;
  if (dim > kMaxDim) return std::numeric_limits<double>::infinity();
  const double sum = double{magnitude} * sum_of_magnitudes(query, dim);
  if (!(sum < kLargestSum)) return std::numeric_limits<double>::infinity();
  const double roundings = static_cast<double>(dim) * 0x1p-24;
  return 2.02 * (sum * roundings / (1 - roundings) + static_cast<double>(dim) * 0x1p-120);
}

// Tuning: chooses whether a scan is judged by codes at all.
bool pays_to_bound(std::int64_t rows, std::int64_t dim, std::int64_t k) {
  const Kernels& chosen = kernels();
  const CacheLevel level = tuning::cache_level(rows * dim * std::int64_t{sizeof(float)});
  return rows / tuning::kMinBoundedRowsPerResult >= k && dim >= chosen.min_bounded_dim &&
         (dim >= tuning::kMinCachedBoundedDim || level == CacheLevel::kMemory) &&
         rows * dim >= chosen.min_bounded_floats &&
         rows * dim * dim >= tuning::kMinBoundedWork / dim;
}

}  // namespace

bool force_judge(const char* name) {
  if (name == nullptr) {
    forced.store(kNotForced, std::memory_order_relaxed);
    return true;
  }
  for (int judge = 0; judge < kJudges; ++judge) {
    if (std::strcmp(kJudgeNames[judge], name) != 0) continue;
    forced.store(judge, std::memory_order_relaxed);
    return true;
  }
  return false;
}

bool JudgeChoice::is_forced() { return forced.load(std::memory_order_relaxed) != kNotForced; }

Judge JudgeChoice::next(Judge least) const {
  const int only = forced.load(std::memory_order_relaxed);
  int judge = std::max(static_cast<int>(least), only);
  // Estimates alone make way for scores where they are forced: that is a scan without codes.
  const bool chooses = only == kNotForced || judge == static_cast<int>(Judge::kEstimates);
  while (chooses && judge < static_cast<int>(Judge::kScores) && states_[judge].held > 0) ++judge;
  return static_cast<Judge>(judge);
}

std::int64_t JudgeChoice::rows_of(Judge judge) const {
  if (judge >= Judge::kEstimates) return kBlockRows;
  return states_[static_cast<int>(judge)].next_hold > 0 ? kTrialRows : kMostRows;
}

void JudgeChoice::record(Judge judge, std::int64_t rows, std::int64_t left) {
  for (int cheaper = 0; cheaper < static_cast<int>(judge); ++cheaper) {
    states_[cheaper].held = std::max<std::int64_t>(states_[cheaper].held - rows, 0);
  }
  State& state = states_[static_cast<int>(judge)];
  const std::int64_t unit = judge >= Judge::kEstimates ? kBlockRows : kMostRows;
  if (!is_worthwhile(rows, left)) {
    state.held = std::max(state.next_hold, unit);
    state.next_hold = std::min(2 * state.held, kMostBlocksHeld * unit);
  } else {
    state.next_hold = 0;
  }
}

void Pruner::open(const float* query, std::int64_t dim, float magnitude, std::int64_t rows,
                  bool coded) {
  if (rows / 4 < k_) return;
  dim_ = dim;
  const int only = forced.load(std::memory_order_relaxed);
  const bool wanted = only == kNotForced ? pays_to_bound(rows, dim, k_)
                                         : only <= static_cast<int>(Judge::kEightBits);
  has_bounds_ = coded && wanted && code_query(query, dim, coded_query_);
  if (dim >= kMinEstimatedDim) error_ = max_error(query, dim, magnitude);
}

}  // namespace qx
