// AVX-512: estimates of rows in the second-level cache, sixteen components per register, and
// compressing. All else is inherited from AVX2: scores wait for their chains, which wider registers
// do not shorten.
#include "kernels/tables.h"
#include "kernels/tuning.h"
#include "support/compiler.h"

#if defined(__x86_64__)
#include <immintrin.h>

// The intrinsics of g++ 12 hand an undefined register to operands that no mask selects, and then
// warn of it where they are inlined.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace qx::avx512 {

bool supported() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
         avx2::supported();
}

// ---- Estimates ----

namespace {

constexpr std::int64_t kLanes = 16;  // floats of a register
constexpr int kRowsInFlight = 4;

QX_AVX512_INLINE void add_lanes(const __m512 (&sums)[kRowsInFlight], float* estimates) {
  __m256 halves[kRowsInFlight];
  for (int i = 0; i < kRowsInFlight; ++i) {
    halves[i] = _mm256_add_ps(_mm512_castps512_ps256(sums[i]), _mm512_extractf32x8_ps(sums[i], 1));
  }
  const __m256 quads =
      _mm256_hadd_ps(_mm256_hadd_ps(halves[0], halves[1]), _mm256_hadd_ps(halves[2], halves[3]));
  _mm_storeu_ps(estimates,
                _mm_add_ps(_mm256_castps256_ps128(quads), _mm256_extractf128_ps(quads, 1)));
}

QX_AVX512_INLINE void estimate_rows(const float* rows, std::int64_t dim, const float* query,
                                    float* estimates) {
  __m512 sums[kRowsInFlight] = {};
  std::int64_t j = 0;
  for (; j + kLanes <= dim; j += kLanes) {
    const __m512 factors = _mm512_loadu_ps(query + j);
    for (int i = 0; i < kRowsInFlight; ++i) {
      sums[i] = _mm512_fmadd_ps(_mm512_loadu_ps(rows + i * dim + j), factors, sums[i]);
    }
  }
  if (j < dim) {
    const auto rest = static_cast<__mmask16>((1U << (dim - j)) - 1);
    const __m512 factors = _mm512_maskz_loadu_ps(rest, query + j);
    for (int i = 0; i < kRowsInFlight; ++i) {
      sums[i] = _mm512_fmadd_ps(_mm512_maskz_loadu_ps(rest, rows + i * dim + j), factors, sums[i]);
    }
  }
  add_lanes(sums, estimates);
}

// Estimates neighbours, four at a time; returns the number of rows.
QX_AVX512 std::int64_t estimate_four_rows(const float* rows, std::int64_t count, std::int64_t dim,
                                          const float* query, float* estimates) {
  std::int64_t i = 0;
  for (; i + 4 <= count; i += 4) estimate_rows(rows + i * dim, dim, query, estimates + i);
  return i;
}

}  // namespace

QX_AVX512 void estimate_contiguous(const float* rows, std::int64_t count, std::int64_t dim,
                                   const float* query, CacheLevel level, float* estimates) {
  const bool wide = level == CacheLevel::kL2 && dim >= tuning::kMinAvx512Dim;
  const std::int64_t i = wide ? estimate_four_rows(rows, count, dim, query, estimates) : 0;
  avx2::estimate_contiguous(rows + i * dim, count - i, dim, query, level, estimates + i);
}

// ---- Comparing and compressing ----

// Eight numbers at a time, in two steps: the one instruction that selects and stores is slow on
// some CPUs.
QX_AVX512 void compress(const std::int64_t* numbers, std::uint64_t mask, std::int64_t /*selected*/,
                        std::int64_t* out) {
  for (; mask != 0; numbers += 8, mask >>= 8) {
    const auto chosen = static_cast<__mmask8>(mask);
    const int count = __builtin_popcount(chosen);
    const __m512i packed =
        _mm512_maskz_compress_epi64(chosen, _mm512_maskz_loadu_epi64(chosen, numbers));
    _mm512_mask_storeu_epi64(out, static_cast<__mmask8>((1u << count) - 1), packed);
    out += count;
  }
}

}  // namespace qx::avx512
#endif
