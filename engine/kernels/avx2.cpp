// The kernel for x86-64 with AVX2 and FMA: eight rows per register, one row per lane.
//
// Only plain types and the intrinsics are included: an inline function of the standard library,
// compiled here for a wide instruction set, could be merged into code that runs on any CPU.
#include "kernels/kernels.h"
#include "support/compiler.h"

#if defined(__x86_64__)
#include <immintrin.h>

#define QX_AVX2 __attribute__((target("avx2,fma,popcnt")))
#define QX_AVX2_LAMBDA __attribute__((target("avx2,fma,popcnt"), always_inline))
#define QX_AVX2_INLINE __attribute__((target("avx2,fma,popcnt"), always_inline)) inline

namespace qx {
namespace {

constexpr std::int64_t kLanes = 8;
constexpr std::int64_t kStep = 4;   // columns that one transposition turns
constexpr std::int64_t kLine = 16;  // floats of a cache line
constexpr std::int64_t kLineBytes = 64;
constexpr std::int64_t kMostGroups = 3;  // groups of eight rows that are walked side by side

// Eight rows, at equal distances or anywhere.
struct ContiguousRows {
  const float* first;
  std::int64_t dim;
  const float* row(std::int64_t i) const { return first + i * dim; }
};
struct ScatteredRows {
  const float* const* rows;
  const float* row(std::int64_t i) const { return rows[i]; }
};

// Four columns of eight rows: column[c] holds component c of rows 0 to 7.
struct Columns {
  __m256 column[kStep];
};

// Rows i and i + 4 share a register, so that transposing 4 x 4 inside each 128-bit half puts the
// rows into natural order without crossing the halves.
template <typename Rows>
QX_AVX2_INLINE Columns load_columns(const Rows& rows, std::int64_t at) {
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

// Adds the columns from `used` on to the sums; `factors` are the query's components at `at`.
QX_AVX2_INLINE __m256 add_columns(const Columns& columns, std::int64_t used, const float* factors,
                                  __m256 sums) {
  for (std::int64_t c = used; c < kStep; ++c) {
    sums = _mm256_fmadd_ps(columns.column[c], _mm256_broadcast_ss(factors + c), sums);
  }
  return sums;
}

// One step of eight rows.
template <typename Rows>
QX_AVX2_INLINE __m256 add_step(const Rows& rows, std::int64_t at, const float* query, __m256 sums) {
  return add_columns(load_columns(rows, at), 0, query + at, sums);
}

// Finishes eight rows from column `at`, after which less than a step is left. The columns are taken
// from the row's last four, of which the first have been used already; rows shorter than a step are
// gathered element by element. Nothing is read past a row.
template <typename Rows>
QX_AVX2_INLINE __m256 add_rest(const Rows& rows, std::int64_t at, std::int64_t dim,
                               const float* query, __m256 sums) {
  if (at == dim) return sums;
  if (dim >= kStep) {
    const std::int64_t last = dim - kStep;
    return add_columns(load_columns(rows, last), at - last, query + last, sums);
  }
  for (; at < dim; ++at) {
    const __m256 column =
        _mm256_setr_ps(rows.row(0)[at], rows.row(1)[at], rows.row(2)[at], rows.row(3)[at],
                       rows.row(4)[at], rows.row(5)[at], rows.row(6)[at], rows.row(7)[at]);
    sums = _mm256_fmadd_ps(column, _mm256_broadcast_ss(query + at), sums);
  }
  return sums;
}

// A number, since what is ahead may lie past the rows, where no pointer may be computed.
QX_AVX2_INLINE void prefetch_line(std::uintptr_t address) {
  const auto* const line =
      reinterpret_cast<const char*>(address);  // NOLINT(performance-no-int-to-ptr): see above
  _mm_prefetch(line, _MM_HINT_T0);
}

// Scores `Groups` groups of eight rows side by side: a chain of one group waits for its own last
// step, and the others fill the wait. With Prefetches, each step also prefetches as many lines as
// it reads, in address order from `ahead` on.
template <int Groups, bool Prefetches, typename Rows>
QX_AVX2_INLINE void score_groups(const Rows (&rows)[Groups], std::int64_t dim, const float* query,
                                 std::uintptr_t ahead, float* scores) {
  __m256 sums[Groups];
  for (int g = 0; g < Groups; ++g) sums[g] = _mm256_setzero_ps();
  std::int64_t j = 0;
  for (; j + kStep <= dim; j += kStep) {
#pragma GCC unroll 3
    for (int g = 0; g < Groups; ++g) {
      if constexpr (Prefetches) {
        prefetch_line(ahead);
        prefetch_line(ahead + kLineBytes);
        ahead += 2 * kLineBytes;
      }
      sums[g] = add_step(rows[g], j, query, sums[g]);
    }
  }
  for (int g = 0; g < Groups; ++g) {
    _mm256_storeu_ps(scores + g * kLanes, add_rest(rows[g], j, dim, query, sums[g]));
  }
}

// ---- Contiguous rows ----

// How far ahead of its rows a scan in the caches prefetches, and the longest row for which that
// pays: 24 such rows and the lines ahead of them share the first-level cache.
constexpr std::int64_t kCachedAheadBytes = 4096;
constexpr std::int64_t kLongestCachedAhead = 192;

template <int Groups, bool Prefetches>
QX_AVX2 void score_cached_groups(const float* rows, std::int64_t dim, const float* query,
                                 float* scores) {
  ContiguousRows groups[Groups];
  for (int g = 0; g < Groups; ++g) groups[g] = {rows + g * kLanes * dim, dim};
  const std::int64_t block_bytes = Groups * kLanes * dim * 4;
  // An address, not a pointer: it may lie outside of the rows, which may even be null.
  const auto next = reinterpret_cast<std::uintptr_t>(rows) +
                    static_cast<std::uintptr_t>(
                        block_bytes > kCachedAheadBytes ? block_bytes : kCachedAheadBytes);
  score_groups<Groups, Prefetches>(groups, dim, query, next, scores);
}

// The number of groups to walk side by side. Rows at a distance of a multiple of 2 KiB or 4 KiB
// fall into few sets of the first-level cache: more of them at a time would push each other out.
std::int64_t cached_groups(std::int64_t dim) {
  if (dim == 0 || dim % 512 != 0) return kMostGroups;
  return dim % 1024 == 0 ? 1 : 2;
}

// Scores whole groups; returns how many rows.
template <bool Prefetches>
QX_AVX2 std::int64_t score_cached(const float* rows, std::int64_t count, std::int64_t dim,
                                  const float* query, float* scores) {
  const std::int64_t at_once = cached_groups(dim);
  std::int64_t i = 0;
  for (; at_once >= 3 && i + 3 * kLanes <= count; i += 3 * kLanes) {
    score_cached_groups<3, Prefetches>(rows + i * dim, dim, query, scores + i);
  }
  for (; at_once >= 2 && i + 2 * kLanes <= count; i += 2 * kLanes) {
    score_cached_groups<2, Prefetches>(rows + i * dim, dim, query, scores + i);
  }
  for (; i + kLanes <= count; i += kLanes) {
    score_cached_groups<1, Prefetches>(rows + i * dim, dim, query, scores + i);
  }
  return i;
}

// ---- Scattered rows ----

// Scores two groups of eight rows, and prefetches the `following` rows of the list behind them:
// whenever a line of these rows is begun, the same line of those. Nobody else can: each row begins
// at an address of its own.
QX_AVX2 void score_scattered_pair(const float* const* rows, std::int64_t following,
                                  std::int64_t dim, const float* query, float* scores) {
  const float* const* const next = rows + 2 * kLanes;
  const ScatteredRows low{rows};
  const ScatteredRows high{rows + kLanes};
  __m256 low_sums = _mm256_setzero_ps();
  __m256 high_sums = _mm256_setzero_ps();
  std::int64_t j = 0;
  for (; j + kStep <= dim; j += kStep) {
    if (j % kLine == 0) {
      for (std::int64_t i = 0; i < following; ++i) _mm_prefetch(next[i] + j, _MM_HINT_T0);
    }
    low_sums = add_step(low, j, query, low_sums);
    high_sums = add_step(high, j, query, high_sums);
  }
  // The end of a row may lie on one more line than its beginning lets expect.
  for (std::int64_t i = 0; i < following && dim > 0; ++i) {
    _mm_prefetch(next[i] + dim - 1, _MM_HINT_T0);
  }
  _mm256_storeu_ps(scores, add_rest(low, j, dim, query, low_sums));
  _mm256_storeu_ps(scores + kLanes, add_rest(high, j, dim, query, high_sums));
}

// ---- Estimates ----
//
// Here a register holds eight components of one row, and the sums of its lanes are added at last.

// The query's last eight components, without those that whole steps of eight columns have used.
QX_AVX2_INLINE __m256 query_rest(const float* query, std::int64_t dim) {
  static constexpr std::int32_t kSelected[2 * kLanes] = {0,  0,  0,  0,  0,  0,  0,  0,
                                                         -1, -1, -1, -1, -1, -1, -1, -1};
  const auto* const selected = reinterpret_cast<const __m256i*>(kSelected + dim % kLanes);
  return _mm256_and_ps(_mm256_loadu_ps(query + dim - kLanes),
                       _mm256_castsi256_ps(_mm256_loadu_si256(selected)));
}

// Estimates `Abreast` rows of at least eight components, each in `Chains` chains.
template <int Abreast, int Chains, typename Rows>
QX_AVX2_INLINE void estimate_abreast(const Rows& rows, std::int64_t dim, const float* query,
                                     __m256 rest, float* estimates) {
  __m256 sums[Abreast][Chains];
  for (auto& row_sums : sums) {
    for (__m256& sum : row_sums) sum = _mm256_setzero_ps();
  }
  const auto add = [&](std::int64_t at, __m256 factors, int chain) QX_AVX2_LAMBDA {
#pragma GCC unroll 8
    for (int i = 0; i < Abreast; ++i) {
      sums[i][chain] = _mm256_fmadd_ps(_mm256_loadu_ps(rows.row(i) + at), factors, sums[i][chain]);
    }
  };
  std::int64_t j = 0;
  for (; j + Chains * kLanes <= dim; j += Chains * kLanes) {
#pragma GCC unroll 4
    for (int c = 0; c < Chains; ++c) {
      add(j + c * kLanes, _mm256_loadu_ps(query + j + c * kLanes), c);
    }
  }
  for (; j + kLanes <= dim; j += kLanes) add(j, _mm256_loadu_ps(query + j), 0);
  if (j < dim) add(dim - kLanes, rest, 0);
  for (auto& row_sums : sums) {
    for (int c = 1; c < Chains; ++c) row_sums[0] = _mm256_add_ps(row_sums[0], row_sums[c]);
  }
  if constexpr (Abreast == 1) {
    const __m128 half =
        _mm_add_ps(_mm256_castps256_ps128(sums[0][0]), _mm256_extractf128_ps(sums[0][0], 1));
    const __m128 pair = _mm_add_ps(half, _mm_movehl_ps(half, half));
    _mm_store_ss(estimates, _mm_add_ss(pair, _mm_movehdup_ps(pair)));
  } else {
    static_assert(Abreast % 4 == 0);
#pragma GCC unroll 2
    for (int i = 0; i < Abreast; i += 4) {
      const __m256 pairs = _mm256_hadd_ps(_mm256_hadd_ps(sums[i][0], sums[i + 1][0]),
                                          _mm256_hadd_ps(sums[i + 2][0], sums[i + 3][0]));
      _mm_storeu_ps(estimates + i,
                    _mm_add_ps(_mm256_castps256_ps128(pairs), _mm256_extractf128_ps(pairs, 1)));
    }
  }
}

// Four neighbours side by side: the fastest way where all four make one stream, or are in the near
// caches.
QX_AVX2 std::int64_t estimate_neighbours(const float* rows, std::int64_t count, std::int64_t dim,
                                         const float* query, float* estimates) {
  const __m256 rest = query_rest(query, dim);
  std::int64_t i = 0;
  for (; i + 4 <= count; i += 4) {
    estimate_abreast<4, 1>(ContiguousRows{rows + i * dim, dim}, dim, query, rest, estimates + i);
  }
  return i;
}

// Four rows side by side, one of each quarter of the block: four streams, long enough to be
// followed by the hardware, which so keeps more lines on their way than with one.
QX_AVX2 std::int64_t estimate_quarters(const float* rows, std::int64_t count, std::int64_t dim,
                                       const float* query, float* estimates) {
  const __m256 rest = query_rest(query, dim);
  const std::int64_t quarter = count / 4;
  for (std::int64_t i = 0; i < quarter; ++i) {
    float four[4];
    const ContiguousRows apart{rows + i * dim, quarter * dim};
    estimate_abreast<4, 1>(apart, dim, query, rest, four);
    for (std::int64_t q = 0; q < 4; ++q) estimates[i + q * quarter] = four[q];
  }
  return 4 * quarter;
}

QX_AVX2 void estimate_singly(const float* rows, std::int64_t count, std::int64_t dim,
                             const float* query, float* estimates) {
  const __m256 rest = query_rest(query, dim);
  for (std::int64_t i = 0; i < count; ++i) {
    estimate_abreast<1, 4>(ContiguousRows{rows + i * dim, dim}, dim, query, rest, estimates + i);
  }
}

// Up to which length four rows make one stream, by where they are; and from which length on
// quarters make long ones.
std::int64_t longest_one_stream(Reach reach) {
  switch (reach) {
    case Reach::kNear:
      return 199;
    case Reach::kFar:
      return 64;
    default:
      return 48;
  }
}
constexpr std::int64_t kShortestInQuarters = 200;

void estimate_long_contiguous(const float* rows, std::int64_t count, std::int64_t dim,
                              const float* query, Reach reach, float* estimates) {
  std::int64_t i = 0;
  if (dim >= kShortestInQuarters) {
    i = estimate_quarters(rows, count, dim, query, estimates);
  } else if (dim <= longest_one_stream(reach)) {
    i = estimate_neighbours(rows, count, dim, query, estimates);
  }
  estimate_singly(rows + i * dim, count - i, dim, query, estimates + i);
}

// Eight rows that lie anywhere keep as many lines on their way as a core can.
QX_AVX2 void estimate_long_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                                     const float* query, float* estimates) {
  const __m256 rest = query_rest(query, dim);
  std::int64_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    estimate_abreast<8, 1>(ScatteredRows{rows + i}, dim, query, rest, estimates + i);
  }
  for (; i < count; ++i) {
    estimate_abreast<1, 4>(ScatteredRows{rows + i}, dim, query, rest, estimates + i);
  }
}

// ---- Rows of one to three floats ----
//
// Eight of them fill one to three registers, from which each column is taken by itself. The
// hardware prefetcher follows the one stream well.

QX_AVX2_INLINE void score_eight_of_one(const float* rows, const float* query, float* scores) {
  _mm256_storeu_ps(scores, _mm256_fmadd_ps(_mm256_loadu_ps(rows), _mm256_broadcast_ss(query),
                                           _mm256_setzero_ps()));
}

// The shuffles leave the pairs of rows in the order 0, 2, 1, 3, which the scores are freed of.
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

// Scores whole groups of rows of one to three floats; returns how many rows.
QX_AVX2 std::int64_t score_shortest(const float* rows, std::int64_t count, std::int64_t dim,
                                    const float* query, float* scores) {
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

// ---- The functions of the table ----

// Scores fewer than eight rows; the last of them fills the lanes that are left over.
template <int Groups, typename Rows>
QX_AVX2 void score_last_rows(const Rows& rows, std::int64_t count, std::int64_t dim,
                             const float* query, float* scores) {
  const float* filled[Groups * kLanes];
  float group_scores[Groups * kLanes];
  for (std::int64_t i = 0; i < Groups * kLanes; ++i)
    filled[i] = rows.row(i < count ? i : count - 1);
  ScatteredRows groups[Groups];
  for (int g = 0; g < Groups; ++g) groups[g] = {filled + g * kLanes};
  score_groups<Groups, false>(groups, dim, query, 0, group_scores);
  for (std::int64_t i = 0; i < count; ++i) scores[i] = group_scores[i];
}

bool supported() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
         __builtin_cpu_supports("popcnt");
}

QX_AVX2 void score_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                             const float* query, float* scores) {
  std::int64_t i = 0;
  for (; i + 2 * kLanes <= count; i += 2 * kLanes) {
    const std::int64_t left = count - i - 2 * kLanes;
    score_scattered_pair(rows + i, left < 2 * kLanes ? left : 2 * kLanes, dim, query, scores + i);
  }
  if (i == count) return;
  const auto score_last =
      count - i > kLanes ? score_last_rows<2, ScatteredRows> : score_last_rows<1, ScatteredRows>;
  score_last(ScatteredRows{rows + i}, count - i, dim, query, scores + i);
}

// The way to score whole groups of contiguous rows.
auto contiguous_way(std::int64_t dim, Reach reach) {
  if (dim >= 1 && dim < kStep) return score_shortest;
  // The hardware follows short rows well while they are in the caches.
  const bool followed = dim < kLine && reach != Reach::kMemory;
  return followed || dim > kLongestCachedAhead ? score_cached<false> : score_cached<true>;
}

void score_contiguous(const float* rows, std::int64_t count, std::int64_t dim, const float* query,
                      Reach reach, float* scores) {
  const std::int64_t i = contiguous_way(dim, reach)(rows, count, dim, query, scores);
  if (i == count) return;
  score_last_rows<1>(ContiguousRows{rows + i * dim, dim}, count - i, dim, query, scores + i);
}

void estimate_contiguous(const float* rows, std::int64_t count, std::int64_t dim,
                         const float* query, Reach reach, float* estimates) {
  const auto way = dim < kLanes ? score_contiguous : estimate_long_contiguous;
  way(rows, count, dim, query, reach, estimates);
}

void estimate_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                        const float* query, float* estimates) {
  const auto way = dim < kLanes ? score_scattered : estimate_long_scattered;
  way(rows, count, dim, query, estimates);
}

QX_AVX2 std::uint64_t not_below(const float* numbers, std::int64_t count, float limit) {
  const __m256 limits = _mm256_set1_ps(limit);
  std::uint64_t bits = 0;
  std::int64_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    const __m256 above = _mm256_cmp_ps(_mm256_loadu_ps(numbers + i), limits, _CMP_NLT_UQ);
    bits |= static_cast<std::uint64_t>(_mm256_movemask_ps(above)) << i;
  }
  for (; i < count; ++i) bits |= static_cast<std::uint64_t>(numbers[i] < limit ? 0 : 1) << i;
  return bits;
}

// Where the halves of the selected ones among four numbers go, by their mask: each number is two
// lanes of 32 bits.
alignas(32) constexpr std::int32_t kGathering[16][8] = {
    {0, 0, 0, 0, 0, 0, 0, 0}, {0, 1, 0, 0, 0, 0, 0, 0}, {2, 3, 0, 0, 0, 0, 0, 0},
    {0, 1, 2, 3, 0, 0, 0, 0}, {4, 5, 0, 0, 0, 0, 0, 0}, {0, 1, 4, 5, 0, 0, 0, 0},
    {2, 3, 4, 5, 0, 0, 0, 0}, {0, 1, 2, 3, 4, 5, 0, 0}, {6, 7, 0, 0, 0, 0, 0, 0},
    {0, 1, 6, 7, 0, 0, 0, 0}, {2, 3, 6, 7, 0, 0, 0, 0}, {0, 1, 2, 3, 6, 7, 0, 0},
    {4, 5, 6, 7, 0, 0, 0, 0}, {0, 1, 4, 5, 6, 7, 0, 0}, {2, 3, 4, 5, 6, 7, 0, 0},
    {0, 1, 2, 3, 4, 5, 6, 7}};

// Four numbers at a time, while four places are left: what is written too much is overwritten by
// the next four.
QX_AVX2 void copy_selected(const std::int64_t* numbers, std::uint64_t mask, std::int64_t selected,
                           std::int64_t* out) {
  const std::int64_t* const end = out + selected;
  for (; end - out >= 4; numbers += 4, mask >>= 4) {
    const auto* const gathering = reinterpret_cast<const __m256i*>(kGathering[mask & 15]);
    const __m256i four = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(numbers));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out),
                        _mm256_permutevar8x32_epi32(four, _mm256_load_si256(gathering)));
    out += __builtin_popcountll(mask & 15);
  }
  kPortableKernels.copy_selected(numbers, mask, end - out, out);
}

}  // namespace

extern constinit const Kernels kAvx2Kernels = {
    "avx2",          supported,           score_contiguous,
    score_scattered, estimate_contiguous, estimate_scattered,
    not_below,       copy_selected};

}  // namespace qx

#undef QX_AVX2
#undef QX_AVX2_LAMBDA
#undef QX_AVX2_INLINE
#endif
