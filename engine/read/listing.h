// What a selection shows without scores: its ids, their number, and copies of its rows.
#pragma once

#include "read/selection.h"

namespace qx {

// Each goes through the visible rows that pass the filter, in walk order, and returns their number.
std::int64_t count_rows(const QxIndex& index, const Filter& filter);
std::int64_t list_ids(const QxIndex& index, const Filter& filter, std::int64_t* out_ids);
std::int64_t copy_rows(const QxIndex& index, const Filter& filter, float* out_vectors,
                       std::int64_t* out_ids);

}  // namespace qx
