// NEON, second part: codes of rows, and bounds from them; with the dot-product instructions of
// later CPUs, and without.
#include "kernels/code_rows.h"
#include "kernels/tables.h"

#if defined(__aarch64__)
#include <arm_neon.h>
#if defined(__linux__)
#include <sys/auxv.h>
#endif

namespace qx {
namespace {

// Halves of 16 bytes of a plane, as signed numbers from 0 to 15.
inline int8x16_t low_nibbles(uint8x16_t bytes) {
  return vreinterpretq_s8_u8(vandq_u8(bytes, vdupq_n_u8(15)));
}
inline int8x16_t high_nibbles(uint8x16_t bytes) {
  return vreinterpretq_s8_u8(vshrq_n_u8(bytes, 4));
}

// 16 times the sums of the high plane, and those of the low one if all bits are read.
template <auto sum_row, typename HighRow, typename LowRow>
inline void sum_rows(HighRow high, LowRow low, std::int64_t row_bytes, const CodedQuery& query,
                     CodeBits bits, std::int32_t* sums) {
  for (std::int64_t i = 0; i < kSummedRows; ++i) {
    sums[i] = 16 * sum_row(high(i), row_bytes, query);
    if (bits == CodeBits::kEight) sums[i] += sum_row(low(i), row_bytes, query);
  }
}

template <auto sum_row>
void sum_contiguous(const std::uint8_t* high, const std::uint8_t* low, std::int64_t row_bytes,
                    const CodedQuery& query, CodeBits bits, std::int32_t* sums) {
  sum_rows<sum_row>([=](std::int64_t i) { return high + i * row_bytes; },
                    [=](std::int64_t i) { return low + i * row_bytes; }, row_bytes, query, bits,
                    sums);
}

template <auto sum_row>
void sum_scattered(const std::uint8_t* const* high, const std::uint8_t* const* low,
                   std::int64_t row_bytes, const CodedQuery& query, CodeBits bits,
                   std::int32_t* sums) {
  sum_rows<sum_row>([=](std::int64_t i) { return high[i]; }, [=](std::int64_t i) { return low[i]; },
                    row_bytes, query, bits, sums);
}

}  // namespace

namespace neon {
namespace {

// Products are added in pairs as 16-bit numbers: 4 * 15 * 127 a step.
inline std::int32_t sum_row(const std::uint8_t* row, std::int64_t row_bytes,
                            const CodedQuery& query) {
  const std::int8_t* const others = query.levels + query.half_bytes;
  int32x4_t all = vdupq_n_s32(0);
  for (std::int64_t i = 0; i < row_bytes; i += 16) {
    const uint8x16_t bytes = vld1q_u8(row + i);
    const int8x16_t low = low_nibbles(bytes);
    const int8x16_t high = high_nibbles(bytes);
    const int8x16_t levels = vld1q_s8(query.levels + i);
    const int8x16_t other_levels = vld1q_s8(others + i);
    int16x8_t sums = vmull_s8(vget_low_s8(low), vget_low_s8(levels));
    sums = vmlal_high_s8(sums, low, levels);
    sums = vmlal_s8(sums, vget_low_s8(high), vget_low_s8(other_levels));
    sums = vmlal_high_s8(sums, high, other_levels);
    all = vpadalq_s16(all, sums);
  }
  return vaddvq_s32(all);
}

}  // namespace

void code_rows(const float* rows, std::int64_t count, std::int64_t dim, std::uint8_t* high,
               std::uint8_t* low, std::uint32_t* constants, CodeNorms* norms) {
  qx::code_rows(rows, count, dim, high, low, constants, norms);
}

void bound_contiguous(const CodeView& codes, std::int64_t first, std::int64_t count,
                      const CodedQuery& query, CodeBits bits, float* bounds) {
  bound_rows_contiguous<sum_contiguous<sum_row>, sum_scattered<sum_row>>(codes, first, count, query,
                                                                         bits, bounds);
}

void bound_scattered(const CodeView& codes, const std::int64_t* rows, std::int64_t count,
                     const CodedQuery& query, CodeBits bits, float* bounds) {
  bound_rows_scattered<sum_scattered<sum_row>>(codes, rows, count, query, bits, bounds);
}

}  // namespace neon

namespace neondot {
namespace {

// Adds the products of four numbers to each lane. Compilers have an intrinsic for it only where the
// whole file is compiled for CPUs that can.
QX_NEON_DOT inline int32x4_t add_dot_products(int32x4_t sums, int8x16_t a, int8x16_t b) {
  asm("sdot %0.4s, %1.16b, %2.16b" : "+w"(sums) : "w"(a), "w"(b));
  return sums;
}

QX_NEON_DOT std::int32_t sum_row(const std::uint8_t* row, std::int64_t row_bytes,
                                 const CodedQuery& query) {
  const std::int8_t* const others = query.levels + query.half_bytes;
  int32x4_t low_sums = vdupq_n_s32(0);
  int32x4_t high_sums = vdupq_n_s32(0);
  for (std::int64_t i = 0; i < row_bytes; i += 16) {
    const uint8x16_t bytes = vld1q_u8(row + i);
    low_sums = add_dot_products(low_sums, low_nibbles(bytes), vld1q_s8(query.levels + i));
    high_sums = add_dot_products(high_sums, high_nibbles(bytes), vld1q_s8(others + i));
  }
  return vaddvq_s32(vaddq_s32(low_sums, high_sums));
}

}  // namespace

// Elsewhere nobody says at run time whether the CPU has them; a compiler may know it.
bool supported() {
#if defined(__linux__)
  constexpr unsigned long kDotProducts = 1UL << 20;  // HWCAP_ASIMDDP
  return (getauxval(AT_HWCAP) & kDotProducts) != 0;
#elif defined(__ARM_FEATURE_DOTPROD)
  return true;
#else
  return false;
#endif
}

void bound_contiguous(const CodeView& codes, std::int64_t first, std::int64_t count,
                      const CodedQuery& query, CodeBits bits, float* bounds) {
  bound_rows_contiguous<sum_contiguous<sum_row>, sum_scattered<sum_row>>(codes, first, count, query,
                                                                         bits, bounds);
}

void bound_scattered(const CodeView& codes, const std::int64_t* rows, std::int64_t count,
                     const CodedQuery& query, CodeBits bits, float* bounds) {
  bound_rows_scattered<sum_scattered<sum_row>>(codes, rows, count, query, bits, bounds);
}

}  // namespace neondot
}  // namespace qx
#endif
