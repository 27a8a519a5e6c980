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

#include <cstdint>

namespace qx {

// Where the rows of a scan come from: the first two levels of cache, the last one, or memory.
enum class Reach { kNear, kFar, kMemory };

struct Kernels {
  const char* name;

  // Whether this CPU and its operating system can run the functions below.
  bool (*supported)();

  // Scores `count` rows that lie one after the other: row i starts at rows + i * dim. They are part
  // of a scan whose rows are as near as `reach` says, and what follows them in memory is next; that
  // changes the speed and nothing else.
  void (*score_contiguous)(const float* rows, std::int64_t count, std::int64_t dim,
                           const float* query, Reach reach, float* scores);

  // Scores `count` rows that lie anywhere: row i starts at rows[i].
  void (*score_scattered)(const float* const* rows, std::int64_t count, std::int64_t dim,
                          const float* query, float* scores);

  // Estimates the scores of rows that lie one after the other; faster if the query begins at a
  // cache line.
  void (*estimate_contiguous)(const float* rows, std::int64_t count, std::int64_t dim,
                              const float* query, Reach reach, float* estimates);

  // Estimates the scores of rows that lie anywhere.
  void (*estimate_scattered)(const float* const* rows, std::int64_t count, std::int64_t dim,
                             const float* query, float* estimates);

  // Compares up to 64 numbers with a limit: bit i of the result says that numbers[i] is not below
  // it. A NaN is not.
  std::uint64_t (*not_below)(const float* numbers, std::int64_t count, float limit);

  // Copies number i of up to 64 for each bit i of `mask`, in order, one behind the other. The mask
  // has `selected` bits. Numbers behind the last selected one are not read.
  void (*copy_selected)(const std::int64_t* numbers, std::uint64_t mask, std::int64_t selected,
                        std::int64_t* out);
};
// For every function: count >= 0 and dim >= 0. With dim 0 no row and no query is read, and every
// score is +0.0.

extern const Kernels kPortableKernels;
#if defined(__x86_64__)
extern const Kernels kAvx2Kernels;
extern const Kernels kAvx512Kernels;
#elif defined(__aarch64__)
extern const Kernels kNeonKernels;
#endif

// The kernels that the engine calls: the best that run here, unless a test forced others.
const Kernels& kernels();

// Every kernel of this build, best first, ended by null.
const Kernels* const* all_kernels();

// Makes the engine call the named kernels from now on; null returns the choice to the CPU. Returns
// false, and changes nothing, for a name that is unknown or does not run here. For tests and
// benchmarks: it must not overlap any other call of the library.
bool force_kernels(const char* name);

}  // namespace qx
