// The one visibility rule and the one walk: which rows a current read sees, and in which order.
#pragma once

#include <cstdint>

#include "qx_index.h"
#include "rows.h"

namespace qx {

// A row of either generation and the id that it carries.
struct RowRef {
  std::int64_t id;
  std::int64_t row;
  bool in_delta;
};

inline const float* vector_of(const QxIndex& index, const RowRef& ref) {
  return ref.in_delta ? delta_vector(index, ref.row) : base_vector(index, ref.row);
}

// A tombstone counts whatever its value, except 0: an insert has lifted that one.
inline bool is_deleted(const QxIndex& index, std::int64_t id) {
  return index.deleted_at.get(id, 0) != 0;
}

// A row is visible unless its id is deleted; a base row also gives way to any delta row of its id.
inline bool is_visible(const QxIndex& index, const RowRef& ref) {
  if (!ref.in_delta && index.delta_pos.contains(ref.id)) return false;
  return !is_deleted(index, ref.id);
}

// Finds the visible row that an id stands for: its delta row, else the base row found by id.
inline bool find_visible(const QxIndex& index, std::int64_t id, RowRef* found) {
  if (is_deleted(index, id)) return false;
  if (const std::int64_t* const row = index.delta_pos.find(id)) {
    *found = {id, *row, true};
  } else {
    *found = {id, base_row_of(index, id), false};
  }
  return found->row >= 0;
}

// Calls visit(RowRef) for every visible row: delta rows in delta order, then base rows in base
// order.
template <typename Visit>
void walk_visible(const QxIndex& index, Visit&& visit) {
  for (std::int64_t p = 0; p < index.delta_ids.length; ++p) {
    const RowRef ref{index.delta_ids.at(p), p, true};
    if (is_visible(index, ref)) visit(ref);
  }
  for (std::int64_t r = 0; r < index.n_base; ++r) {
    const RowRef ref{index.base_ids[r], r, false};
    if (is_visible(index, ref)) visit(ref);
  }
}

}  // namespace qx
