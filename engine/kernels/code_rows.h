// What is the same for the codes of every kernel: how a row is coded, and how sums become bounds.
//
// These functions are inlined into functions of each instruction set, and turned into SIMD there:
// their loops run over a fixed number of independent lanes.
#pragma once

#include "kernels/codes.h"
#include "kernels/tuning.h"
#include "support/compiler.h"

#define QX_CODES_INLINE __attribute__((always_inline)) inline

namespace qx {

// ---- Coding ----

inline constexpr std::int64_t kCodeLanes = 16;

// The least step, and the largest magnitude, of a row that is coded. Products with the factors of a
// query that a scan codes neither overflow nor become subnormal.
inline constexpr float kLeastStep = 0x1p-90f;
inline constexpr float kLargestCoded = 0x1p+48f;
// |lo| is at most about this many steps; a row of nearly equal components would have a small step
// otherwise, and the roundings of a large lo would count many of them.
inline constexpr float kMostStepsOfLo = 1024;

// The numbers of a row that code it.
struct RowCoding {
  float lo;
  float step;
  float steps_per_unit;
  float magnitude;
};

QX_CODES_INLINE std::uint32_t bits_of(float number) {
  return __builtin_bit_cast(std::uint32_t, number);
}
QX_CODES_INLINE float float_of(std::uint32_t bits) { return __builtin_bit_cast(float, bits); }

// The nearest bfloat16 that is not above a finite number.
QX_CODES_INLINE float bfloat_below(float number) {
  const std::uint32_t bits = bits_of(number);
  return float_of((bits >> 31 != 0 ? bits + 0xFFFF : bits) & 0xFFFF0000u);
}

// The nearest bfloat16 that is not below a positive number.
QX_CODES_INLINE float bfloat_above(float positive) {
  return float_of((bits_of(positive) + 0xFFFF) & 0xFFFF0000u);
}

// Chooses the constants of a row. Returns false if it is not coded: a component is not finite, or
// too large.
QX_CODES_INLINE bool choose_coding(const float* row, std::int64_t dim, RowCoding* coding) {
  float least[kCodeLanes];
  float most[kCodeLanes];
  std::int32_t largest[kCodeLanes] = {};  // bits of magnitudes, which order as integers, NaNs last
  for (std::int64_t l = 0; l < kCodeLanes; ++l) least[l] = most[l] = row[0];
  const auto take = [&](std::int64_t l, float x) __attribute__((always_inline)) {
    const auto magnitude = static_cast<std::int32_t>(bits_of(x) & 0x7FFFFFFFu);
    least[l] = x < least[l] ? x : least[l];
    most[l] = x > most[l] ? x : most[l];
    largest[l] = magnitude > largest[l] ? magnitude : largest[l];
  };
  std::int64_t j = 0;
  for (; j + kCodeLanes <= dim; j += kCodeLanes) {
    for (std::int64_t l = 0; l < kCodeLanes; ++l) take(l, row[j + l]);
  }
  for (; j < dim; ++j) take(0, row[j]);
  for (std::int64_t l = 1; l < kCodeLanes; ++l) {
    least[0] = least[l] < least[0] ? least[l] : least[0];
    most[0] = most[l] > most[0] ? most[l] : most[0];
    largest[0] = largest[l] > largest[0] ? largest[l] : largest[0];
  }
  coding->magnitude = float_of(static_cast<std::uint32_t>(largest[0]));
  if (!(coding->magnitude < kLargestCoded)) return false;
  coding->lo = bfloat_below(least[0]);
  const float range = (most[0] - coding->lo) / 255;
  const float coarse = coding->magnitude / kMostStepsOfLo;
  const float wanted = range > coarse ? range : coarse;
  coding->step = bfloat_above(wanted > kLeastStep ? wanted : kLeastStep);
  coding->steps_per_unit = 1 / coding->step;
  return true;
}

// Sums of squares of a row, in steps, lane by lane.
struct SquareSums {
  float eight[kCodeLanes] = {};   // of the rest, eight bits read
  float four[kCodeLanes] = {};    // of the rest, four bits read
  float spread[kCodeLanes] = {};  // of the codes about their middle
};

// The code of a component, whose squares are added.
QX_CODES_INLINE std::int32_t code_of(float x, const RowCoding& coding, std::int64_t lane,
                                     SquareSums& sums) {
  const float in_steps = (x - coding.lo) * coding.steps_per_unit;
  // NOLINTNEXTLINE(bugprone-incorrect-roundings): whichever code it is, the rest is measured
  const auto code = static_cast<std::int32_t>(in_steps + 0.5f);
  const float rest = in_steps - static_cast<float>(code);
  const float from_middle = rest + (static_cast<float>(code & 15) - 7.5f);
  const float spread = static_cast<float>(code) - 127.5f;
  sums.eight[lane] += rest * rest;
  sums.four[lane] += from_middle * from_middle;
  sums.spread[lane] += spread * spread;
  return code;
}

// An upper bound of the root of the sum of the lanes. `growth` is above what the sums have lost to
// rounding, relatively.
QX_CODES_INLINE float norm_of(const float* lanes, float growth) {
  float sum = 0;
  for (std::int64_t l = 0; l < kCodeLanes; ++l) sum += lanes[l];
  return __builtin_sqrtf(sum) * growth;
}

// Codes one row.
QX_CODES_INLINE void code_row(const float* row, std::int64_t dim, std::uint8_t* high,
                              std::uint8_t* low, std::uint32_t* constants, CodeNorms* norms) {
  RowCoding coding;
  const std::int64_t row_bytes = code_row_bytes(dim);
  if (!choose_coding(row, dim, &coding)) {
    for (std::int64_t i = 0; i < row_bytes; ++i) high[i] = low[i] = 0;
    *constants = 0x7FC00000u;
    *norms = {};
    return;
  }
  SquareSums sums;
  const float* const others = row + row_bytes;
  const std::int64_t pairs = dim - row_bytes;
  const auto code_pair = [&](std::int64_t i, std::int64_t lane) __attribute__((always_inline)) {
    const std::int32_t a = code_of(row[i], coding, lane, sums);
    const std::int32_t b = code_of(others[i], coding, lane, sums);
    high[i] = static_cast<std::uint8_t>((a >> 4) | (b & 0xF0));
    low[i] = static_cast<std::uint8_t>((a & 15) | ((b & 15) << 4));
  };
  std::int64_t i = 0;
  for (; i + kCodeLanes <= pairs; i += kCodeLanes) {
    for (std::int64_t l = 0; l < kCodeLanes; ++l) code_pair(i + l, l);
  }
  for (; i < pairs; ++i) code_pair(i, 0);
  if (pairs < row_bytes) {
    const std::int32_t last = code_of(row[pairs], coding, 0, sums);
    high[pairs] = static_cast<std::uint8_t>(last >> 4);
    low[pairs] = static_cast<std::uint8_t>(last & 15);
  }
  *constants = bits_of(coding.lo) | bits_of(coding.step) >> 16;
  const auto components = static_cast<float>(dim);
  const float root = __builtin_sqrtf(components) * 1.001f;
  const float growth = 1 + (components + 32) * 0x1p-23f;
  // A rest is known to 3 roundings of a number up to 256. The chain of the score rounds, relative
  // to the sum of the products' magnitudes, by dim * 2^-24 / (1 - dim * 2^-24) at most.
  const float rounded =
      root * (0x1p-14f + components * 0x1.01p-24f * (coding.magnitude * coding.steps_per_unit));
  norms->residual[0] = norm_of(sums.four, growth) + rounded;
  norms->residual[1] = norm_of(sums.eight, growth) + rounded;
  norms->spread = norm_of(sums.spread, growth);
}

QX_CODES_INLINE void code_rows(const float* rows, std::int64_t count, std::int64_t dim,
                               std::uint8_t* high, std::uint8_t* low, std::uint32_t* constants,
                               CodeNorms* norms) {
  const std::int64_t row_bytes = code_row_bytes(dim);
  for (std::int64_t i = 0; i < count; ++i) {
    code_row(rows + i * dim, dim, high + i * row_bytes, low + i * row_bytes, constants + i,
             norms + i);
  }
}

// ---- Bounds ----

// Rows whose sums a kernel makes side by side.
inline constexpr std::int64_t kSummedRows = 16;

// The allowance of the rows of a group.
QX_CODES_INLINE float allowance_of(float residual, float spread, const CodedQuery& query,
                                   CodeBits bits) {
  return query.fixed[static_cast<std::size_t>(bits)] + residual * query.residual_weight +
         spread * query.spread_weight;
}

// The bound of a row.
QX_CODES_INLINE float bound_of(std::int32_t sum, std::uint32_t constants, float allowance,
                               const CodedQuery& query) {
  const float lo = float_of(constants & 0xFFFF0000u);
  const float step = float_of(constants << 16);
  return step * (query.factor * static_cast<float>(sum) + allowance) + lo * query.query_sum;
}

// Sums of kSummedRows rows each, contiguous or scattered.
using SumContiguousFunction = void(const std::uint8_t* high, const std::uint8_t* low,
                                   std::int64_t row_bytes, const CodedQuery& query, CodeBits bits,
                                   std::int32_t* sums);
using SumScatteredFunction = void(const std::uint8_t* const* high, const std::uint8_t* const* low,
                                  std::int64_t row_bytes, const CodedQuery& query, CodeBits bits,
                                  std::int32_t* sums);

// Bounds of at most kSummedRows rows. The last one fills them up.
template <SumScatteredFunction* sum_scattered>
QX_CODES_INLINE void bound_some(const CodeView& codes, const std::int64_t* rows, std::int64_t count,
                                const CodedQuery& query, CodeBits bits, float* bounds) {
  const std::uint8_t* high[kSummedRows];
  const std::uint8_t* low[kSummedRows];
  std::uint32_t constants[kSummedRows];
  float residuals[kSummedRows];
  float spreads[kSummedRows];
  std::int32_t sums[kSummedRows];
  float padded_bounds[kSummedRows];
  for (std::int64_t i = 0; i < kSummedRows; ++i) {
    const std::int64_t row = rows[i < count ? i : count - 1];
    const CodeNorms& norms = codes.norms[row / kCodeGroupRows];
    high[i] = codes.high + row * codes.row_bytes;
    low[i] = codes.low + row * codes.row_bytes;
    constants[i] = codes.constants[row];
    residuals[i] = norms.residual[static_cast<std::size_t>(bits)];
    spreads[i] = norms.spread;
  }
  sum_scattered(high, low, codes.row_bytes, query, bits, sums);
  for (std::int64_t i = 0; i < kSummedRows; ++i) {
    padded_bounds[i] =
        bound_of(sums[i], constants[i], allowance_of(residuals[i], spreads[i], query, bits), query);
  }
  for (std::int64_t i = 0; i < count; ++i) bounds[i] = padded_bounds[i];
}

template <SumScatteredFunction* sum_scattered>
QX_CODES_INLINE void bound_rows_scattered(const CodeView& codes, const std::int64_t* rows,
                                          std::int64_t count, const CodedQuery& query,
                                          CodeBits bits, float* bounds) {
  for (std::int64_t i = 0; i < count; i += kSummedRows) {
    const std::int64_t size = count - i < kSummedRows ? count - i : kSummedRows;
    bound_some<sum_scattered>(codes, rows + i, size, query, bits, bounds + i);
  }
}

// Prefetches the lines of as many rows as are summed together, further ahead than the hardware
// looks.
QX_CODES_INLINE void prefetch_ahead(const std::uint8_t* rows, std::int64_t row_bytes) {
  constexpr int kIntoSecondLevel = 2;
  for (std::int64_t i = 0; i < kSummedRows * row_bytes; i += kCodePadding) {
    __builtin_prefetch(rows + tuning::kCodesAheadBytes + i, 0, kIntoSecondLevel);
  }
}

// Whole groups are summed as they are; what is before the first and after the last, by addresses.
template <SumContiguousFunction* sum_contiguous, SumScatteredFunction* sum_scattered>
QX_CODES_INLINE void bound_rows_contiguous(const CodeView& codes, std::int64_t first,
                                           std::int64_t count, const CodedQuery& query,
                                           CodeBits bits, float* bounds) {
  const bool ahead = bits == CodeBits::kFour && codes.row_bytes <= tuning::kMaxAheadCodeBytes;
  for (const std::int64_t end = first + count; first < end;) {
    const std::int64_t next = first / kCodeGroupRows * kCodeGroupRows + kCodeGroupRows;
    const std::int64_t size = (next < end ? next : end) - first;
    if (size == kCodeGroupRows) {
      std::int32_t sums[kCodeGroupRows];
      const std::int64_t offset = first * codes.row_bytes;
      for (std::int64_t i = 0; i < kCodeGroupRows; i += kSummedRows) {
        const std::int64_t at = offset + i * codes.row_bytes;
        if (ahead) prefetch_ahead(codes.high + at, codes.row_bytes);
        sum_contiguous(codes.high + at, codes.low + at, codes.row_bytes, query, bits, sums + i);
      }
      const CodeNorms& norms = codes.norms[first / kCodeGroupRows];
      const float allowance =
          allowance_of(norms.residual[static_cast<std::size_t>(bits)], norms.spread, query, bits);
      for (std::int64_t i = 0; i < kCodeGroupRows; ++i) {
        bounds[i] = bound_of(sums[i], codes.constants[first + i], allowance, query);
      }
    } else {
      std::int64_t rows[kCodeGroupRows];
      for (std::int64_t i = 0; i < size; ++i) rows[i] = first + i;
      bound_rows_scattered<sum_scattered>(codes, rows, size, query, bits, bounds);
    }
    bounds += size;
    first += size;
  }
}

}  // namespace qx
