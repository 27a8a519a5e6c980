// One row at a time: the plain loop of the numeric contract, one chain of fused multiply-adds after
// the other. one_row.cpp is compiled with -O3 -mavx2 -mfma, so that the fused step is an
// instruction.
#pragma once

#include <cstdint>

#include "peers/flat.h"
#include "peers/selection.h"

namespace bench {

// The best score of all rows: scored one row at a time.
float scan_one_row(const Matrix& matrix, const float* query, std::int64_t k);

// The score of one row.
float score_one_row(const float* row, const float* query, std::int64_t dim);

// The best score among listed ids, each looked up and scored when its turn comes. vector_of(id) is
// the vector of an id, or null for an id that is skipped.
template <typename VectorOf>
float search_one_row(VectorOf&& vector_of, const std::int64_t* ids, std::int64_t count,
                     std::int64_t dim, const float* query, std::int64_t k) {
  Selection best(k);
  for (std::int64_t i = 0; i < count; ++i) {
    const float* const row = vector_of(ids[i]);
    if (row == nullptr) continue;
    const float score = score_one_row(row, query, dim);
    best.offer(&score, i, 1);
  }
  return best.best();
}

}  // namespace bench
