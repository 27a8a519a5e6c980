// The kernel for x86-64 with AVX2 and FMA: eight rows per register, one row per lane.
//
// Only plain types and the intrinsics are included: an inline function of the standard library,
// compiled here for a wide instruction set, could be merged into code that runs on any CPU.
#include "kernels/kernels.h"

#if defined(__x86_64__)
#include <immintrin.h>

#define QX_AVX2 __attribute__((target("avx2,fma,popcnt")))
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

// Scores `Groups` groups of eight rows side by side: a chain of one group waits for its own last
// step, and the others fill the wait. With Prefetches, each step also prefetches as many lines as
// it reads, in address order from `ahead` on.
template <int Groups, bool Prefetches, typename Rows>
QX_AVX2_INLINE void score_groups(const Rows (&rows)[Groups], std::int64_t dim, const float* query,
                                 const char* ahead, float* scores) {
  __m256 sums[Groups];
  for (int g = 0; g < Groups; ++g) sums[g] = _mm256_setzero_ps();
  std::int64_t j = 0;
  for (; j + kStep <= dim; j += kStep) {
#pragma GCC unroll 3
    for (int g = 0; g < Groups; ++g) {
      if constexpr (Prefetches) {
        _mm_prefetch(ahead, _MM_HINT_T0);
        _mm_prefetch(ahead + kLineBytes, _MM_HINT_T0);
        ahead += 2 * kLineBytes;
      }
      sums[g] = add_step(rows[g], j, query, sums[g]);
    }
  }
  for (int g = 0; g < Groups; ++g) {
    _mm256_storeu_ps(scores + g * kLanes, add_rest(rows[g], j, dim, query, sums[g]));
  }
}

// ---- Contiguous rows in the caches ----

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
  const char* const next = reinterpret_cast<const char*>(rows) +
                           (block_bytes > kCachedAheadBytes ? block_bytes : kCachedAheadBytes);
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

// ---- Contiguous rows in memory, or in the last-level cache ----
//
// Eight rows read column by column are eight short streams, which the hardware prefetcher follows
// badly. So the kernel says what will be needed, a line of each row at a time.

// Rows up to this length are prefetched column by column, kPacedLines lines ahead in their own row
// and then in the row that takes its place. Longer ones are prefetched in address order into the
// second-level cache, a block ahead, since their blocks do not fit the first, and fetched from
// there a line before their use.
constexpr std::int64_t kLongestPaced = 319;
constexpr std::int64_t kPacedLines = 24;
constexpr std::int64_t kLinearAheadBytes = 1024;
constexpr std::int64_t kTinyAheadBytes = 4096;

QX_AVX2_INLINE __m256 add_line(const ContiguousRows& rows, std::int64_t at, const float* query,
                               __m256 sums) {
#pragma GCC unroll 4
  for (std::int64_t j = at; j < at + kLine; j += kStep) sums = add_step(rows, j, query, sums);
  return sums;
}

QX_AVX2_INLINE __m256 finish_row(const ContiguousRows& rows, std::int64_t at, const float* query,
                                 __m256 sums) {
  for (; at + kStep <= rows.dim; at += kStep) sums = add_step(rows, at, query, sums);
  return add_rest(rows, at, rows.dim, query, sums);
}

QX_AVX2 void score_paced(const ContiguousRows& rows, const float* query, float* scores) {
  const std::int64_t lines = (rows.dim + kLine - 1) / kLine;
  std::int64_t line = kPacedLines % lines;  // the line to prefetch, of the rows at `ahead`
  ContiguousRows ahead{rows.first + kPacedLines / lines * kLanes * rows.dim, rows.dim};
  __m256 sums = _mm256_setzero_ps();
  for (std::int64_t j = 0; j < rows.dim; j += kLine, ++line) {
    if (line == lines) {
      line = 0;
      ahead.first += kLanes * rows.dim;
    }
    for (std::int64_t i = 0; i < kLanes; ++i)
      _mm_prefetch(ahead.row(i) + line * kLine, _MM_HINT_T1);
    if (j + kLine <= rows.dim) {
      sums = add_line(rows, j, query, sums);
    } else {
      sums = finish_row(rows, j, query, sums);
    }
  }
  _mm256_storeu_ps(scores, sums);
}

template <int Groups>
QX_AVX2 void score_linear(const ContiguousRows& rows, const float* query, float* scores) {
  const char* ahead = reinterpret_cast<const char*>(rows.row(Groups * kLanes)) + kLinearAheadBytes;
  ContiguousRows group[Groups];
  __m256 sums[Groups];
  for (int g = 0; g < Groups; ++g) {
    group[g] = {rows.row(g * kLanes), rows.dim};
    sums[g] = _mm256_setzero_ps();
  }
  std::int64_t j = 0;
  for (; j + kLine <= rows.dim; j += kLine) {
#pragma GCC unroll 4
    for (std::int64_t part = 0; part < 4; ++part) {
#pragma GCC unroll 2
      for (int g = 0; g < Groups; ++g, ahead += 2 * kLineBytes) {
        _mm_prefetch(ahead, _MM_HINT_T1);
        _mm_prefetch(ahead + kLineBytes, _MM_HINT_T1);
        _mm_prefetch(group[g].row(2 * part) + j + kLine, _MM_HINT_T0);
        _mm_prefetch(group[g].row(2 * part + 1) + j + kLine, _MM_HINT_T0);
        sums[g] = add_step(group[g], j + part * kStep, query, sums[g]);
      }
    }
  }
  for (int g = 0; g < Groups; ++g) {
    _mm256_storeu_ps(scores + g * kLanes, finish_row(group[g], j, query, sums[g]));
  }
}

// Rows shorter than a line: several of them share one.
QX_AVX2 void score_tiny(const ContiguousRows& rows, const float* query, float* scores) {
  const char* const ahead = reinterpret_cast<const char*>(rows.first) + kTinyAheadBytes;
  const std::int64_t bytes = kLanes * rows.dim * 4;
  for (std::int64_t at = 0; at < bytes; at += kLineBytes) _mm_prefetch(ahead + at, _MM_HINT_T0);
  _mm256_storeu_ps(scores, finish_row(rows, 0, query, _mm256_setzero_ps()));
}

// Scores whole groups; returns how many rows.
QX_AVX2 std::int64_t score_from_memory(const float* rows, std::int64_t count, std::int64_t dim,
                                       const float* query, float* scores) {
  const auto score = dim < kLine            ? score_tiny
                     : dim <= kLongestPaced ? score_paced
                                            : score_linear<1>;
  std::int64_t i = 0;
  for (; i + kLanes <= count; i += kLanes) score({rows + i * dim, dim}, query, scores + i);
  return i;
}

// The same for long rows in the last-level cache, which is fast enough to be worth two groups.
QX_AVX2 std::int64_t score_long_far(const float* rows, std::int64_t count, std::int64_t dim,
                                    const float* query, float* scores) {
  std::int64_t i = 0;
  for (; cached_groups(dim) >= 2 && i + 2 * kLanes <= count; i += 2 * kLanes) {
    score_linear<2>({rows + i * dim, dim}, query, scores + i);
  }
  for (; i + kLanes <= count; i += kLanes) {
    score_linear<1>({rows + i * dim, dim}, query, scores + i);
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
template <typename Rows>
QX_AVX2 void score_last_rows(const Rows& rows, std::int64_t count, std::int64_t dim,
                             const float* query, float* scores) {
  const float* filled[kLanes];
  float group_scores[kLanes];
  for (std::int64_t i = 0; i < kLanes; ++i) filled[i] = rows.row(i < count ? i : count - 1);
  const ScatteredRows group[1] = {{filled}};
  score_groups<1, false>(group, dim, query, nullptr, group_scores);
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
  for (; i + kLanes <= count; i += kLanes) {
    const ScatteredRows group[1] = {{rows + i}};
    score_groups<1, false>(group, dim, query, nullptr, scores + i);
  }
  if (i < count) score_last_rows(ScatteredRows{rows + i}, count - i, dim, query, scores + i);
}

// The way to score whole groups of contiguous rows.
auto contiguous_way(std::int64_t dim, Reach reach) {
  if (dim >= 1 && dim < kStep) return score_shortest;
  if (reach == Reach::kMemory) return score_from_memory;
  if (dim >= kLine && dim <= kLongestCachedAhead) return score_cached<true>;
  return reach == Reach::kFar && dim > kLongestCachedAhead ? score_long_far : score_cached<false>;
}

void score_contiguous(const float* rows, std::int64_t count, std::int64_t dim, const float* query,
                      Reach reach, float* scores) {
  const std::int64_t i = contiguous_way(dim, reach)(rows, count, dim, query, scores);
  if (i == count) return;
  score_last_rows(ContiguousRows{rows + i * dim, dim}, count - i, dim, query, scores + i);
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

extern constinit const Kernels kAvx2Kernels = {"avx2", supported, score_contiguous, score_scattered,
                                               copy_selected};

}  // namespace qx

#undef QX_AVX2
#undef QX_AVX2_INLINE
#endif
