// AVX2 and FMA, fourth part: codes of rows, and bounds from them.
#include "kernels/code_rows.h"
#include "kernels/tables.h"

#if defined(__x86_64__)
#include <immintrin.h>

namespace qx::avx2 {
namespace {

// Rows of codes, in one plane: contiguous or scattered.
struct ContiguousPlane {
  const std::uint8_t* first;
  std::int64_t row_bytes;
  const std::uint8_t* row(std::int64_t i) const { return first + i * row_bytes; }
};
struct ScatteredPlane {
  const std::uint8_t* const* rows;
  const std::uint8_t* row(std::int64_t i) const { return rows[i]; }
};

QX_AVX2_INLINE __m256i load_bytes(const void* from) {
  return _mm256_loadu_si256(static_cast<const __m256i*>(from));
}

// Adds the products of 32 bytes of a plane. Each of the sums of 16 bits grows by 4 * 15 * 127 at
// most.
QX_AVX2_INLINE __m256i add_products(__m256i codes, __m256i levels, __m256i other_levels,
                                    __m256i sums) {
  const __m256i low_halves = _mm256_set1_epi8(0x0F);
  const __m256i low = _mm256_and_si256(codes, low_halves);
  const __m256i high = _mm256_and_si256(_mm256_srli_epi16(codes, 4), low_halves);
  sums = _mm256_add_epi16(sums, _mm256_maddubs_epi16(low, levels));
  return _mm256_add_epi16(sums, _mm256_maddubs_epi16(high, other_levels));
}

QX_AVX2_INLINE __m256i widen(__m256i sums) { return _mm256_madd_epi16(sums, _mm256_set1_epi16(1)); }

// The sum of one row of a plane, in eight lanes. Four times 4 * 15 * 127 is below 2^15.
QX_AVX2_INLINE __m256i sum_long_row(const std::uint8_t* row, std::int64_t row_bytes,
                                    const CodedQuery& query) {
  constexpr std::int64_t kTogether = 4 * std::int64_t{32};
  const std::int8_t* const others = query.levels + query.half_bytes;
  __m256i all = _mm256_setzero_si256();
  for (std::int64_t first = 0; first < row_bytes; first += kTogether) {
    const std::int64_t rest = row_bytes - first;
    const std::int64_t end = first + (rest < kTogether ? rest : kTogether);
    __m256i sums = _mm256_setzero_si256();
    for (std::int64_t i = first; i < end; i += 32) {
      sums = add_products(load_bytes(row + i), load_bytes(query.levels + i), load_bytes(others + i),
                          sums);
    }
    all = _mm256_add_epi32(all, widen(sums));
  }
  return all;
}

// The sums of the lanes of eight registers.
QX_AVX2_INLINE __m256i add_lanes(const __m256i* sums) {
  const __m256i first =
      _mm256_hadd_epi32(_mm256_hadd_epi32(sums[0], sums[1]), _mm256_hadd_epi32(sums[2], sums[3]));
  const __m256i last =
      _mm256_hadd_epi32(_mm256_hadd_epi32(sums[4], sums[5]), _mm256_hadd_epi32(sums[6], sums[7]));
  return _mm256_add_epi32(_mm256_permute2x128_si256(first, last, 0x20),
                          _mm256_permute2x128_si256(first, last, 0x31));
}

// Eight rows of at most 16 bytes: two in a register.
template <typename Plane>
QX_AVX2_INLINE __m256i sum_shortest_rows(const Plane& plane, std::int64_t first,
                                         const CodedQuery& query) {
  const auto load = [](const void* from) QX_AVX2_LAMBDA {
    return _mm_loadu_si128(static_cast<const __m128i*>(from));
  };
  const __m256i levels = _mm256_broadcastsi128_si256(load(query.levels));
  const __m256i other_levels = _mm256_broadcastsi128_si256(load(query.levels + query.half_bytes));
  __m256i sums[4];
#pragma GCC unroll 4
  for (int i = 0; i < 4; ++i) {
    const __m256i codes = _mm256_inserti128_si256(
        _mm256_castsi128_si256(load(plane.row(first + i))), load(plane.row(first + i + 4)), 1);
    sums[i] = widen(add_products(codes, levels, other_levels, _mm256_setzero_si256()));
  }
  return _mm256_hadd_epi32(_mm256_hadd_epi32(sums[0], sums[1]),
                           _mm256_hadd_epi32(sums[2], sums[3]));
}

template <typename Plane>
QX_AVX2_INLINE __m256i sum_eight_rows(const Plane& plane, std::int64_t first,
                                      const CodedQuery& query, std::int64_t row_bytes) {
  if (row_bytes <= 16) return sum_shortest_rows(plane, first, query);
  __m256i sums[8];
  if (row_bytes <= 32) {
    const __m256i levels = load_bytes(query.levels);
    const __m256i other_levels = load_bytes(query.levels + query.half_bytes);
#pragma GCC unroll 8
    for (int i = 0; i < 8; ++i) {
      sums[i] = widen(add_products(load_bytes(plane.row(first + i)), levels, other_levels,
                                   _mm256_setzero_si256()));
    }
  } else {
    for (int i = 0; i < 8; ++i) sums[i] = sum_long_row(plane.row(first + i), row_bytes, query);
  }
  return add_lanes(sums);
}

template <typename Plane>
QX_AVX2_INLINE void sum_rows(const Plane& high, const Plane& low, std::int64_t row_bytes,
                             const CodedQuery& query, CodeBits bits, std::int32_t* sums) {
  for (std::int64_t i = 0; i < kSummedRows; i += 8) {
    __m256i eight = _mm256_slli_epi32(sum_eight_rows(high, i, query, row_bytes), 4);
    if (bits == CodeBits::kEight) {
      eight = _mm256_add_epi32(eight, sum_eight_rows(low, i, query, row_bytes));
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(sums + i), eight);
  }
}

QX_AVX2 void sum_contiguous(const std::uint8_t* high, const std::uint8_t* low,
                            std::int64_t row_bytes, const CodedQuery& query, CodeBits bits,
                            std::int32_t* sums) {
  sum_rows(ContiguousPlane{high, row_bytes}, ContiguousPlane{low, row_bytes}, row_bytes, query,
           bits, sums);
}

QX_AVX2 void sum_scattered(const std::uint8_t* const* high, const std::uint8_t* const* low,
                           std::int64_t row_bytes, const CodedQuery& query, CodeBits bits,
                           std::int32_t* sums) {
  sum_rows(ScatteredPlane{high}, ScatteredPlane{low}, row_bytes, query, bits, sums);
}

}  // namespace

QX_AVX2 void code_rows(const float* rows, std::int64_t count, std::int64_t dim, std::uint8_t* high,
                       std::uint8_t* low, std::uint32_t* constants, CodeNorms* norms) {
  qx::code_rows(rows, count, dim, high, low, constants, norms);
}

QX_AVX2 void bound_contiguous(const CodeView& codes, std::int64_t first, std::int64_t count,
                              const CodedQuery& query, CodeBits bits, float* bounds) {
  bound_rows_contiguous<sum_contiguous, sum_scattered>(codes, first, count, query, bits, bounds);
}

QX_AVX2 void bound_scattered(const CodeView& codes, const std::int64_t* rows, std::int64_t count,
                             const CodedQuery& query, CodeBits bits, float* bounds) {
  bound_rows_scattered<sum_scattered>(codes, rows, count, query, bits, bounds);
}

}  // namespace qx::avx2
#endif
