// Where rows are: from ids to base rows, from rows to vectors. Every room asks here; it knows
// nothing of visibility and of scores.
#pragma once

#include <cstdint>
#include <cstring>

#include "qx_index.h"

namespace qx {

// The number of floats in a vector.
inline std::int64_t row_width(const QxIndex& index) {
  const auto dim = static_cast<std::int32_t>(index.dim);
  return dim < 1 ? 0 : dim;
}

// Whether an id is within id_to_row.
inline bool has_slot(const QxIndex& index, std::int64_t id) {
  return static_cast<std::uint64_t>(id) < static_cast<std::uint64_t>(index.max_base_id + 1);
}

// The base row of an id, or -1.
inline std::int64_t base_row_of(const QxIndex& index, std::int64_t id) {
  return has_slot(index, id) ? index.id_to_row[id] : -1;
}

// Starts to load what base_row_of() will read.
inline void prefetch_base_row_of(const QxIndex& index, std::int64_t id) {
  if (has_slot(index, id)) __builtin_prefetch(index.id_to_row + id);
}

inline const float* base_vector(const QxIndex& index, std::int64_t row) {
  return index.base_vectors + row * row_width(index);
}

// What the build learned of the base; nothing of vectors of no elements.
inline BaseFacts base_facts(const QxIndex& index) {
  const std::int64_t floats = index.n_base * row_width(index);
  BaseFacts facts{0, 0};
  if (floats > 0) std::memcpy(&facts, index.base_vectors + floats, sizeof(facts));
  return facts;
}

// The vector of a delta row, wholly inside delta_vectors or the process ends: a build may have
// changed the dimension since the row was inserted. Null for vectors of no elements.
inline float* delta_vector(QxIndex& index, std::int64_t row) {
  const std::int64_t width = row_width(index);
  return width == 0 ? nullptr : index.delta_vectors.range(row * width, width);
}
inline const float* delta_vector(const QxIndex& index, std::int64_t row) {
  return delta_vector(const_cast<QxIndex&>(index), row);
}

}  // namespace qx
