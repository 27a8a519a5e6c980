// The sealed base: its build, where its rows are, and which row an id has. It knows nothing of
// visibility, metadata and scores.
#pragma once

#include "store/qx_index.h"

namespace qx {

// The number of floats in a vector.
inline std::int64_t dim_of(const QxIndex& index) {
  const auto dim = static_cast<std::int32_t>(index.dim);
  return dim < 1 ? 0 : dim;
}

// True if an id is within id_to_row.
inline bool may_have_base_row(const QxIndex& index, std::int64_t id) {
  return static_cast<std::uint64_t>(id) < static_cast<std::uint64_t>(index.max_base_id + 1);
}

// The base row of an id, or -1. Of duplicates, it is the last row.
inline std::int64_t base_row_of(const QxIndex& index, std::int64_t id) {
  return may_have_base_row(index, id) ? index.id_to_row[id] : -1;
}

// Prefetches what base_row_of() reads.
inline void prefetch_base_row_of(const QxIndex& index, std::int64_t id) {
  if (may_have_base_row(index, id)) __builtin_prefetch(index.id_to_row + id);
}

inline const float* base_vector(const QxIndex& index, std::int64_t row) {
  return index.base_vectors + row * dim_of(index);
}

// What a host hands over to be sealed.
struct BaseInput {
  const float* vectors;
  std::int64_t n;
  std::int32_t dim;
  const std::int64_t* ids;
  const std::int64_t* part_keys;
  const std::int32_t* part_starts;
  const std::int32_t* part_sizes;
  std::int32_t n_parts;
};

// Replaces the base. Returns false, with nothing changed, if a limit is exceeded or an id is
// negative. The arrays of an earlier base stay allocated, as the header tells the host.
bool build_base(QxIndex& index, const BaseInput& input);

// The partition of a key, or -1. Of equal keys, binary search decides, which is part of the
// contract.
std::int32_t find_partition(const QxIndex& index, std::int64_t key);

}  // namespace qx
