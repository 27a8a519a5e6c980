// Where rows are: from ids to base rows, from rows to vectors. Every room asks here; it knows
// nothing of visibility and of scores.
#pragma once

#include <cstdint>

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

// Calls visit(row) with the base row, or -1, of every key of a map that can be the id of one and
// that wanted(entry) says yes to. No branch depends on either, which are beyond prediction. There
// are base rows.
template <typename Wanted, typename Visit>
void for_each_base_row(const QxIndex& index, const Int64Map& map, Wanted&& wanted, Visit&& visit) {
  // So many loads are started together, into the second-level cache, which takes more of them at a
  // time than the first.
  constexpr std::int64_t kListed = 512;
  constexpr int kSecondLevel = 2;
  for (const Int64Map::Entry* next = map.begin(); next != map.end();) {
    std::int64_t ids[kListed];
    std::int64_t listed = 0;
    for (; next != map.end() && listed < kListed; ++next) {
      ids[listed] = next->key;
      listed += static_cast<std::int64_t>(wanted(*next)) &
                static_cast<std::int64_t>(has_slot(index, next->key));
    }
    for (std::int64_t i = 0; i < listed; ++i) {
      __builtin_prefetch(index.id_to_row + ids[i], 0, kSecondLevel);
    }
    for (std::int64_t i = 0; i < listed; ++i) visit(index.id_to_row[ids[i]]);
  }
}

// The base rows whose ids have another row behind them, ascending. There are base rows.
struct RowList {
  const std::int64_t* begin;
  const std::int64_t* end;
  bool empty() const { return begin == end; }
};
inline RowList superseded_rows(const QxIndex& index) {
  const std::int64_t* const count = index.id_to_row + index.max_base_id + 1;
  return {count + 1, count + 1 + *count};
}

inline const float* base_vector(const QxIndex& index, std::int64_t row) {
  return index.base_vectors + row * row_width(index);
}

// No component of a base vector is larger in magnitude; infinite if one is. The build leaves it
// behind the last vector; where vectors have no elements, it is 0.
inline float base_magnitude(const QxIndex& index) {
  const std::int64_t floats = index.n_base * row_width(index);
  return floats == 0 ? 0 : index.base_vectors[floats];
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
