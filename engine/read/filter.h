// The filter of a read: a test on the metadata of an id, stated once. It knows nothing of rows'
// visibility and of vectors.
#pragma once

#include "read/row_bitmap.h"
#include "store/qx_index.h"

namespace qx {

// As the host gives it. Mode 0 passes every id, mode 1 those whose label equals `value`, any other
// mode those whose value in `column` does. A missing label or value is kMissing; a column that does
// not exist passes nothing.
struct Filter {
  std::uint32_t mode;
  std::int32_t column;
  std::int64_t value;

  bool passes_all() const { return mode == 0; }
};
inline constexpr Filter kNoFilter = {0, 0, 0};

// The mask of the ids that pass. `cursor` belongs to one read. The name is the one that this
// routine has always had. Requires: 1 <= count <= Int64Map::kBatch.
std::uint64_t _match(const QxIndex& index, const Filter& filter, const std::int64_t* ids,
                     std::int64_t count, Int64Map::Cursor& cursor);

// True if mark_passing() is cheaper than _match() for every base row: few rows pass, or few fail,
// unless much metadata came in the order of the rows. Requires: not every id passes.
bool prefers_marking(const QxIndex& index, const Filter& filter);

// Covers `count` base rows from `first` on by a bitmap of those whose ids pass, found from the
// metadata. Of duplicates, only the last row is right. Requires: prefers_marking().
void mark_passing(const QxIndex& index, const Filter& filter, std::int64_t first,
                  std::int64_t count, RowBitmap& bitmap);

}  // namespace qx
