// Rows as the inner functions of the kernels see them, and the way in which a kernel makes any
// number of rows fit a function for a fixed one.
//
// Nothing here is compiled for more than the baseline, so it does not matter which kernel's copy
// the linker keeps.
#pragma once

#include "kernels/kernels.h"
#include "support/compiler.h"

namespace qx {

// Rows at equal distances.
struct ContiguousRows {
  const float* first;
  std::int64_t distance;
  const float* row(std::int64_t i) const { return first + i * distance; }
  ContiguousRows from(std::int64_t i) const { return {row(i), distance}; }
};

// Rows anywhere.
struct ScatteredRows {
  const float* const* rows;
  const float* row(std::int64_t i) const { return rows[i]; }
  ScatteredRows from(std::int64_t i) const { return {rows + i}; }
};

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

// The same for any number of rows, group by group.
template <std::int64_t GroupRows, auto score_group, typename Rows>
void score_in_groups(const Rows& rows, std::int64_t count, std::int64_t dim, const float* query,
                     float* scores) {
  for (std::int64_t i = 0; i < count; i += GroupRows) {
    const std::int64_t size = count - i < GroupRows ? count - i : GroupRows;
    score_padded<GroupRows, score_group>(rows.from(i), size, dim, query, scores + i);
  }
}

}  // namespace qx
