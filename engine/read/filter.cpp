#include "read/filter.h"

#include "store/base.h"
#include "store/metadata.h"
#include "support/bits.h"

namespace qx {
namespace {

// The map that the filter tests; null if there is none. Ends the process where a column is missing
// from the list of columns, which breaks an invariant. Requires: not every id passes.
const Int64Map* map_of(const QxIndex& index, const Filter& filter) {
  QX_ASSERT(!filter.passes_all());
  if (filter.mode == 1) return &index.row_labels;
  const bool exists = filter.column >= 0 && filter.column < index.meta_ncols;
  return exists ? &index.meta_columns.at(filter.column) : nullptr;
}

// If the value looked for is kMissing, ids without an entry pass, and the entries that fail are
// marked instead of those that pass.
bool marks_failing(const Filter& filter) { return filter.value == kMissing; }
bool is_marked(const Filter& filter, std::int64_t value) {
  return (value == filter.value) != marks_failing(filter);
}

// A sample of the entries of a map: at most a quarter of them are marked.
bool few_are_marked(const Int64Map& map, const Filter& filter) {
  constexpr std::int64_t kSample = 256;
  const std::int64_t step = std::max<std::int64_t>(map.size() / kSample, 1);
  std::int64_t marked = 0;
  for (std::int64_t i = 0; i < map.size(); i += step) {
    // Tuning: either answer finds the same rows.
    marked += is_marked(filter, map.begin()[i].value) ? 1 : 0;
  }
  // Tuning: either answer finds the same rows.
  return marked * step * 4 <= map.size();
}

// A sample of the base rows: entry i is that of row i. Walking along entries and ids together takes
// no longer, then, than going through all entries for each span, from so many on. Zen 4, search of
// the ten best at dim 64 or 128, speed against marking:
//   rows           20000  60000  130000  400000  1000000
//   1 % pass        0.79   0.81    0.82    1.06     1.83
//   10 % pass       0.96   1.20    1.13    1.21     1.28
bool is_walked_faster(const QxIndex& index, const Int64Map& map) {
  constexpr std::int64_t kMinEntries = RowBitmap::kMaxRows / 2;
  constexpr std::int64_t kSample = 16;
  if (map.size() < kMinEntries) return false;
  const std::int64_t rows = std::min(map.size(), index.n_base);
  const std::int64_t step = std::max<std::int64_t>(rows / kSample, 1);
  for (std::int64_t i = step - 1; i < rows; i += step) {
    // Tuning: either answer finds the same rows.
    if (map.begin()[i].key != index.base_ids[i]) return false;
  }
  return true;
}

}  // namespace

std::uint64_t _match(const QxIndex& index, const Filter& filter, const std::int64_t* ids,
                     std::int64_t count, Int64Map::Cursor& cursor) {
  if (filter.passes_all()) return first_bits(count);
  const Int64Map* const map = map_of(index, filter);
  if (map == nullptr) return 0;
  std::uint64_t mask = 0;
  if (const Int64Map::Entry* const next = map->take_next(ids, count, cursor)) {
    for (std::int64_t i = count; i-- > 0;)
      mask = 2 * mask + (next[i].value == filter.value ? 1 : 0);
    return mask;
  }
  std::int64_t values[Int64Map::kBatch];
  map->get_batch(ids, count, kMissing, values, cursor);
  for (std::int64_t i = 0; i < count; ++i) mask |= std::uint64_t{values[i] == filter.value} << i;
  return mask;
}

bool prefers_marking(const QxIndex& index, const Filter& filter) {
  // A column that is missing from the list ends the process when a row is asked about, not before.
  if (filter.mode != 1 && filter.column >= index.meta_columns.length) return false;
  const Int64Map* const map = map_of(index, filter);
  return map != nullptr && RowBitmap::is_worthwhile(map->size(), index.n_base) &&
         !is_walked_faster(index, *map) && few_are_marked(*map, filter);
}

void mark_passing(const QxIndex& index, const Filter& filter, std::int64_t first,
                  std::int64_t count, RowBitmap& bitmap) {
  const bool failing = marks_failing(filter);
  bitmap.reset(first, count, failing);
  for_each_base_row(
      index, *map_of(index, filter), [&](std::int64_t value) { return is_marked(filter, value); },
      [&](std::int64_t row) { failing ? bitmap.clear(row) : bitmap.set(row); });
}

}  // namespace qx
