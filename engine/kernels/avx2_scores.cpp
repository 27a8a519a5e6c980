// AVX2 and FMA, second part: scores. Eight rows per register, one row per lane.
#include "kernels/row_views.h"
#include "kernels/tables.h"
#include "kernels/transposed_steps.h"
#include "kernels/tuning.h"

#if defined(__x86_64__)
#include <immintrin.h>

namespace qx::avx2 {
namespace {

constexpr std::int64_t kLine = 16;  // floats of a cache line
constexpr std::int64_t kLineBytes = 64;

QX_AVX2_INLINE __m256 load_halves(const float* low, const float* high) {
  return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(low)), _mm_loadu_ps(high), 1);
}

// Turns four columns of eight rows: column[c] holds component `at + c` of rows 0 to 7.
struct Transposition {
  struct Columns {
    __m256 column[kStep];
  };

  // Rows i and i + 4 share a register, so that transposing 4 x 4 inside each 128-bit half puts the
  // rows into natural order without crossing the halves.
  template <typename Rows>
  static QX_AVX2_INLINE Columns load_columns(const Rows& rows, std::int64_t at) {
    __m256 pair[4];
    for (int i = 0; i < 4; ++i) pair[i] = load_halves(rows.row(i) + at, rows.row(i + 4) + at);
    const __m256 low01 = _mm256_unpacklo_ps(pair[0], pair[1]);
    const __m256 high01 = _mm256_unpackhi_ps(pair[0], pair[1]);
    const __m256 low23 = _mm256_unpacklo_ps(pair[2], pair[3]);
    const __m256 high23 = _mm256_unpackhi_ps(pair[2], pair[3]);
    return {{_mm256_shuffle_ps(low01, low23, 0x44), _mm256_shuffle_ps(low01, low23, 0xEE),
             _mm256_shuffle_ps(high01, high23, 0x44), _mm256_shuffle_ps(high01, high23, 0xEE)}};
  }

  template <typename Rows>
  static QX_AVX2_INLINE __m256 load_column(const Rows& rows, std::int64_t at) {
    return _mm256_setr_ps(rows.row(0)[at], rows.row(1)[at], rows.row(2)[at], rows.row(3)[at],
                          rows.row(4)[at], rows.row(5)[at], rows.row(6)[at], rows.row(7)[at]);
  }

  static QX_AVX2_INLINE __m256 add_column(__m256 column, const float* factor, __m256 sums) {
    return _mm256_fmadd_ps(column, _mm256_broadcast_ss(factor), sums);
  }
};

// Scores `Groups` groups of eight rows side by side: the chain of a group waits for its own last
// step, and the others fill the wait. Before a group's part of a step from column `at` on comes
// prefetch(at, group); it is inlined, since g++ drops the call of a function that only prefetches.
template <int Groups, typename Rows, typename Prefetch>
QX_AVX2_INLINE void score_rows(const Rows& rows, std::int64_t dim, const float* query,
                               Prefetch prefetch, float* scores) {
  __m256 sums[Groups] = {};
  std::int64_t j = 0;
  for (; j + kStep <= dim; j += kStep) {
#pragma GCC unroll 3
    for (int g = 0; g < Groups; ++g) {
      prefetch(j, g);
      sums[g] = add_columns<Transposition>(rows.from(g * kLanes), j, 0, query, sums[g]);
    }
  }
#pragma GCC unroll 3
  for (int g = 0; g < Groups; ++g) {
    const Rows group = rows.from(g * kLanes);
    _mm256_storeu_ps(scores + g * kLanes, add_rest<Transposition>(group, j, dim, query, sums[g]));
  }
}

// ---- Contiguous rows ----

// The address after `bytes` bytes of rows; where they are few, from further ahead. An integer: a
// pointer past the rows, which may even be null, must not be computed.
// Tuning: only the address of prefetches, which read nothing.
std::uintptr_t address_ahead(const float* rows, std::int64_t bytes) {
  const std::int64_t ahead = bytes > tuning::kMinAheadBytes ? bytes : tuning::kMinAheadBytes;
  return reinterpret_cast<std::uintptr_t>(rows) + static_cast<std::uintptr_t>(ahead);
}

template <int Groups, bool Prefetches>
QX_AVX2 void score_groups(const float* rows, std::int64_t dim, const float* query, float* scores) {
  std::uintptr_t ahead = address_ahead(rows, Groups * kLanes * dim * 4);
  // As many lines as a step reads, in address order: two for each group.
  const auto prefetch = [&](std::int64_t /*at*/, int /*group*/) QX_AVX2_LAMBDA {
    // Tuning: only the number and addresses of prefetches, which read nothing.
    for (int line = 0; Prefetches && line < 2; ++line, ahead += kLineBytes) {
      // NOLINTNEXTLINE(performance-no-int-to-ptr): see above
      _mm_prefetch(reinterpret_cast<const char*>(ahead), _MM_HINT_T0);
    }
  };
  score_rows<Groups>(ContiguousRows{rows, dim}, dim, query, prefetch, scores);
}

// Scores whole groups of eight rows; returns the number of rows.
template <bool Prefetches>
QX_AVX2 std::int64_t score_whole_groups(const float* rows, std::int64_t count, std::int64_t dim,
                                        const float* query, float* scores) {
  const std::int64_t side_by_side = tuning::groups_side_by_side(dim);
  std::int64_t i = 0;
  for (; side_by_side >= 3 && i + 3 * kLanes <= count; i += 3 * kLanes) {
    score_groups<3, Prefetches>(rows + i * dim, dim, query, scores + i);
  }
  for (; side_by_side >= 2 && i + 2 * kLanes <= count; i += 2 * kLanes) {
    score_groups<2, Prefetches>(rows + i * dim, dim, query, scores + i);
  }
  for (; i + kLanes <= count; i += kLanes) {
    score_groups<1, Prefetches>(rows + i * dim, dim, query, scores + i);
  }
  return i;
}

// ---- Contiguous rows of one to three floats ----

// Eight such rows fill one to three registers, from which each column is taken by itself. The
// hardware prefetcher follows the one stream well.

QX_AVX2_INLINE void load_short_columns(const float* rows, __m256 (&columns)[1]) {
  columns[0] = _mm256_loadu_ps(rows);
}

// Rows i and i + 4 share a register, as in a transposition.
QX_AVX2_INLINE void load_short_columns(const float* rows, __m256 (&columns)[2]) {
  const __m256 low = load_halves(rows, rows + 8);
  const __m256 high = load_halves(rows + 4, rows + 12);
  columns[0] = _mm256_shuffle_ps(low, high, 0x88);
  columns[1] = _mm256_shuffle_ps(low, high, 0xDD);
}

// Component c of row r is element 3 r + c of the 24. Modulo 8 these are all different for one c, so
// blending the three registers by position gathers a column, and one permutation puts it in order.
QX_AVX2_INLINE void load_short_columns(const float* rows, __m256 (&columns)[3]) {
  const __m256 a = _mm256_loadu_ps(rows);
  const __m256 b = _mm256_loadu_ps(rows + 8);
  const __m256 c = _mm256_loadu_ps(rows + 16);
  const __m256 first = _mm256_blend_ps(_mm256_blend_ps(a, b, 0x92), c, 0x24);
  const __m256 second = _mm256_blend_ps(_mm256_blend_ps(a, b, 0x24), c, 0x49);
  const __m256 third = _mm256_blend_ps(_mm256_blend_ps(a, b, 0x49), c, 0x92);
  columns[0] = _mm256_permutevar8x32_ps(first, _mm256_setr_epi32(0, 3, 6, 1, 4, 7, 2, 5));
  columns[1] = _mm256_permutevar8x32_ps(second, _mm256_setr_epi32(1, 4, 7, 2, 5, 0, 3, 6));
  columns[2] = _mm256_permutevar8x32_ps(third, _mm256_setr_epi32(2, 5, 0, 3, 6, 1, 4, 7));
}

// Scores whole groups of eight rows of Dim floats; returns the number of rows.
template <int Dim>
QX_AVX2 std::int64_t score_short_groups(const float* rows, std::int64_t count, std::int64_t /*dim*/,
                                        const float* query, float* scores) {
  std::int64_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    __m256 columns[Dim];
    load_short_columns(rows + i * Dim, columns);
    __m256 sums = _mm256_setzero_ps();
    for (int c = 0; c < Dim; ++c) sums = Transposition::add_column(columns[c], query + c, sums);
    _mm256_storeu_ps(scores + i, sums);
  }
  return i;
}

auto choose_whole_groups(std::int64_t dim, CacheLevel level) {
  if (dim == 1) return score_short_groups<1>;
  if (dim == 2) return score_short_groups<2>;
  if (dim == 3) return score_short_groups<3>;
  return tuning::prefetches_ahead(dim, level) ? score_whole_groups<true>
                                              : score_whole_groups<false>;
}

// ---- Scattered rows ----

// Scores `Groups` groups of eight rows, and prefetches the next `following` rows of the list. The
// hardware cannot foresee them, since each begins at an address of its own.
template <int Groups>
QX_AVX2_INLINE void score_listed(const float* const* rows, std::int64_t following, std::int64_t dim,
                                 const float* query, float* scores) {
  const float* const* const next = rows + Groups * kLanes;
  // Where a step begins a line of its rows, the same line of those.
  const auto prefetch = [&](std::int64_t at, int group) QX_AVX2_LAMBDA {
    if (group != 0 || at % kLine != 0) return;
    for (std::int64_t i = 0; i < following; ++i) _mm_prefetch(next[i] + at, _MM_HINT_T0);
  };
  score_rows<Groups>(ScatteredRows{rows}, dim, query, prefetch, scores);
  // A row that begins inside a line ends on one line more.
  for (std::int64_t i = 0; i < following && dim > 0; ++i) {
    _mm_prefetch(next[i] + dim - 1, _MM_HINT_T0);
  }
}

template <int Groups>
QX_AVX2 void score_last_groups(const float* const* rows, std::int64_t dim, const float* query,
                               float* scores) {
  score_listed<Groups>(rows, 0, dim, query, scores);
}

}  // namespace

QX_AVX2 void score_contiguous(const float* rows, std::int64_t count, std::int64_t dim,
                              const float* query, CacheLevel level, float* scores) {
  const auto score_whole = choose_whole_groups(dim, level);
  const std::int64_t i = score_whole(rows, count, dim, query, scores);
  if (i == count) return;
  const ContiguousRows last{rows + i * dim, dim};
  score_padded<kLanes, score_last_groups<1>>(last, count - i, dim, query, scores + i);
}

QX_AVX2 void score_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                             const float* query, float* scores) {
  std::int64_t i = 0;
  for (; i + 2 * kLanes <= count; i += 2 * kLanes) {
    const std::int64_t left = count - i - 2 * kLanes;
    score_listed<2>(rows + i, left < 2 * kLanes ? left : 2 * kLanes, dim, query, scores + i);
  }
  if (i == count) return;
  const auto score_last = count - i > kLanes
                              ? score_padded<2 * kLanes, score_last_groups<2>, ScatteredRows>
                              : score_padded<kLanes, score_last_groups<1>, ScatteredRows>;
  score_last(ScatteredRows{rows + i}, count - i, dim, query, scores + i);
}

}  // namespace qx::avx2
#endif
