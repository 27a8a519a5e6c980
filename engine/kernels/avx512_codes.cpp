// AVX-512 with byte products (VNNI): bounds from codes. All else is inherited from AVX-512.
#include "kernels/code_rows.h"
#include "kernels/tables.h"

#if defined(__x86_64__)
#include <immintrin.h>

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace qx::avx512vnni {

bool supported() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("avx512bw") && __builtin_cpu_supports("avx512vl") &&
         __builtin_cpu_supports("avx512vnni") && avx512::supported();
}

namespace {

struct ContiguousCodes {
  const std::uint8_t* high;
  const std::uint8_t* low;
  std::int64_t row_bytes;
  const std::uint8_t* high_row(std::int64_t i) const { return high + i * row_bytes; }
  const std::uint8_t* low_row(std::int64_t i) const { return low + i * row_bytes; }
};

struct ScatteredCodes {
  const std::uint8_t* const* high;
  const std::uint8_t* const* low;
  const std::uint8_t* high_row(std::int64_t i) const { return high[i]; }
  const std::uint8_t* low_row(std::int64_t i) const { return low[i]; }
};

// Left to itself, g++ 12 copies what was loaded to the stack and reads it there, twice.
QX_VNNI_INLINE __m512i in_register(__m512i value) {
  asm("" : "+v"(value));
  return value;
}

// ---- Products ----

// Adds the products of 64 bytes of a row with a query's levels: of its codes, or with four bits of
// 16 times their high halves.
template <CodeBits Bits>
QX_VNNI_INLINE __m512i add_products(__m512i sums, __m512i high, __m512i low, __m512i levels,
                                    __m512i other_levels) {
  constexpr int kSelect = 0xCA;  // of b where a is set, of c elsewhere
  const __m512i low_halves = _mm512_set1_epi8(0x0F);
  const __m512i raised = _mm512_slli_epi16(high, 4);
  __m512i codes;
  __m512i other_codes;
  if constexpr (Bits == CodeBits::kFour) {
    codes = _mm512_andnot_si512(low_halves, raised);
    other_codes = _mm512_andnot_si512(low_halves, high);
  } else {
    codes = _mm512_ternarylogic_epi32(low_halves, low, raised, kSelect);
    other_codes = _mm512_ternarylogic_epi32(low_halves, _mm512_srli_epi16(low, 4), high, kSelect);
  }
  return _mm512_dpbusd_epi32(_mm512_dpbusd_epi32(sums, codes, levels), other_codes, other_levels);
}

// ---- Loads: one register of 64, 2 x 32 or 4 x 16 bytes, of as many rows ----

// Row i, or rows i and i + 8, or rows i, i + 4, i + 8 and i + 12.
template <int Bytes, typename RowOf>
QX_VNNI_INLINE __m512i load_rows(RowOf row, std::int64_t i) {
  if constexpr (Bytes == 64) {
    return _mm512_loadu_si512(row(i));
  } else if constexpr (Bytes == 32) {
    const auto load = [&](std::int64_t r) QX_VNNI_LAMBDA {
      return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row(r)));
    };
    return _mm512_inserti64x4(_mm512_castsi256_si512(load(i)), load(i + 8), 1);
  } else {
    const auto load = [&](std::int64_t r) QX_VNNI_LAMBDA {
      return _mm_loadu_si128(reinterpret_cast<const __m128i*>(row(r)));
    };
    __m512i rows = _mm512_castsi128_si512(load(i));
    rows = _mm512_inserti32x4(rows, load(i + 4), 1);
    rows = _mm512_inserti32x4(rows, load(i + 8), 2);
    return _mm512_inserti32x4(rows, load(i + 12), 3);
  }
}

template <int Bytes>
QX_VNNI_INLINE __m512i load_levels(const std::int8_t* levels) {
  if constexpr (Bytes == 64) {
    return _mm512_loadu_si512(levels);
  } else if constexpr (Bytes == 32) {
    return _mm512_broadcast_i64x4(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(levels)));
  } else {
    return _mm512_broadcast_i32x4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(levels)));
  }
}

// ---- Sums of lanes ----

QX_VNNI_INLINE __m512i add_pairs(__m512i a, __m512i b) {
  return _mm512_add_epi32(_mm512_unpacklo_epi32(a, b), _mm512_unpackhi_epi32(a, b));
}
QX_VNNI_INLINE __m512i add_pairs_of_pairs(__m512i a, __m512i b) {
  return _mm512_add_epi32(_mm512_unpacklo_epi64(a, b), _mm512_unpackhi_epi64(a, b));
}
// Of four registers, the sums of each 128 bits.
QX_VNNI_INLINE __m512i add_quads(const __m512i* four) {
  return add_pairs_of_pairs(add_pairs(four[0], four[1]), add_pairs(four[2], four[3]));
}
QX_VNNI_INLINE __m512i add_neighbours(__m512i a, __m512i b) {
  return _mm512_add_epi32(_mm512_shuffle_i32x4(a, b, 0x88), _mm512_shuffle_i32x4(a, b, 0xDD));
}

// The sums of sixteen rows, from those of four registers each that load_rows() gave.
template <int Bytes>
QX_VNNI_INLINE __m512i add_lanes(const __m512i* quads) {
  if constexpr (Bytes == 16) {
    return quads[0];
  } else if constexpr (Bytes == 32) {
    const __m512i both = add_neighbours(quads[0], quads[1]);
    return _mm512_shuffle_i32x4(both, both, 0xD8);
  } else {
    return add_neighbours(add_neighbours(quads[0], quads[1]), add_neighbours(quads[2], quads[3]));
  }
}

// ---- Sums of rows ----

// The sums of sixteen rows whose bytes fit one load.
template <int Bytes, CodeBits Bits, typename Rows>
QX_VNNI_INLINE void sum_short_rows(const Rows& rows, const CodedQuery& query, std::int32_t* sums) {
  constexpr int kRegisters = Bytes / 4;
  const __m512i levels = load_levels<Bytes>(query.levels);
  const __m512i other_levels = load_levels<Bytes>(query.levels + query.half_bytes);
  const auto high_row = [&](std::int64_t i) QX_VNNI_LAMBDA { return rows.high_row(i); };
  const auto low_row = [&](std::int64_t i) QX_VNNI_LAMBDA { return rows.low_row(i); };
  __m512i quads[kRegisters / 4];
#pragma GCC unroll 4
  for (int quad = 0; quad < kRegisters / 4; ++quad) {
    __m512i four[4];
#pragma GCC unroll 4
    for (int i = 0; i < 4; ++i) {
      const __m512i high = in_register(load_rows<Bytes>(high_row, 4 * quad + i));
      const __m512i low = Bits == CodeBits::kEight ? load_rows<Bytes>(low_row, 4 * quad + i) : high;
      four[i] = add_products<Bits>(_mm512_setzero_si512(), high, low, levels, other_levels);
    }
    quads[quad] = in_register(add_quads(four));
  }
  _mm512_storeu_si512(sums, add_lanes<Bytes>(quads));
}

// The sum of a long row, in sixteen lanes.
template <CodeBits Bits>
QX_VNNI_INLINE __m512i sum_long_row(const std::uint8_t* high, const std::uint8_t* low,
                                    const CodedQuery& query) {
  const std::int8_t* const others = query.levels + query.half_bytes;
  __m512i sums = _mm512_setzero_si512();
  for (std::int64_t i = 0; i < query.half_bytes; i += 64) {
    const __m512i high_bytes = in_register(_mm512_loadu_si512(high + i));
    const __m512i low_bytes = Bits == CodeBits::kEight ? _mm512_loadu_si512(low + i) : high_bytes;
    sums = add_products<Bits>(sums, high_bytes, low_bytes, _mm512_load_si512(query.levels + i),
                              _mm512_load_si512(others + i));
  }
  return sums;
}

// Rows are read one after the other: from memory, one stream is faster than several far apart.
template <CodeBits Bits, typename Rows>
QX_VNNI_INLINE void sum_long_rows(const Rows& rows, const CodedQuery& query, std::int32_t* sums) {
  __m512i quads[kSummedRows / 4];
#pragma GCC unroll 4
  for (int quad = 0; quad < kSummedRows / 4; ++quad) {
    __m512i four[4];
#pragma GCC unroll 4
    for (int i = 0; i < 4; ++i) {
      four[i] = sum_long_row<Bits>(rows.high_row(4 * quad + i), rows.low_row(4 * quad + i), query);
    }
    quads[quad] = in_register(add_quads(four));
  }
  _mm512_storeu_si512(sums, add_lanes<64>(quads));
}

template <CodeBits Bits, typename Rows>
QX_VNNI void sum_rows(const Rows& rows, std::int64_t row_bytes, const CodedQuery& query,
                      std::int32_t* sums) {
  if (row_bytes <= 16) {
    sum_short_rows<16, Bits>(rows, query, sums);
  } else if (row_bytes <= 32) {
    sum_short_rows<32, Bits>(rows, query, sums);
  } else if (row_bytes <= 64) {
    sum_short_rows<64, Bits>(rows, query, sums);
  } else {
    sum_long_rows<Bits>(rows, query, sums);
  }
}

QX_VNNI void sum_contiguous(const std::uint8_t* high, const std::uint8_t* low,
                            std::int64_t row_bytes, const CodedQuery& query, CodeBits bits,
                            std::int32_t* sums) {
  const ContiguousCodes rows{high, low, row_bytes};
  if (bits == CodeBits::kFour) return sum_rows<CodeBits::kFour>(rows, row_bytes, query, sums);
  sum_rows<CodeBits::kEight>(rows, row_bytes, query, sums);
}

QX_VNNI void sum_scattered(const std::uint8_t* const* high, const std::uint8_t* const* low,
                           std::int64_t row_bytes, const CodedQuery& query, CodeBits bits,
                           std::int32_t* sums) {
  const ScatteredCodes rows{high, low};
  if (bits == CodeBits::kFour) return sum_rows<CodeBits::kFour>(rows, row_bytes, query, sums);
  sum_rows<CodeBits::kEight>(rows, row_bytes, query, sums);
}

}  // namespace

QX_VNNI void bound_contiguous(const CodeView& codes, std::int64_t first, std::int64_t count,
                              const CodedQuery& query, CodeBits bits, float* bounds) {
  bound_rows_contiguous<sum_contiguous, sum_scattered>(codes, first, count, query, bits, bounds);
}

QX_VNNI void bound_scattered(const CodeView& codes, const std::int64_t* rows, std::int64_t count,
                             const CodedQuery& query, CodeBits bits, float* bounds) {
  bound_rows_scattered<sum_scattered>(codes, rows, count, query, bits, bounds);
}

}  // namespace qx::avx512vnni
#endif
