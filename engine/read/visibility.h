// The visibility rule, stated once: which rows a current read sees.
//
//   An id is deleted if it has a tombstone whose value is not 0: an insert has lifted the others.
//   A delta row is visible unless its id is deleted.
//   A base row is visible unless its id is deleted or has a delta row, visible or not.
//   An id stands for its delta row, else for its base row (of duplicates, the last), if visible.
//
// Lookups are made in batches of up to kMaskRows ids. Each read has its own cursors.
#pragma once

#include "read/row_bitmap.h"
#include "read/row_span.h"

namespace qx {

class Visibility {
 public:
  explicit Visibility(const QxIndex& index) : index_(index) {}

  // Keys of the maps that hide rows. With none, every row is visible.
  std::int64_t changes() const { return index_.delta_pos.size() + index_.deleted_at.size(); }

  // The mask of the ids whose delta rows are hidden: those that are deleted.
  std::uint64_t hidden_delta_rows(const std::int64_t* ids, std::int64_t count);

  // The mask of the ids whose base rows are hidden.
  std::uint64_t hidden_base_rows(const std::int64_t* ids, std::int64_t count);

  // Clears the bit of every base row that is not visible, found from the changed ids. Of
  // duplicates, only the last row is right. Requires: there are base rows.
  void clear_hidden(RowBitmap& bitmap) const;

  // The visible row of each id. Returns the mask of the ids that have one.
  std::uint64_t find(const std::int64_t* ids, std::int64_t count, Row* rows);

 private:
  const QxIndex& index_;
  Int64Map::Cursor tombstones_;
  Int64Map::Cursor delta_rows_;
};

}  // namespace qx
