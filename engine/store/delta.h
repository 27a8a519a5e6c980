// The delta and the tombstones: inserts and deletes, and where delta rows are. It never looks at
// the base.
#pragma once

#include <cstdint>

#include "store/base.h"

namespace qx {

// The vector of a delta row. Null for vectors of no elements. Ends the process if the row is not
// wholly inside delta_vectors: a build may have raised the dimension since the row was inserted.
inline const float* delta_vector(const QxIndex& index, std::int64_t row) {
  const std::int64_t dim = dim_of(index);
  return dim == 0 ? nullptr : index.delta_vectors.range(row * dim, dim);
}

// Upserts n rows and lifts their tombstones. Requires: n >= 1.
void insert_rows(QxIndex& index, const float* vectors, const std::int64_t* ids, std::int64_t n);

// Writes a tombstone for each of n ids. Requires: n >= 1.
void delete_ids(QxIndex& index, const std::int64_t* ids, std::int64_t n);

}  // namespace qx
