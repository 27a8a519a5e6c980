// Consecutive rows of one place, and which of them a read takes. It knows nothing of why, nor of
// vectors.
#pragma once

#include <algorithm>

#include "store/delta.h"
#include "support/bits.h"

namespace qx {

// Rows that one mask has a bit for.
inline constexpr std::int64_t kMaskRows = Int64Map::kBatch;
static_assert(kMaskRows == 64);

class RowSpan {
 public:
  // `count` rows from `first` on, with the ids to report for them. Bit i % 64 of words[i / 64]
  // selects row i, and bits past the span have no meaning; null selects every row.
  RowSpan(Row first, std::int64_t count, const std::int64_t* ids, const std::uint64_t* words)
      : first_(first), count_(count), ids_(ids), words_(words) {}

  bool in_delta() const { return first_.in_delta; }
  std::int64_t count() const { return count_; }
  Row row(std::int64_t i) const { return {first_.in_delta, first_.number + i}; }
  const std::int64_t* ids() const { return ids_; }

  // The mask of kMaskRows rows of the span, or fewer at its end. Requires: offset is a multiple of
  // kMaskRows.
  std::uint64_t mask(std::int64_t offset) const {
    const std::uint64_t rows = first_bits(std::min(kMaskRows, count_ - offset));
    return words_ == nullptr ? rows : rows & words_[offset / kMaskRows];
  }

  // How many of `count` rows from `offset` on are selected. Requires the same.
  std::int64_t count_selected(std::int64_t offset, std::int64_t count) const {
    std::int64_t selected = 0;
    for (std::int64_t i = 0; i < count; i += kMaskRows) selected += count_bits(mask(offset + i));
    return selected;
  }

  // Calls visit(i) for each of them, with its place i in the span. Requires the same.
  template <typename Visit>
  void for_each_row(std::int64_t offset, std::int64_t count, Visit visit) const {
    for (std::int64_t first = offset; first < offset + count; first += kMaskRows) {
      for_each_bit(mask(first), [&](std::int64_t i) { visit(first + i); });
    }
  }

 private:
  Row first_;
  std::int64_t count_;
  const std::int64_t* ids_;
  const std::uint64_t* words_;
};

}  // namespace qx
