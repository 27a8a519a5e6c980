// The kernel for x86-64 with AVX-512: sixteen rows per register, one row per lane.
//
// It has ways of its own where wide registers help: rows in the caches, and long rows. Short rows
// from memory, scattered rows and the shortest ones wait for memory or for loads, not for
// arithmetic; the AVX2 kernel serves them, and this one calls it.
//
// Only plain types and the intrinsics are included, as in every kernel.
#include "kernels/kernels.h"

#if defined(__x86_64__)
#include <immintrin.h>

// The intrinsics of g++ 12 hand an undefined register to operands that no mask selects, and then
// warn of it where they are inlined.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#define QX_AVX512 __attribute__((target("avx512f,avx512dq,avx2,fma,popcnt")))
#define QX_AVX512_INLINE \
  __attribute__((target("avx512f,avx512dq,avx2,fma,popcnt"), always_inline)) inline

namespace qx {
namespace {

constexpr std::int64_t kLanes = 16;
constexpr std::int64_t kStep = 8;   // columns that one transposition turns
constexpr std::int64_t kLine = 16;  // floats of a cache line
constexpr std::int64_t kLineBytes = 64;
constexpr std::int64_t kLinearAheadBytes = 4096;  // as in the AVX2 kernel, by measurement

// Sixteen rows at equal distances.
struct ContiguousRows {
  const float* first;
  std::int64_t dim;
  const float* row(std::int64_t i) const { return first + i * dim; }
};

// Eight columns of sixteen rows: column[c] holds component c of rows 0 to 15.
struct Columns {
  __m512 column[kStep];
};

// Transposes 4 x 4 inside each 128-bit quarter of four registers.
QX_AVX512_INLINE void turn_quarters(const __m512 (&in)[4], __m512* out) {
  const __m512d low01 = _mm512_castps_pd(_mm512_unpacklo_ps(in[0], in[1]));
  const __m512d high01 = _mm512_castps_pd(_mm512_unpackhi_ps(in[0], in[1]));
  const __m512d low23 = _mm512_castps_pd(_mm512_unpacklo_ps(in[2], in[3]));
  const __m512d high23 = _mm512_castps_pd(_mm512_unpackhi_ps(in[2], in[3]));
  out[0] = _mm512_castpd_ps(_mm512_unpacklo_pd(low01, low23));
  out[1] = _mm512_castpd_ps(_mm512_unpackhi_pd(low01, low23));
  out[2] = _mm512_castpd_ps(_mm512_unpacklo_pd(high01, high23));
  out[3] = _mm512_castpd_ps(_mm512_unpackhi_pd(high01, high23));
}

// Register i of a half holds eight columns of row i and of row i + 4, so that after the quarters
// are turned, quarters 0 and 2 hold a column of the first four and quarters 1 and 3 one of the last
// four. Taking the even, or the odd, quarters of both halves gives sixteen rows in natural order.
QX_AVX512_INLINE Columns load_columns(const ContiguousRows& rows, std::int64_t at) {
  __m512 turned[2][4];
#pragma GCC unroll 2
  for (std::int64_t half = 0; half < 2; ++half) {
    __m512 pair[4];
#pragma GCC unroll 4
    for (std::int64_t i = 0; i < 4; ++i) {
      const float* const low = rows.row(8 * half + i) + at;
      const float* const high = rows.row(8 * half + i + 4) + at;
      pair[i] = _mm512_insertf32x8(_mm512_castps256_ps512(_mm256_loadu_ps(low)),
                                   _mm256_loadu_ps(high), 1);
    }
    turn_quarters(pair, turned[half]);
  }
  Columns columns;
#pragma GCC unroll 4
  for (std::int64_t c = 0; c < 4; ++c) {
    columns.column[c] = _mm512_shuffle_f32x4(turned[0][c], turned[1][c], 0x88);
    columns.column[c + 4] = _mm512_shuffle_f32x4(turned[0][c], turned[1][c], 0xDD);
  }
  return columns;
}

// Adds the columns from `used` on to the sums; `factors` are the query's components at `at`.
QX_AVX512_INLINE __m512 add_columns(const Columns& columns, std::int64_t used, const float* factors,
                                    __m512 sums) {
  for (std::int64_t c = used; c < kStep; ++c) {
    sums = _mm512_fmadd_ps(columns.column[c], _mm512_set1_ps(factors[c]), sums);
  }
  return sums;
}

// One step of sixteen rows.
QX_AVX512_INLINE __m512 add_step(const ContiguousRows& rows, std::int64_t at, const float* query,
                                 __m512 sums) {
  return add_columns(load_columns(rows, at), 0, query + at, sums);
}

// Finishes sixteen rows of at least a step from column `at`, after which less than a step is left.
// The columns are taken from the row's last eight, of which the first have been used already.
QX_AVX512_INLINE __m512 add_rest(const ContiguousRows& rows, std::int64_t at, const float* query,
                                 __m512 sums) {
  if (at == rows.dim) return sums;
  const std::int64_t last = rows.dim - kStep;
  return add_columns(load_columns(rows, last), at - last, query + last, sums);
}

// Scores groups of sixteen rows side by side, in the near caches.
template <int Groups>
QX_AVX512 void score_near_groups(const float* rows, std::int64_t dim, const float* query,
                                 float* scores) {
  ContiguousRows group[Groups];
  __m512 sums[Groups];
  for (int g = 0; g < Groups; ++g) {
    group[g] = {rows + g * kLanes * dim, dim};
    sums[g] = _mm512_setzero_ps();
  }
  std::int64_t j = 0;
  for (; j + kStep <= dim; j += kStep) {
#pragma GCC unroll 2
    for (int g = 0; g < Groups; ++g) sums[g] = add_step(group[g], j, query, sums[g]);
  }
  for (int g = 0; g < Groups; ++g) {
    _mm512_storeu_ps(scores + g * kLanes, add_rest(group[g], j, query, sums[g]));
  }
}

// Scores whole groups in the near caches; returns how many rows. Rows at a distance of a multiple
// of 2 KiB fall into few sets of the first-level cache, so fewer of them walk side by side.
QX_AVX512 std::int64_t score_near(const float* rows, std::int64_t count, std::int64_t dim,
                                  const float* query, float* scores) {
  std::int64_t i = 0;
  for (; dim % 512 != 0 && i + 2 * kLanes <= count; i += 2 * kLanes) {
    score_near_groups<2>(rows + i * dim, dim, query, scores + i);
  }
  for (; i + kLanes <= count; i += kLanes) {
    score_near_groups<1>(rows + i * dim, dim, query, scores + i);
  }
  return i;
}

// Scores sixteen rows from afar: each step prefetches as many lines as it reads, in address order
// and a block ahead, into the second-level cache, and the rows' own next lines into the first.
QX_AVX512 void score_far_group(const ContiguousRows& rows, const float* query, float* scores) {
  const char* ahead = reinterpret_cast<const char*>(rows.row(kLanes)) + kLinearAheadBytes;
  __m512 sums = _mm512_setzero_ps();
  std::int64_t j = 0;
  for (; j + kStep <= rows.dim; j += kStep) {
    const std::int64_t half = (j / kStep) % 2 * kStep;  // eight rows in even steps, eight in odd
#pragma GCC unroll 8
    for (std::int64_t i = 0; i < kStep; ++i) {
      _mm_prefetch(ahead + i * kLineBytes, _MM_HINT_T1);
      _mm_prefetch(rows.row(half + i) + j + 2 * kLine, _MM_HINT_T0);
    }
    ahead += kStep * kLineBytes;
    sums = add_step(rows, j, query, sums);
  }
  _mm512_storeu_ps(scores, add_rest(rows, j, query, sums));
}

// Scores whole groups from afar; returns how many rows.
QX_AVX512 std::int64_t score_far(const float* rows, std::int64_t count, std::int64_t dim,
                                 const float* query, float* scores) {
  std::int64_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    score_far_group({rows + i * dim, dim}, query, scores + i);
  }
  return i;
}

bool supported() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
         kAvx2Kernels.supported();
}

void score_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                     const float* query, float* scores) {
  kAvx2Kernels.score_scattered(rows, count, dim, query, scores);
}

// The shortest rows for which this kernel's own ways win, by where they are.
std::int64_t shortest_own_row(Reach reach) {
  switch (reach) {
    case Reach::kNear:
      return kStep;
    case Reach::kFar:
      return 193;
    default:
      return 256;
  }
}

void score_contiguous(const float* rows, std::int64_t count, std::int64_t dim, const float* query,
                      Reach reach, float* scores) {
  std::int64_t i = 0;
  // At a distance of 4 KiB sixteen rows share one set of the first-level cache; eight just fit.
  if (dim >= shortest_own_row(reach) && dim % 1024 != 0) {
    const auto score_groups = reach == Reach::kNear ? score_near : score_far;
    i = score_groups(rows, count, dim, query, scores);
  }
  kAvx2Kernels.score_contiguous(rows + i * dim, count - i, dim, query, reach, scores + i);
}

// Eight numbers at a time. They are gathered in a register and stored from there by a mask: the
// instruction that does both at once is slow on some CPUs.
QX_AVX512 void copy_selected(const std::int64_t* numbers, std::uint64_t mask,
                             std::int64_t /*selected*/, std::int64_t* out) {
  for (; mask != 0; numbers += 8, mask >>= 8) {
    const auto chosen = static_cast<__mmask8>(mask);
    const int count = __builtin_popcount(chosen);
    const __m512i gathered =
        _mm512_maskz_compress_epi64(chosen, _mm512_maskz_loadu_epi64(chosen, numbers));
    _mm512_mask_storeu_epi64(out, static_cast<__mmask8>((1u << count) - 1), gathered);
    out += count;
  }
}

}  // namespace

extern constinit const Kernels kAvx512Kernels = {"avx512", supported, score_contiguous,
                                                 score_scattered, copy_selected};

}  // namespace qx

#undef QX_AVX512
#undef QX_AVX512_INLINE
#endif
