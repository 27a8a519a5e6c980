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

// An estimate has several chains, and rows are walked side by side: plain loops of a fixed length,
// which any compiler turns into SIMD of the width that it was told of.
constexpr std::int64_t kChains = 8;
constexpr std::int64_t kAbreast = 4;

// Estimates kAbreast rows.
void estimate_abreast(const float* const* rows, std::int64_t dim, const float* query,
                      float* estimates) {
  float sums[kAbreast][kChains] = {};
  std::int64_t j = 0;
  for (; j + kChains <= dim; j += kChains) {
    for (std::int64_t i = 0; i < kAbreast; ++i) {
      for (std::int64_t c = 0; c < kChains; ++c) sums[i][c] += rows[i][j + c] * query[j + c];
    }
  }
  for (std::int64_t i = 0; i < kAbreast; ++i) {
    for (std::int64_t rest = j; rest < dim; ++rest) {
      sums[i][rest - j] += rows[i][rest] * query[rest];
    }
    const float* const s = sums[i];
    estimates[i] = ((s[0] + s[4]) + (s[2] + s[6])) + ((s[1] + s[5]) + (s[3] + s[7]));
  }
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

void estimate_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                        const float* query, float* estimates) {
  std::int64_t i = 0;
  for (; i + kAbreast <= count; i += kAbreast) {
    estimate_abreast(rows + i, dim, query, estimates + i);
  }
  score_scattered(rows + i, count - i, dim, query, estimates + i);
}

void estimate_contiguous(const float* rows, std::int64_t count, std::int64_t dim,
                         const float* query, Reach /*reach*/, float* estimates) {
  for (std::int64_t first = 0; first < count; first += kAbreast) {
    const float* group[kAbreast];
    const std::int64_t size = count - first < kAbreast ? count - first : kAbreast;
    for (std::int64_t i = 0; i < size; ++i) group[i] = rows + (first + i) * dim;
    estimate_scattered(group, size, dim, query, estimates + first);
  }
}

std::uint64_t not_below(const float* numbers, std::int64_t count, float limit) {
  // Mostly all are below, which runs without branches find out, as SIMD.
  constexpr std::int64_t kRun = 32;
  std::uint64_t bits = 0;
  for (std::int64_t first = 0; first < count; first += kRun) {
    const std::int64_t size = count - first < kRun ? count - first : kRun;
    std::int32_t any = 0;
    for (std::int64_t i = 0; i < kRun && size == kRun; ++i) {
      any |= numbers[first + i] < limit ? 0 : -1;
    }
    if (any == 0 && size == kRun) continue;
    for (std::int64_t i = first; i < first + size; ++i) {
      bits |= static_cast<std::uint64_t>(numbers[i] < limit ? 0 : 1) << i;
    }
  }
  return bits;
}

std::uint64_t test_bits(const std::uint32_t* words, int shift, const std::int64_t* numbers,
                        std::int64_t count) {
  std::uint64_t bits = 0;
  for (std::int64_t i = 0; i < count; ++i) {
    const std::int64_t at = numbers[i] >> shift;
    bits |= static_cast<std::uint64_t>((words[at / 32] >> (at % 32)) & 1) << i;
  }
  return bits;
}

}  // namespace

extern constinit const Kernels kPortableKernels = {
    "portable",          supported,          score_contiguous, score_scattered,
    estimate_contiguous, estimate_scattered, not_below,        test_bits};

}  // namespace qx
