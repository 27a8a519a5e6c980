// The numeric contract, and the table of functions that keep it.
//
// The score of a row is one chain of single-precision fused multiply-adds over its components in
// order, from +0.0:
//
//     s = +0.0;  for j = 0 .. dim - 1:  s = fma(row[j], query[j], s)
//
// That fixes every bit, so all kernels return the same bits for every input. Only the payload of a
// NaN may differ, and no NaN enters a result. Speed comes from scoring many rows at once, one row
// per SIMD lane; a row is never split.
//
// An estimate of a score is the sum of the same products, but added in any order, in as many chains
// as suit the CPU, and rounded wherever that falls. So it needs no transposition, and is as fast as
// memory; its bits differ from kernel to kernel and reach no result. With a the sum of the
// products' magnitudes, e = 2^-24 and dim * e < 1, both the score and the estimate are within
//
//     a * dim * e / (1 - dim * e) + dim * 2^-126
//
// of the exact product, provided that twice a is finite. The estimate of a row that holds a NaN is
// a NaN; with infinities in the row or the query, or an overflow, it may be anything.
//
// A kernel knows rows, a query and scores, or numbers and bits. It knows no ids, no deletes and no
// index. It reads no element outside of what it is given (it may prefetch beyond, which reads
// nothing), and writes exactly the given scores and numbers.
#pragma once

#include "kernels/codes.h"

namespace qx {

// Where a scan finds its rows. It changes the speed of a kernel and nothing else.
enum class CacheLevel { kL2, kL3, kMemory };

// The types of the functions of a kernel; struct Kernels says what each function does.
using SupportedFunction = bool();
using ContiguousFunction = void(const float* rows, std::int64_t count, std::int64_t dim,
                                const float* query, CacheLevel level, float* values);
using ScatteredFunction = void(const float* const* rows, std::int64_t count, std::int64_t dim,
                               const float* query, float* values);
using MaskFunction = std::uint64_t(const float* numbers, std::int64_t count, float limit);
using CodeFunction = void(const float* rows, std::int64_t count, std::int64_t dim,
                          std::uint8_t* high, std::uint8_t* low, std::uint32_t* constants,
                          CodeNorms* norms);
using BoundContiguousFunction = void(const CodeView& codes, std::int64_t first, std::int64_t count,
                                     const CodedQuery& query, CodeBits bits, float* bounds);
using BoundScatteredFunction = void(const CodeView& codes, const std::int64_t* rows,
                                    std::int64_t count, const CodedQuery& query, CodeBits bits,
                                    float* bounds);
using CompressFunction = void(const std::int64_t* numbers, std::uint64_t mask,
                              std::int64_t selected, std::int64_t* out);

// Requires, for every function: count >= 0 and dim >= 0. With dim 0 no row and no query is read,
// and every score is +0.0.
struct Kernels {
  const char* name;

  // True if this CPU and its operating system can run the functions below.
  SupportedFunction* supported;

  // Scores contiguous rows: row i starts at rows + i * dim. `level` is that of the whole scan, of
  // which these rows are a part; the next part follows them in memory.
  ContiguousFunction* score_contiguous = nullptr;

  // Scores scattered rows: row i starts at rows[i].
  ScatteredFunction* score_scattered = nullptr;

  // Estimates the scores of contiguous rows. Faster if the query is aligned to a cache line.
  ContiguousFunction* estimate_contiguous = nullptr;

  // Estimates the scores of scattered rows.
  ScatteredFunction* estimate_scattered = nullptr;

  // Sets bit i unless numbers[i] < limit; so a NaN sets it. Requires: count <= 64.
  MaskFunction* mask_not_less = nullptr;

  // Copies number i for each bit i of `mask` to `out`, in order and without gaps. Reads no number
  // after the last selected one. Requires: `mask` has `selected` bits.
  CompressFunction* compress = nullptr;

  // Codes contiguous rows: their bytes in both planes, a word and the norms for each row. Requires:
  // 1 <= dim <= kMaxCodedDim.
  CodeFunction* code_rows = nullptr;

  // Bounds the scores of rows `first` to `first + count - 1`. The same bits by every kernel.
  BoundContiguousFunction* bound_contiguous = nullptr;

  // Bounds the scores of the rows that are listed.
  BoundScatteredFunction* bound_scattered = nullptr;

  // Tuning: from how many floats of a scan on, and from which dimension, its bounds save time.
  std::int64_t min_bounded_floats = 0;
  std::int64_t min_bounded_dim = 0;
};

// The kernels that the engine calls: the best that run here, unless a test forced others.
const Kernels& kernels();

// Every kernel of this build, best first, ended by null. Each table is complete.
const Kernels* const* all_kernels();

// Makes the engine call the named kernels from now on; null returns the choice to the CPU. Returns
// false, and changes nothing, for a name that is unknown or does not run here. For tests and
// benchmarks. Requires: no other call of the library at the same time.
bool force_kernels(const char* name);

}  // namespace qx
