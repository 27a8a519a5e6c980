// NEON, which every AArch64 CPU has: four rows per register, one row per lane. Comparing and
// compressing are inherited from the portable kernel.
#include "kernels/row_views.h"
#include "kernels/tables.h"
#include "kernels/transposed_steps.h"

#if defined(__aarch64__)
#include <arm_neon.h>

namespace qx::neon {
namespace {

// ---- Scores ----

constexpr std::int64_t kLanes = 4;
constexpr std::int64_t kGroups = 4;  // groups of four rows that are scored side by side
constexpr std::int64_t kGroupRows = kGroups * kLanes;

inline float32x4_t low_halves(float32x4_t a, float32x4_t b) {
  return vreinterpretq_f32_f64(vtrn1q_f64(vreinterpretq_f64_f32(a), vreinterpretq_f64_f32(b)));
}
inline float32x4_t high_halves(float32x4_t a, float32x4_t b) {
  return vreinterpretq_f32_f64(vtrn2q_f64(vreinterpretq_f64_f32(a), vreinterpretq_f64_f32(b)));
}

// Turns four columns of four rows: column[c] holds component `at + c` of rows 0 to 3.
struct Transposition {
  struct Columns {
    float32x4_t column[kStep];
  };

  static Columns load_columns(const ScatteredRows& rows, std::int64_t at) {
    const float32x4_t row0 = vld1q_f32(rows.row(0) + at);
    const float32x4_t row1 = vld1q_f32(rows.row(1) + at);
    const float32x4_t row2 = vld1q_f32(rows.row(2) + at);
    const float32x4_t row3 = vld1q_f32(rows.row(3) + at);
    const float32x4_t even01 = vtrn1q_f32(row0, row1);
    const float32x4_t odd01 = vtrn2q_f32(row0, row1);
    const float32x4_t even23 = vtrn1q_f32(row2, row3);
    const float32x4_t odd23 = vtrn2q_f32(row2, row3);
    return {{low_halves(even01, even23), low_halves(odd01, odd23), high_halves(even01, even23),
             high_halves(odd01, odd23)}};
  }

  static float32x4_t load_column(const ScatteredRows& rows, std::int64_t at) {
    const float column[kLanes] = {rows.row(0)[at], rows.row(1)[at], rows.row(2)[at],
                                  rows.row(3)[at]};
    return vld1q_f32(column);
  }

  static float32x4_t add_column(float32x4_t column, const float* factor, float32x4_t sums) {
    return vfmaq_n_f32(sums, column, *factor);
  }
};

void score_rows(const float* const* rows, std::int64_t dim, const float* query, float* scores) {
  float32x4_t sums[kGroups] = {};
  std::int64_t j = 0;
  for (; j + kStep <= dim; j += kStep) {
    for (int g = 0; g < kGroups; ++g) {
      const ScatteredRows group{rows + g * kLanes};
      sums[g] = add_columns<Transposition>(group, j, 0, query, sums[g]);
    }
  }
  for (int g = 0; g < kGroups; ++g) {
    const ScatteredRows group{rows + g * kLanes};
    vst1q_f32(scores + g * kLanes, add_rest<Transposition>(group, j, dim, query, sums[g]));
  }
}

// ---- Estimates ----

constexpr std::int64_t kRowsInFlight = 4;

void add_lanes(const float32x4_t (&sums)[kRowsInFlight], float* estimates) {
  for (std::int64_t i = 0; i < kRowsInFlight; ++i) estimates[i] = vaddvq_f32(sums[i]);
}

// A register holds four components of one row, and its lanes are added last.
void estimate_rows(const float* const* rows, std::int64_t dim, const float* query,
                   float* estimates) {
  float32x4_t sums[kRowsInFlight] = {};
  std::int64_t j = 0;
  for (; j + kLanes <= dim; j += kLanes) {
    const float32x4_t factors = vld1q_f32(query + j);
    for (std::int64_t i = 0; i < kRowsInFlight; ++i) {
      sums[i] = vfmaq_f32(sums[i], vld1q_f32(rows[i] + j), factors);
    }
  }
  add_lanes(sums, estimates);
  for (; j < dim; ++j) {
    for (std::int64_t i = 0; i < kRowsInFlight; ++i) estimates[i] += rows[i][j] * query[j];
  }
}

}  // namespace

bool supported() { return true; }

void score_contiguous(const float* rows, std::int64_t count, std::int64_t dim, const float* query,
                      CacheLevel /*level*/, float* scores) {
  score_in_groups<kGroupRows, score_rows>(ContiguousRows{rows, dim}, count, dim, query, scores);
}

void score_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                     const float* query, float* scores) {
  score_in_groups<kGroupRows, score_rows>(ScatteredRows{rows}, count, dim, query, scores);
}

void estimate_contiguous(const float* rows, std::int64_t count, std::int64_t dim,
                         const float* query, CacheLevel /*level*/, float* estimates) {
  score_in_groups<kRowsInFlight, estimate_rows>(ContiguousRows{rows, dim}, count, dim, query,
                                                estimates);
}

void estimate_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                        const float* query, float* estimates) {
  score_in_groups<kRowsInFlight, estimate_rows>(ScatteredRows{rows}, count, dim, query, estimates);
}

}  // namespace qx::neon
#endif
