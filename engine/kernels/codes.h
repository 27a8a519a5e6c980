// Small codes of rows, and the upper bound of a score that follows from them.
//
// A row x is kept a second time, as constants `lo` and `step` and one code u[j] of eight bits for
// each component:
//
//     x[j] = lo + step * (u[j] + rest[j])
//
// The high four bits of the codes are one plane and the low four another, so that a scan can read
// one of them alone; then u[j] stands for the sixteen codes that share the high bits, and the rest
// is measured from their middle. A byte of a plane holds components i and i + row_bytes: its low
// and its high half. Rows follow each other without gaps.
//
// The query is kept as one level of eight bits for each component:
//
//     q[j] = factor * levels[j] + error[j]
//
// The sums of codes and levels are exact integers. What they leave out is bounded by
// Cauchy-Schwarz, from norms that are known: of the rest (`residual`), of the codes about their
// middle (`spread`), of the query and of its error. read/pruner.cpp has the proof.
//
//     bound(x) = step * (factor * sum + allowance) + lo * query_sum
//     allowance = fixed + residual * residual_weight + spread * spread_weight
//
// is computed in single precision, one operation at a time as written, so that all kernels return
// the same bits. A row whose `lo` is a NaN has a NaN for a bound.
#pragma once

#include <cstdint>

namespace qx {

// How much of a code is read.
enum class CodeBits { kFour, kEight };

// The largest norms of the rows of a group, in steps of each row.
struct CodeNorms {
  float residual[2];  // by CodeBits; what the chain of the score may round is part of it
  float spread;
};

// Rows that share norms.
inline constexpr std::int64_t kCodeGroupRows = 32;

// Bytes that kernels may read after the last row of a plane.
inline constexpr std::int64_t kCodePadding = 64;

// Rows are coded up to this dimension: sums of products stay below 2^31 by far, and the levels of
// a query fit a scan's stack.
inline constexpr std::int64_t kMaxCodedDim = 8192;

// The bytes of a row in each plane.
constexpr std::int64_t code_row_bytes(std::int64_t dim) { return (dim + 1) / 2; }

// The constants of a row are two bfloat16 in one word: lo above step.
struct CodeView {
  const std::uint8_t* high;
  const std::uint8_t* low;
  const std::uint32_t* constants;  // one a row
  const CodeNorms* norms;          // one a group
  std::int64_t row_bytes;
};

struct CodedQuery {
  std::int64_t half_bytes;  // row_bytes, rounded up to a multiple of 64
  float factor;
  float query_sum;
  float fixed[2];  // by CodeBits
  float residual_weight;
  float spread_weight;
  // Those of components 0 to row_bytes - 1, zeros up to half_bytes; then the other components, and
  // zeros up to 2 * half_bytes.
  alignas(64) std::int8_t levels[kMaxCodedDim];
};

}  // namespace qx
