// Rows as the inner functions of the kernels see them, and the two ways in which a kernel makes
// other rows fit a function: by listing addresses, and by filling a group.
//
// Nothing here is compiled for more than the baseline, so it does not matter which kernel's copy
// the linker keeps.
#pragma once

#include <cstdint>

#include "kernels/kernels.h"

namespace qx {

// Rows at equal distances.
struct ContiguousRows {
  const float* first;
  std::int64_t distance;
  const float* row(std::int64_t i) const { return first + i * distance; }
};

// Rows anywhere.
struct ScatteredRows {
  const float* const* rows;
  const float* row(std::int64_t i) const { return rows[i]; }
};

// Hands contiguous rows to `kernel`, a function for scattered rows, in chunks of ChunkRows.
template <std::int64_t ChunkRows, ScatteredFunction* kernel>
void by_address(const float* rows, std::int64_t count, std::int64_t dim, const float* query,
                float* values) {
  for (std::int64_t first = 0; first < count; first += ChunkRows) {
    const float* chunk[ChunkRows];
    const std::int64_t size = count - first < ChunkRows ? count - first : ChunkRows;
    for (std::int64_t i = 0; i < size; ++i) chunk[i] = rows + (first + i) * dim;
    kernel(chunk, size, dim, query, values + first);
  }
}

// Scores `count` rows by `score_group`, which takes GroupRows addresses: the last row fills the
// group up, and its extra scores are dropped. Requires: 1 <= count <= GroupRows.
template <std::int64_t GroupRows, auto score_group, typename Rows>
void score_padded(const Rows& rows, std::int64_t count, std::int64_t dim, const float* query,
                  float* scores) {
  const float* padded[GroupRows];
  float group_scores[GroupRows];
  for (std::int64_t i = 0; i < GroupRows; ++i) padded[i] = rows.row(i < count ? i : count - 1);
  score_group(padded, dim, query, group_scores);
  for (std::int64_t i = 0; i < count; ++i) scores[i] = group_scores[i];
}

}  // namespace qx
