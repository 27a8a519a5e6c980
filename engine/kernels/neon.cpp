// The kernel for AArch64: four rows per register, one row per lane.
//
// Only plain types and the intrinsics are included, as in every kernel.
#include "kernels/kernels.h"
#include "support/compiler.h"

#if defined(__aarch64__)
#include <arm_neon.h>

namespace qx {
namespace {

constexpr std::int64_t kLanes = 4;
constexpr std::int64_t kStep = 4;    // columns that one transposition turns
constexpr std::int64_t kGroups = 4;  // groups of four rows that are walked side by side
constexpr std::int64_t kRows = kGroups * kLanes;

// Four columns of four rows: column[c] holds component c of rows 0 to 3.
struct Columns {
  float32x4_t column[kStep];
};

inline float32x4_t low_halves(float32x4_t a, float32x4_t b) {
  return vreinterpretq_f32_f64(vtrn1q_f64(vreinterpretq_f64_f32(a), vreinterpretq_f64_f32(b)));
}
inline float32x4_t high_halves(float32x4_t a, float32x4_t b) {
  return vreinterpretq_f32_f64(vtrn2q_f64(vreinterpretq_f64_f32(a), vreinterpretq_f64_f32(b)));
}

inline Columns load_columns(const float* const* rows, std::int64_t at) {
  const float32x4_t row0 = vld1q_f32(rows[0] + at);
  const float32x4_t row1 = vld1q_f32(rows[1] + at);
  const float32x4_t row2 = vld1q_f32(rows[2] + at);
  const float32x4_t row3 = vld1q_f32(rows[3] + at);
  const float32x4_t even01 = vtrn1q_f32(row0, row1);
  const float32x4_t odd01 = vtrn2q_f32(row0, row1);
  const float32x4_t even23 = vtrn1q_f32(row2, row3);
  const float32x4_t odd23 = vtrn2q_f32(row2, row3);
  return {{low_halves(even01, even23), low_halves(odd01, odd23), high_halves(even01, even23),
           high_halves(odd01, odd23)}};
}

// Adds the columns from `used` on to the sums; `factors` are the query's components at `at`.
inline float32x4_t add_columns(const Columns& columns, std::int64_t used, const float* factors,
                               float32x4_t sums) {
  for (std::int64_t c = used; c < kStep; ++c) {
    sums = vfmaq_n_f32(sums, columns.column[c], factors[c]);
  }
  return sums;
}

// One step of four rows.
inline float32x4_t add_step(const float* const* rows, std::int64_t at, const float* query,
                            float32x4_t sums) {
  return add_columns(load_columns(rows, at), 0, query + at, sums);
}

// Finishes four rows from column `at`, after which less than a step is left. The columns are taken
// from the row's last four, of which the first have been used already; rows shorter than a step are
// gathered element by element. Nothing is read past a row.
inline float32x4_t add_rest(const float* const* rows, std::int64_t at, std::int64_t dim,
                            const float* query, float32x4_t sums) {
  if (at == dim) return sums;
  if (dim >= kStep) {
    const std::int64_t last = dim - kStep;
    return add_columns(load_columns(rows, last), at - last, query + last, sums);
  }
  for (; at < dim; ++at) {
    const float column[kLanes] = {rows[0][at], rows[1][at], rows[2][at], rows[3][at]};
    sums = vfmaq_n_f32(sums, vld1q_f32(column), query[at]);
  }
  return sums;
}

// Scores kRows rows.
void score_groups(const float* const* rows, std::int64_t dim, const float* query, float* scores) {
  float32x4_t sums[kGroups] = {vdupq_n_f32(0), vdupq_n_f32(0), vdupq_n_f32(0), vdupq_n_f32(0)};
  std::int64_t j = 0;
  for (; j + kStep <= dim; j += kStep) {
    for (int g = 0; g < kGroups; ++g) sums[g] = add_step(rows + g * kLanes, j, query, sums[g]);
  }
  for (int g = 0; g < kGroups; ++g) {
    vst1q_f32(scores + g * kLanes, add_rest(rows + g * kLanes, j, dim, query, sums[g]));
  }
}

// Scores fewer than kRows rows; the last of them fills the lanes that are left over.
void score_last_rows(const float* const* rows, std::int64_t count, std::int64_t dim,
                     const float* query, float* scores) {
  const float* filled[kRows];
  float group_scores[kRows];
  for (std::int64_t i = 0; i < kRows; ++i) filled[i] = rows[i < count ? i : count - 1];
  score_groups(filled, dim, query, group_scores);
  for (std::int64_t i = 0; i < count; ++i) scores[i] = group_scores[i];
}

// Estimates four rows of at least four components, side by side; a register holds four components
// of one row, and the sums of its lanes are added at last.
void estimate_four(const float* const* rows, std::int64_t dim, const float* query,
                   float* estimates) {
  float32x4_t sums[kLanes] = {vdupq_n_f32(0), vdupq_n_f32(0), vdupq_n_f32(0), vdupq_n_f32(0)};
  std::int64_t j = 0;
  for (; j + kStep <= dim; j += kStep) {
    const float32x4_t factors = vld1q_f32(query + j);
    for (std::int64_t i = 0; i < kLanes; ++i) {
      sums[i] = vfmaq_f32(sums[i], vld1q_f32(rows[i] + j), factors);
    }
  }
  for (std::int64_t i = 0; i < kLanes; ++i) {
    estimates[i] = vaddvq_f32(sums[i]);
    for (std::int64_t rest = j; rest < dim; ++rest) estimates[i] += rows[i][rest] * query[rest];
  }
}

// Every AArch64 CPU has these instructions.
bool supported() { return true; }

void score_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                     const float* query, float* scores) {
  std::int64_t i = 0;
  for (; i + kRows <= count; i += kRows) score_groups(rows + i, dim, query, scores + i);
  if (i < count) score_last_rows(rows + i, count - i, dim, query, scores + i);
}

// Hands rows that lie one after the other, by their addresses, to a function for scattered rows.
template <typename Scattered>
void by_address(const float* rows, std::int64_t count, std::int64_t dim, const float* query,
                float* values, Scattered scattered) {
  for (std::int64_t i = 0; i < count; i += kRows) {
    const float* group[kRows];
    const std::int64_t size = count - i < kRows ? count - i : kRows;
    for (std::int64_t r = 0; r < size; ++r) group[r] = rows + (i + r) * dim;
    scattered(group, size, dim, query, values + i);
  }
}

void score_contiguous(const float* rows, std::int64_t count, std::int64_t dim, const float* query,
                      Reach /*reach*/, float* scores) {
  by_address(rows, count, dim, query, scores, score_scattered);
}

void estimate_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                        const float* query, float* estimates) {
  std::int64_t i = 0;
  for (; i + kLanes <= count; i += kLanes) estimate_four(rows + i, dim, query, estimates + i);
  score_scattered(rows + i, count - i, dim, query, estimates + i);
}

void estimate_contiguous(const float* rows, std::int64_t count, std::int64_t dim,
                         const float* query, Reach /*reach*/, float* estimates) {
  by_address(rows, count, dim, query, estimates, estimate_scattered);
}

std::uint64_t not_below(const float* numbers, std::int64_t count, float limit) {
  return kPortableKernels.not_below(numbers, count, limit);
}

void copy_selected(const std::int64_t* numbers, std::uint64_t mask, std::int64_t selected,
                   std::int64_t* out) {
  kPortableKernels.copy_selected(numbers, mask, selected, out);
}

}  // namespace

extern constinit const Kernels kNeonKernels = {
    "neon",          supported,           score_contiguous,
    score_scattered, estimate_contiguous, estimate_scattered,
    not_below,       copy_selected};

}  // namespace qx

#endif
