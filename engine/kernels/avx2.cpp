// AVX2 and FMA, first part: what the CPU must have, comparing and compressing. Scores are in
// avx2_scores.cpp, estimates in avx2_estimates.cpp.
#include "kernels/tables.h"
#include "support/compiler.h"

#if defined(__x86_64__)
#include <immintrin.h>

namespace qx::avx2 {

bool supported() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
         __builtin_cpu_supports("popcnt");
}

// ---- Comparing and compressing ----

QX_AVX2 std::uint64_t mask_not_less(const float* numbers, std::int64_t count, float limit) {
  const __m256 limits = _mm256_set1_ps(limit);
  std::uint64_t bits = 0;
  std::int64_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    const __m256 not_less = _mm256_cmp_ps(_mm256_loadu_ps(numbers + i), limits, _CMP_NLT_UQ);
    bits |= static_cast<std::uint64_t>(_mm256_movemask_ps(not_less)) << i;
  }
  for (; i < count; ++i) bits |= static_cast<std::uint64_t>(numbers[i] < limit ? 0 : 1) << i;
  return bits;
}

namespace {

// A permutation for each mask of four numbers, which are two lanes of 32 bits each: it moves those
// that are selected to the front.
alignas(32) constexpr std::int32_t kToFront[16][8] = {
    {0, 0, 0, 0, 0, 0, 0, 0}, {0, 1, 0, 0, 0, 0, 0, 0}, {2, 3, 0, 0, 0, 0, 0, 0},
    {0, 1, 2, 3, 0, 0, 0, 0}, {4, 5, 0, 0, 0, 0, 0, 0}, {0, 1, 4, 5, 0, 0, 0, 0},
    {2, 3, 4, 5, 0, 0, 0, 0}, {0, 1, 2, 3, 4, 5, 0, 0}, {6, 7, 0, 0, 0, 0, 0, 0},
    {0, 1, 6, 7, 0, 0, 0, 0}, {2, 3, 6, 7, 0, 0, 0, 0}, {0, 1, 2, 3, 6, 7, 0, 0},
    {4, 5, 6, 7, 0, 0, 0, 0}, {0, 1, 4, 5, 6, 7, 0, 0}, {2, 3, 4, 5, 6, 7, 0, 0},
    {0, 1, 2, 3, 4, 5, 6, 7}};

}  // namespace

// Stores four numbers at a time, while there is room for four: the next four overwrite those that
// were not selected.
QX_AVX2 void compress(const std::int64_t* numbers, std::uint64_t mask, std::int64_t selected,
                      std::int64_t* out) {
  const std::int64_t* const end = out + selected;
  for (; end - out >= 4; numbers += 4, mask >>= 4) {
    const auto* const to_front = reinterpret_cast<const __m256i*>(kToFront[mask & 15]);
    const __m256i four = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(numbers));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out),
                        _mm256_permutevar8x32_epi32(four, _mm256_load_si256(to_front)));
    out += __builtin_popcountll(mask & 15);
  }
  portable::compress(numbers, mask, end - out, out);
}

}  // namespace qx::avx2
#endif
