// The steps of a kernel that transposes rows: the same for every instruction set.
//
// A Transposition has
//   load_columns(rows, at)              the columns `at` to `at + kStep - 1` of a group of rows
//   load_column(rows, at)               the column `at`
//   add_column(column, factor, sums)    sums + column * *factor, rounded once
// where `sums` is a register with the sum of one row in each lane, and load_columns must not be
// called for rows that are shorter than at + kStep.
#pragma once

#include <cstdint>

#include "kernels/target.h"

// A template has the attributes of one instruction set. Each CPU family has one that transposes.
#if defined(__x86_64__)
#define QX_STEP_INLINE QX_AVX2_INLINE
#else
#define QX_STEP_INLINE __attribute__((always_inline)) inline
#endif

namespace qx {

// Columns that a transposition turns at a time.
inline constexpr std::int64_t kStep = 4;

// Adds the columns from `at + used` to `at + kStep - 1`. Requires: at + kStep <= dim.
template <typename Transposition, typename Rows, typename Sums>
QX_STEP_INLINE Sums add_columns(const Rows& rows, std::int64_t at, std::int64_t used,
                                const float* query, Sums sums) {
  const auto columns = Transposition::load_columns(rows, at);
  for (std::int64_t c = used; c < kStep; ++c) {
    sums = Transposition::add_column(columns.column[c], query + at + c, sums);
  }
  return sums;
}

// Finishes a group of rows from column `at`. Nothing is read past a row: the columns are taken from
// the row's last kStep, of which the first have been used already; those of shorter rows are loaded
// one by one. Requires: dim - at < kStep.
template <typename Transposition, typename Rows, typename Sums>
QX_STEP_INLINE Sums add_rest(const Rows& rows, std::int64_t at, std::int64_t dim,
                             const float* query, Sums sums) {
  if (at == dim) return sums;
  if (dim >= kStep) {
    const std::int64_t last = dim - kStep;
    return add_columns<Transposition>(rows, last, at - last, query, sums);
  }
  for (; at < dim; ++at) {
    sums = Transposition::add_column(Transposition::load_column(rows, at), query + at, sums);
  }
  return sums;
}

}  // namespace qx
