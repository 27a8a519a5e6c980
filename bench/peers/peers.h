// Other programs that do the library's work, on the same data and in one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "harness/data.h"
#include "harness/measure.h"

namespace bench {

// The exact search of a matrix by inner product. `search` finds the k best rows, and returns the
// best score for the check that all agree on it.
struct FlatPeer {
  const char* name;
  std::function<float(const float* query)> search;
};

FlatPeer faiss_flat(const Matrix& matrix, std::int64_t k);     // holds a copy
FlatPeer hnswlib_flat(const Matrix& matrix, std::int64_t k);   // holds a copy
FlatPeer openblas_flat(const Matrix& matrix, std::int64_t k);  // reads the matrix itself
FlatPeer fast_math(const Matrix& matrix, std::int64_t k);      // reads the matrix itself

// The library a second time, compiled with -mavx2 -mfma and on its portable kernel: what it does
// where the compiler may use these instructions, but no kernel was written for them.
FlatPeer flagged_engine(const Matrix& matrix, std::int64_t k);

// One row at a time: the plain loop of the numeric contract, one chain of fused multiply-adds after
// the other, compiled with -O3 -mavx2 -mfma, so that the fused step is an instruction.
FlatPeer one_row(const Matrix& matrix, std::int64_t k);
float score_one_row(const float* row, const float* query, std::int64_t dim);

// A program that searches a matrix, and what it stands for. One that adds in another order has
// scores that are close but not equal.
struct Other {
  FlatPeer (*make)(const Matrix& matrix, std::int64_t k);
  Role role;
  bool same_bits;
};
inline constexpr Other kPeers[] = {{faiss_flat, Role::kPeer, false},
                                   {hnswlib_flat, Role::kPeer, false},
                                   {openblas_flat, Role::kPeer, false},
                                   {fast_math, Role::kPeer, false}};

// One contestant a program. Each must find `best` for the first query.
void add_others(Contestants& contestants, std::span<const Other> others, const Matrix& matrix,
                Queries& queries, std::int64_t k, float best);

// Keeps every peer's libraries to one thread. Called once, before anything is timed.
void use_one_thread();

}  // namespace bench
