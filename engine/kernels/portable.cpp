// The truth: the numeric contract in plain C++. Read this kernel first; every other one returns
// the same bits.
#include "kernels/kernels.h"

namespace qx {
namespace {

// Rows in flight. A row's chain cannot be shortened, so several are walked side by side.
constexpr std::int64_t kGroup = 8;

// Scores kGroup rows.
void score_group(const float* const* rows, std::int64_t dim, const float* query, float* scores) {
  float sums[kGroup] = {};
  for (std::int64_t j = 0; j < dim; ++j) {
    for (std::int64_t i = 0; i < kGroup; ++i) {
      sums[i] = __builtin_fmaf(rows[i][j], query[j], sums[i]);
    }
  }
  for (std::int64_t i = 0; i < kGroup; ++i) scores[i] = sums[i];
}

bool supported() { return true; }

void score_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                     const float* query, float* scores) {
  const std::int64_t whole = count - count % kGroup;
  for (std::int64_t i = 0; i < whole; i += kGroup) score_group(rows + i, dim, query, scores + i);
  for (std::int64_t i = whole; i < count; ++i) {
    float sum = 0.0f;
    for (std::int64_t j = 0; j < dim; ++j) sum = __builtin_fmaf(rows[i][j], query[j], sum);
    scores[i] = sum;
  }
}

void score_contiguous(const float* rows, std::int64_t count, std::int64_t dim, const float* query,
                      Reach /*reach*/, float* scores) {
  for (std::int64_t first = 0; first < count; first += kGroup) {
    const float* group[kGroup];
    const std::int64_t size = count - first < kGroup ? count - first : kGroup;
    for (std::int64_t i = 0; i < size; ++i) group[i] = rows + (first + i) * dim;
    score_scattered(group, size, dim, query, scores + first);
  }
}

// Without a branch on the bits: a number that is not selected is overwritten by the next. The last
// one is selected, so no place behind it is touched.
void copy_selected(const std::int64_t* numbers, std::uint64_t mask, std::int64_t selected,
                   std::int64_t* out) {
  const std::int64_t* const end = out + selected;
  for (; out != end; ++numbers, mask >>= 1) {
    *out = *numbers;
    out += mask & 1;
  }
}

}  // namespace

extern constinit const Kernels kPortableKernels = {"portable", supported, score_contiguous,
                                                   score_scattered, copy_selected};

}  // namespace qx
