// AVX2 and FMA, third part: estimates. A register holds eight components of one row, and its lanes
// are added last.
#include "kernels/row_views.h"
#include "kernels/tables.h"
#include "kernels/tuning.h"

#if defined(__x86_64__)
#include <immintrin.h>

namespace qx::avx2 {
namespace {

// The query's last eight components, with zeros for those that whole steps of eight have used.
// Requires: dim >= kLanes.
QX_AVX2_INLINE __m256 query_rest(const float* query, std::int64_t dim) {
  static constexpr std::int32_t kSelected[2 * kLanes] = {0,  0,  0,  0,  0,  0,  0,  0,
                                                         -1, -1, -1, -1, -1, -1, -1, -1};
  const auto* const selected = reinterpret_cast<const __m256i*>(kSelected + dim % kLanes);
  return _mm256_and_ps(_mm256_loadu_ps(query + dim - kLanes),
                       _mm256_castsi256_ps(_mm256_loadu_si256(selected)));
}

QX_AVX2_INLINE void add_lanes(const __m256 (&sums)[1], float* estimates) {
  const __m128 half =
      _mm_add_ps(_mm256_castps256_ps128(sums[0]), _mm256_extractf128_ps(sums[0], 1));
  const __m128 pair = _mm_add_ps(half, _mm_movehl_ps(half, half));
  _mm_store_ss(estimates, _mm_add_ss(pair, _mm_movehdup_ps(pair)));
}

template <int RowsInFlight>
QX_AVX2_INLINE void add_lanes(const __m256 (&sums)[RowsInFlight], float* estimates) {
  static_assert(RowsInFlight % 4 == 0);
#pragma GCC unroll 2
  for (int i = 0; i < RowsInFlight; i += 4) {
    const __m256 quads = _mm256_hadd_ps(_mm256_hadd_ps(sums[i], sums[i + 1]),
                                        _mm256_hadd_ps(sums[i + 2], sums[i + 3]));
    _mm_storeu_ps(estimates + i,
                  _mm_add_ps(_mm256_castps256_ps128(quads), _mm256_extractf128_ps(quads, 1)));
  }
}

// Estimates rows side by side, each in `Chains` chains. Requires: dim >= kLanes.
template <int RowsInFlight, int Chains, typename Rows>
QX_AVX2_INLINE void estimate_rows(const Rows& rows, std::int64_t dim, const float* query,
                                  __m256 rest, float* estimates) {
  __m256 sums[Chains][RowsInFlight] = {};
  const auto add = [&](std::int64_t at, __m256 factors, int chain) QX_AVX2_LAMBDA {
#pragma GCC unroll 8
    for (int i = 0; i < RowsInFlight; ++i) {
      sums[chain][i] = _mm256_fmadd_ps(_mm256_loadu_ps(rows.row(i) + at), factors, sums[chain][i]);
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
  for (int c = 1; c < Chains; ++c) {
    for (int i = 0; i < RowsInFlight; ++i) sums[0][i] = _mm256_add_ps(sums[0][i], sums[c][i]);
  }
  add_lanes(sums[0], estimates);
}

// Estimates whole groups of rows; returns the number of rows.
template <int RowsInFlight, int Chains, typename Rows>
QX_AVX2_INLINE std::int64_t estimate_groups(const Rows& rows, std::int64_t count, std::int64_t dim,
                                            const float* query, __m256 rest, float* estimates) {
  std::int64_t i = 0;
  for (; i + RowsInFlight <= count; i += RowsInFlight) {
    estimate_rows<RowsInFlight, Chains>(rows.from(i), dim, query, rest, estimates + i);
  }
  return i;
}

// Estimates one row of each quarter at a time; returns the number of rows. Four streams, each long
// enough for the hardware to follow, keep more cache lines in flight than one.
QX_AVX2_INLINE std::int64_t estimate_four_streams(const float* rows, std::int64_t count,
                                                  std::int64_t dim, const float* query, __m256 rest,
                                                  float* estimates) {
  const std::int64_t quarter = count / 4;
  for (std::int64_t i = 0; i < quarter; ++i) {
    float four[4];
    estimate_rows<4, 1>(ContiguousRows{rows + i * dim, quarter * dim}, dim, query, rest, four);
    for (std::int64_t q = 0; q < 4; ++q) estimates[i + q * quarter] = four[q];
  }
  return 4 * quarter;
}

}  // namespace

// Four neighbours are the fastest way where they make one stream, or are in the second-level cache.
QX_AVX2 void estimate_contiguous(const float* rows, std::int64_t count, std::int64_t dim,
                                 const float* query, CacheLevel level, float* estimates) {
  if (dim < kLanes) return score_contiguous(rows, count, dim, query, level, estimates);
  const ContiguousRows all{rows, dim};
  const __m256 rest = query_rest(query, dim);
  std::int64_t i = 0;
  if (dim >= tuning::kMinFourStreamsDim) {
    i = estimate_four_streams(rows, count, dim, query, rest, estimates);
  } else if (dim <= tuning::max_four_rows_dim(level)) {
    i = estimate_groups<4, 1>(all, count, dim, query, rest, estimates);
  }
  estimate_groups<1, 4>(all.from(i), count - i, dim, query, rest, estimates + i);
}

// Eight rows at a time: as many cache lines in flight as a core can keep.
QX_AVX2 void estimate_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                                const float* query, float* estimates) {
  if (dim < kLanes) return score_scattered(rows, count, dim, query, estimates);
  const ScatteredRows all{rows};
  const __m256 rest = query_rest(query, dim);
  const std::int64_t i = estimate_groups<8, 1>(all, count, dim, query, rest, estimates);
  estimate_groups<1, 4>(all.from(i), count - i, dim, query, rest, estimates + i);
}

}  // namespace qx::avx2
#endif
