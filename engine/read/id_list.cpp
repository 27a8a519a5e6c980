#include "read/id_list.h"

#include <algorithm>

#include "read/visibility.h"
#include "store/base.h"
#include "support/bits.h"

namespace qx {
namespace {

// True if ids[0..count) are the ids of base rows first..first+count, as in the lists of a base that
// was built in list order. The ids of rows are cheaper to compare than to look up.
bool are_consecutive_rows(const QxIndex& index, std::int64_t first, const std::int64_t* ids,
                          std::int64_t count) {
  return first >= 0 && count <= index.n_base - first && index.duplicate_rows.length == 0 &&
         std::equal(ids, ids + count, index.base_ids + first);
}

}  // namespace

void add_visible_rows(const QxIndex& index, const std::int64_t* ids, std::int64_t count,
                      Scan& scan) {
  Visibility visibility(index);
  for (std::int64_t first = 0; first < count; first += kMaskRows) {
    Row rows[kMaskRows];
    const std::int64_t batch = std::min(kMaskRows, count - first);
    const std::uint64_t found = visibility.find(ids + first, batch, rows);
    for_each_bit(found, [&](std::int64_t i) { scan.add(rows[i], ids[first + i]); });
  }
}

void add_base_rows(const QxIndex& index, const std::int64_t* ids, std::int64_t count, Scan& scan) {
  for (std::int64_t first = 0; first < count; first += kMaskRows) {
    const std::int64_t end = std::min(first + kMaskRows, count);
    const std::int64_t row = base_row_of(index, ids[first]);
    if (are_consecutive_rows(index, row, ids + first, end - first)) {
      scan.add_base_rows(row, end - first, ids + first);
      continue;
    }
    const std::int64_t next_end = std::min(end + kMaskRows, count);
    for (std::int64_t i = end; i < next_end; ++i) prefetch_base_row_of(index, ids[i]);
    for (std::int64_t i = first; i < end; ++i) {
      const std::int64_t listed = base_row_of(index, ids[i]);
      if (listed >= 0) scan.add(Row{false, listed}, ids[i]);
    }
  }
}

}  // namespace qx
