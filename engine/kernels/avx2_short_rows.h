// Scores of rows of one to three floats with AVX2: a part of avx2_scores.cpp.
//
// Eight such rows fill one to three registers, from which each column is taken by itself. The
// hardware prefetcher follows the one stream well.
#pragma once

#include <cstdint>

#include "kernels/target.h"

#if defined(__x86_64__)
#include <immintrin.h>

namespace qx::avx2 {

QX_AVX2_INLINE void score_eight_of_one(const float* rows, const float* query, float* scores) {
  _mm256_storeu_ps(scores, _mm256_fmadd_ps(_mm256_loadu_ps(rows), _mm256_broadcast_ss(query),
                                           _mm256_setzero_ps()));
}

// The shuffles leave the pairs of rows in the order 0, 2, 1, 3; the permutation restores the order.
QX_AVX2_INLINE void score_eight_of_two(const float* rows, const float* query, float* scores) {
  const __m256 low = _mm256_loadu_ps(rows);
  const __m256 high = _mm256_loadu_ps(rows + 8);
  __m256 sums = _mm256_setzero_ps();
  sums = _mm256_fmadd_ps(_mm256_shuffle_ps(low, high, 0x88), _mm256_broadcast_ss(query), sums);
  sums = _mm256_fmadd_ps(_mm256_shuffle_ps(low, high, 0xDD), _mm256_broadcast_ss(query + 1), sums);
  const __m256d pairs = _mm256_permute4x64_pd(_mm256_castps_pd(sums), 0xD8);
  _mm256_storeu_ps(scores, _mm256_castpd_ps(pairs));
}

// Component c of row r is element 3 r + c of the 24. Modulo 8 these are all different for one c, so
// blending the three registers by position gathers a column, and one permutation puts it in order.
QX_AVX2_INLINE void score_eight_of_three(const float* rows, const float* query, float* scores) {
  const __m256 a = _mm256_loadu_ps(rows);
  const __m256 b = _mm256_loadu_ps(rows + 8);
  const __m256 c = _mm256_loadu_ps(rows + 16);
  const __m256 first = _mm256_blend_ps(_mm256_blend_ps(a, b, 0x92), c, 0x24);
  const __m256 second = _mm256_blend_ps(_mm256_blend_ps(a, b, 0x24), c, 0x49);
  const __m256 third = _mm256_blend_ps(_mm256_blend_ps(a, b, 0x49), c, 0x92);
  const __m256 columns[3] = {
      _mm256_permutevar8x32_ps(first, _mm256_setr_epi32(0, 3, 6, 1, 4, 7, 2, 5)),
      _mm256_permutevar8x32_ps(second, _mm256_setr_epi32(1, 4, 7, 2, 5, 0, 3, 6)),
      _mm256_permutevar8x32_ps(third, _mm256_setr_epi32(2, 5, 0, 3, 6, 1, 4, 7))};
  __m256 sums = _mm256_setzero_ps();
  for (int j = 0; j < 3; ++j) {
    sums = _mm256_fmadd_ps(columns[j], _mm256_broadcast_ss(query + j), sums);
  }
  _mm256_storeu_ps(scores, sums);
}

// Scores whole groups of eight rows; returns the number of rows. Requires: 1 <= dim <= 3.
QX_AVX2 inline std::int64_t score_short_groups(const float* rows, std::int64_t count,
                                               std::int64_t dim, const float* query,
                                               float* scores) {
  std::int64_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    if (dim == 1) {
      score_eight_of_one(rows + i, query, scores + i);
    } else if (dim == 2) {
      score_eight_of_two(rows + i * 2, query, scores + i);
    } else {
      score_eight_of_three(rows + i * 3, query, scores + i);
    }
  }
  return i;
}

}  // namespace qx::avx2
#endif
