// The delta and the tombstones: inserts and deletes, and from a row, of the delta or of the base,
// to its vector.
#pragma once

#include "store/base.h"

namespace qx {

// The vector of a delta row. Null for vectors of no elements. Ends the process if the row is not
// wholly inside delta_vectors: a build may have raised the dimension since the row was inserted.
inline const float* delta_vector(const QxIndex& index, std::int64_t row) {
  const std::int64_t dim = dim_of(index);
  return dim == 0 ? nullptr : index.delta_vectors.range(row * dim, dim);
}

// A row of the delta or of the base.
struct Row {
  bool in_delta;
  std::int64_t number;
};

// The vector of a row. Ends the process where delta_vector() does. `dim` is dim_of(), which is read
// once for many rows.
inline const float* vector_of(const QxIndex& index, Row row, std::int64_t dim) {
  return row.in_delta ? delta_vector(index, row.number) : index.base_vectors + row.number * dim;
}

// True if the rows of the delta have codes. Under another dimension those are of no use.
inline bool has_delta_codes(const QxIndex& index) {
  return index.delta_codes.rows > 0 && index.delta_codes.dim == dim_of(index);
}

// Upserts n rows and lifts their tombstones. Requires: n >= 1.
void insert_rows(QxIndex& index, const float* vectors, const std::int64_t* ids, std::int64_t n);

// Writes a tombstone for each of n ids. Requires: n >= 1.
void delete_ids(QxIndex& index, const std::int64_t* ids, std::int64_t n);

}  // namespace qx
