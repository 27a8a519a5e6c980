// The kernel for x86-64 with AVX-512: estimates of near rows, sixteen components per register.
//
// Scores wait for their chains, which wider registers do not shorten; the AVX2 kernel gives them,
// as it does whatever has no way of its own here.
//
// Only plain types and the intrinsics are included, as in every kernel.
#include "kernels/kernels.h"
#include "support/compiler.h"

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

// The sums of the lanes of four registers.
QX_AVX512_INLINE __m128 sum_lanes(const __m512 (&sums)[4]) {
  __m256 halves[4];
  for (int i = 0; i < 4; ++i) {
    halves[i] = _mm256_add_ps(_mm512_castps512_ps256(sums[i]), _mm512_extractf32x8_ps(sums[i], 1));
  }
  const __m256 quads =
      _mm256_hadd_ps(_mm256_hadd_ps(halves[0], halves[1]), _mm256_hadd_ps(halves[2], halves[3]));
  return _mm_add_ps(_mm256_castps256_ps128(quads), _mm256_extractf128_ps(quads, 1));
}

// Estimates four rows side by side.
QX_AVX512_INLINE void estimate_four(const float* rows, std::int64_t dim, const float* query,
                                    float* estimates) {
  __m512 sums[4] = {_mm512_setzero_ps(), _mm512_setzero_ps(), _mm512_setzero_ps(),
                    _mm512_setzero_ps()};
  std::int64_t j = 0;
  for (; j + kLanes <= dim; j += kLanes) {
    const __m512 factors = _mm512_loadu_ps(query + j);
    for (int i = 0; i < 4; ++i) {
      sums[i] = _mm512_fmadd_ps(_mm512_loadu_ps(rows + i * dim + j), factors, sums[i]);
    }
  }
  if (j < dim) {
    const auto rest = static_cast<__mmask16>((1U << (dim - j)) - 1);
    const __m512 factors = _mm512_maskz_loadu_ps(rest, query + j);
    for (int i = 0; i < 4; ++i) {
      sums[i] = _mm512_fmadd_ps(_mm512_maskz_loadu_ps(rest, rows + i * dim + j), factors, sums[i]);
    }
  }
  _mm_storeu_ps(estimates, sum_lanes(sums));
}

// Estimates whole groups of four; returns how many rows.
QX_AVX512 std::int64_t estimate_fours(const float* rows, std::int64_t count, std::int64_t dim,
                                      const float* query, float* estimates) {
  std::int64_t i = 0;
  for (; i + 4 <= count; i += 4) estimate_four(rows + i * dim, dim, query, estimates + i);
  return i;
}

bool supported() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
         kAvx2Kernels.supported();
}

void score_contiguous(const float* rows, std::int64_t count, std::int64_t dim, const float* query,
                      Reach reach, float* scores) {
  kAvx2Kernels.score_contiguous(rows, count, dim, query, reach, scores);
}

void score_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                     const float* query, float* scores) {
  kAvx2Kernels.score_scattered(rows, count, dim, query, scores);
}

// Wide registers help where the second-level cache can fill them; from further away the AVX2 kernel
// is as fast as the rows arrive, and with short rows the sums of the lanes cost more than they
// save.
constexpr std::int64_t kShortestOwnRow = 64;

void estimate_contiguous(const float* rows, std::int64_t count, std::int64_t dim,
                         const float* query, Reach reach, float* estimates) {
  const bool own = reach == Reach::kNear && dim >= kShortestOwnRow;
  const std::int64_t i = own ? estimate_fours(rows, count, dim, query, estimates) : 0;
  kAvx2Kernels.estimate_contiguous(rows + i * dim, count - i, dim, query, reach, estimates + i);
}

void estimate_scattered(const float* const* rows, std::int64_t count, std::int64_t dim,
                        const float* query, float* estimates) {
  kAvx2Kernels.estimate_scattered(rows, count, dim, query, estimates);
}

std::uint64_t not_below(const float* numbers, std::int64_t count, float limit) {
  return kAvx2Kernels.not_below(numbers, count, limit);
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

extern constinit const Kernels kAvx512Kernels = {
    "avx512",           supported, score_contiguous, score_scattered, estimate_contiguous,
    estimate_scattered, not_below, copy_selected};

}  // namespace qx

#undef QX_AVX512
#undef QX_AVX512_INLINE
#endif
