// Which rows a current read takes, in walk order: the delta rows in delta order, then the base rows
// in base order, span by span. How it finds out is decided here. It knows nothing of vectors.
#pragma once

#include <cstdint>

#include "read/filter.h"
#include "read/row_bitmap.h"
#include "read/visibility.h"

namespace qx {

// Use: while (selection.next()) read(selection). Takes 64 KiB of stack.
class Selection {
 public:
  // Of the visible rows that pass the filter.
  Selection(const QxIndex& index, const Filter& filter);

  // Moves to the next span. Returns false after the last one.
  bool next();

  // The span: its rows, and their ids.
  bool in_delta() const { return in_delta_; }
  std::int64_t first() const { return first_; }
  std::int64_t count() const { return count_; }
  const std::int64_t* ids() const { return all_ids_ + first_; }

  // The mask of kMaskRows rows of the span, or fewer at its end. Requires: offset is a multiple of
  // kMaskRows.
  std::uint64_t mask(std::int64_t offset) const {
    return first_bits_of(offset) & (takes_all_ ? ~std::uint64_t{0} : bitmap_.mask(offset));
  }

 private:
  // How base rows are tested: not at all, by bits marked from ids, or by a lookup for each row.
  enum class Test { kNone, kMarked, kLookup };

  bool has_marks() const { return hidden_ == Test::kMarked || passing_ == Test::kMarked; }
  void enter_base();
  void select();
  void apply_lookups();
  void recompute_duplicates();
  std::uint64_t first_bits_of(std::int64_t offset) const {
    const std::int64_t rows = count_ - offset;
    return ~std::uint64_t{0} >> (rows < kMaskRows ? kMaskRows - rows : 0);
  }

  const QxIndex& index_;
  Filter filter_;
  Visibility visibility_;
  Int64Map::Cursor metadata_;
  Test hidden_ = Test::kLookup;
  Test passing_ = Test::kLookup;

  bool in_delta_ = true;
  bool takes_all_ = false;
  const std::int64_t* all_ids_;
  std::int64_t rows_;       // of the delta, or of the base
  std::int64_t span_rows_;  // at most
  std::int64_t first_ = 0;
  std::int64_t count_ = 0;
  RowBitmap bitmap_;
};

}  // namespace qx
