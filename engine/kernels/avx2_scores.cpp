// AVX2 and FMA, second part: scores. Eight rows per register, one row per lane.
#include "kernels/avx2_short_rows.h"
#include "kernels/kernels.h"
#include "kernels/row_views.h"
#include "kernels/tables.h"
#include "kernels/transposed_steps.h"
#include "kernels/tuning.h"
#include "support/compiler.h"

#if defined(__x86_64__)
#include <immintrin.h>

namespace qx::avx2 {
namespace {

constexpr std::int64_t kLine = 16;  // floats of a cache line
constexpr std::int64_t kLineBytes = 64;

// Turns four columns of eight rows: column[c] holds component `at + c` of rows 0 to 7.
struct Transposition {
  using Sums = __m256;
  struct Columns {
    __m256 column[kStep];
  };

  // Rows i and i + 4 share a register, so that transposing 4 x 4 inside each 128-bit half puts the
  // rows into natural order without crossing the halves.
  template <typename Rows>
  static QX_AVX2_INLINE Columns load_columns(const Rows& rows, std::int64_t at) {
    __m256 pair[4];
    for (int i = 0; i < 4; ++i) {
      const __m256 low = _mm256_castps128_ps256(_mm_loadu_ps(rows.row(i) + at));
      pair[i] = _mm256_insertf128_ps(low, _mm_loadu_ps(rows.row(i + 4) + at), 1);
    }
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

// What score_rows prefetches: before a step from column `at` on, before each group's part of it,
// and after the last. All inlined, since g++ drops the call of a function that only prefetches.

struct PrefetchNothing {
  QX_AVX2_INLINE void before_step(std::int64_t /*at*/) const {}
  QX_AVX2_INLINE void before_group() const {}
  QX_AVX2_INLINE void after_steps(std::int64_t /*dim*/) const {}
};

// As many lines as a step reads, in address order. Takes an integer: a pointer past the rows, which
// may even be null, must not be computed.
struct PrefetchAhead : PrefetchNothing {
  std::uintptr_t address;

  explicit PrefetchAhead(std::uintptr_t first) : address(first) {}
  static QX_AVX2_INLINE void prefetch_line(std::uintptr_t line) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): see above
    _mm_prefetch(reinterpret_cast<const char*>(line), _MM_HINT_T0);
  }
  QX_AVX2_INLINE void before_group() {
    prefetch_line(address);
    prefetch_line(address + kLineBytes);
    address += 2 * kLineBytes;
  }
};

// `count` rows of a list: where a step begins a line of its rows, the same line of those. The
// hardware cannot foresee them, since each begins at an address of its own.
struct PrefetchListed : PrefetchNothing {
  const float* const* rows;
  std::int64_t count;

  PrefetchListed(const float* const* listed, std::int64_t listed_count)
      : rows(listed), count(listed_count) {}
  QX_AVX2_INLINE void before_step(std::int64_t at) const {
    if (at % kLine != 0) return;
    for (std::int64_t i = 0; i < count; ++i) _mm_prefetch(rows[i] + at, _MM_HINT_T0);
  }
  // A row that begins inside a line ends on one line more.
  QX_AVX2_INLINE void after_steps(std::int64_t dim) const {
    for (std::int64_t i = 0; i < count && dim > 0; ++i) {
      _mm_prefetch(rows[i] + dim - 1, _MM_HINT_T0);
    }
  }
};

// Scores `Groups` groups of eight rows side by side: the chain of a group waits for its own last
// step, and the others fill the wait.
template <int Groups, typename Rows, typename Prefetch>
QX_AVX2_INLINE void score_rows(const Rows (&rows)[Groups], std::int64_t dim, const float* query,
                               Prefetch prefetch, float* scores) {
  __m256 sums[Groups];
  for (int g = 0; g < Groups; ++g) sums[g] = _mm256_setzero_ps();
  std::int64_t j = 0;
  for (; j + kStep <= dim; j += kStep) {
    prefetch.before_step(j);
#pragma GCC unroll 3
    for (int g = 0; g < Groups; ++g) {
      prefetch.before_group();
      sums[g] = add_step<Transposition>(rows[g], j, query, sums[g]);
    }
  }
  prefetch.after_steps(dim);
#pragma GCC unroll 3
  for (int g = 0; g < Groups; ++g) {
    _mm256_storeu_ps(scores + g * kLanes, add_rest<Transposition>(rows[g], j, dim, query, sums[g]));
  }
}

// ---- Contiguous rows ----

// From the end of `bytes` bytes of rows on; where they are few, from further ahead.
// Tuning: only the address of prefetches, which read nothing.
PrefetchAhead prefetch_after(const float* rows, std::int64_t bytes) {
  const std::int64_t ahead = bytes > tuning::kMinAheadBytes ? bytes : tuning::kMinAheadBytes;
  return PrefetchAhead(reinterpret_cast<std::uintptr_t>(rows) + static_cast<std::uintptr_t>(ahead));
}

template <int Groups, bool Prefetches>
QX_AVX2 void score_groups(const float* rows, std::int64_t dim, const float* query, float* scores) {
  ContiguousRows groups[Groups];
  for (int g = 0; g < Groups; ++g) groups[g] = {rows + g * kLanes * dim, dim};
  if constexpr (Prefetches) {
    const PrefetchAhead ahead = prefetch_after(rows, Groups * kLanes * dim * 4);
    score_rows(groups, dim, query, ahead, scores);
  } else {
    score_rows(groups, dim, query, PrefetchNothing{}, scores);
  }
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

auto choose_whole_groups(std::int64_t dim, CacheLevel level) {
  if (dim >= 1 && dim < kStep) return score_short_groups;
  return tuning::prefetches_ahead(dim, level) ? score_whole_groups<true>
                                              : score_whole_groups<false>;
}

// ---- Scattered rows ----

template <int Groups, typename Prefetch>
QX_AVX2_INLINE void score_listed_groups(const float* const* rows, std::int64_t dim,
                                        const float* query, Prefetch prefetch, float* scores) {
  ScatteredRows groups[Groups];
  for (int g = 0; g < Groups; ++g) groups[g] = {rows + g * kLanes};
  score_rows(groups, dim, query, prefetch, scores);
}

// Scores two groups of eight rows, and prefetches the next `following` rows of the list.
QX_AVX2 void score_pair(const float* const* rows, std::int64_t following, std::int64_t dim,
                        const float* query, float* scores) {
  const PrefetchListed next(rows + 2 * kLanes, following);
  score_listed_groups<2>(rows, dim, query, next, scores);
}

template <int Groups>
QX_AVX2 void score_last_groups(const float* const* rows, std::int64_t dim, const float* query,
                               float* scores) {
  score_listed_groups<Groups>(rows, dim, query, PrefetchNothing{}, scores);
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
    score_pair(rows + i, left < 2 * kLanes ? left : 2 * kLanes, dim, query, scores + i);
  }
  if (i == count) return;
  const auto score_last = count - i > kLanes
                              ? score_padded<2 * kLanes, score_last_groups<2>, ScatteredRows>
                              : score_padded<kLanes, score_last_groups<1>, ScatteredRows>;
  score_last(ScatteredRows{rows + i}, count - i, dim, query, scores + i);
}

}  // namespace qx::avx2
#endif
