// The one visibility rule and the one walk: which rows a current read sees, and in which order.
#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>

#include "kernels/kernels.h"
#include "qx_index.h"
#include "row_set.h"
#include "rows.h"
#include "support/bits.h"

namespace qx {

// Rows are judged up to this many at a time, one bit of a mask for each.
inline constexpr std::int64_t kBlock = Int64Map::kBatch;
static_assert(kBlock == 64);

// Consecutive rows of one generation with their ids, and which of them a read sees.
struct RowBlock {
  bool in_delta;
  std::int64_t first;  // the row of bit 0
  std::int64_t count;  // 1 to kBlock
  const std::int64_t* ids;
  std::uint64_t visible;
};

inline const float* vector_of(const QxIndex& index, bool in_delta, std::int64_t row) {
  return in_delta ? delta_vector(index, row) : base_vector(index, row);
}

// Copies the ids that a mask selects, in order, and returns how many they are.
inline std::int64_t copy_selected(const std::int64_t* ids, std::uint64_t mask, std::int64_t* out) {
  const std::int64_t selected = count_bits(mask);
  if (selected == kBlock) {
    std::copy_n(ids, kBlock, out);
  } else if (selected * 4 < kBlock) {
    for_each_bit(mask, [&](std::int64_t i) { *out++ = ids[i]; });
  } else {
    kernels().copy_selected(ids, mask, selected, out);
  }
  return selected;
}

// The lookups behind the visibility rule, for ids in blocks. The blocks of one walk share an
// object: what a block finds tells where the next block may be found.
class Changes {
 public:
  explicit Changes(const QxIndex& index) : index_(index) {}

  // Which ids are deleted. A tombstone counts whatever its value, except 0: an insert has lifted
  // that one.
  std::uint64_t deleted(const std::int64_t* ids, std::int64_t count) {
    if (index_.deleted_at.size() == 0) return 0;
    std::int64_t stamps[kBlock];
    index_.deleted_at.get_batch(ids, count, 0, stamps, tombstone_guess_);
    std::uint64_t mask = 0;
    for (std::int64_t i = 0; i < count; ++i) mask |= std::uint64_t{stamps[i] != 0} << i;
    return mask;
  }

  // The delta row of each id, or -1.
  void delta_rows(const std::int64_t* ids, std::int64_t count, std::int64_t* rows) {
    index_.delta_pos.get_batch(ids, count, -1, rows, delta_guess_);
  }

  // Which ids hide their base rows: a base row gives way to any delta row of its id, and to a
  // tombstone. A delta row gives way to a tombstone alone.
  std::uint64_t hide_base_rows(const std::int64_t* ids, std::int64_t count) {
    std::int64_t rows[kBlock];
    delta_rows(ids, count, rows);
    std::uint64_t mask = 0;
    for (std::int64_t i = 0; i < count; ++i) mask |= std::uint64_t{rows[i] >= 0} << i;
    return mask | deleted(ids, count);
  }

  // The same, said the other way round: takes the base rows of all ids that hide them out of a set;
  // where an id has several base rows, only the last.
  void remove_hidden(RowSet& rows) const {
    const auto remove = [&](std::int64_t row) { rows.remove(row); };
    const auto has_row = [](const Int64Map::Entry& entry) { return entry.value >= 0; };
    const auto counts = [](const Int64Map::Entry& entry) { return entry.value != 0; };
    for_each_base_row(index_, index_.delta_pos, has_row, remove);
    for_each_base_row(index_, index_.deleted_at, counts, remove);
  }

 private:
  const QxIndex& index_;
  std::int64_t tombstone_guess_ = 0;
  std::int64_t delta_guess_ = 0;
};

// A walk may have a test besides visibility, which looks at ids alone. It says
//   _match(ids, count)      which of up to kBlock ids pass;
//   pays_ahead(index)       whether to mark the base rows that pass before the walk comes to them;
//   mark(index, rows, first, count)  makes the set that of the passing ones among these base rows;
//                           where an id has several base rows, the last must be right.
// This one passes every id.
struct EveryId {
  std::uint64_t _match(const std::int64_t*, std::int64_t count) { return first_bits(count); }
  bool pays_ahead(const QxIndex&) const { return false; }
  void mark(const QxIndex&, RowSet& rows, std::int64_t first, std::int64_t count) const {
    rows.reset(first, count, true);
  }
};

// How a walk finds out about base rows: by marking rows in a set ahead, or by asking for each
// block.
struct Plan {
  bool mark_hidden;
  bool ask_hidden;
  bool mark_passing;
  bool ask_passing;
};

// Asks for a block what no set knows.
template <typename Test>
void ask_about(const Plan& plan, Changes& lookups, Test& test, RowBlock& block) {
  if (plan.ask_hidden) block.visible &= ~lookups.hide_base_rows(block.ids, block.count);
  if (plan.ask_passing && block.visible != 0) block.visible &= test._match(block.ids, block.count);
}

// Calls visit(block) for the blocks of rows `first` to `end` - 1, after judge(block) has taken the
// rows that are not visible.
template <typename Judge, typename Visit>
void walk_blocks(const std::int64_t* ids, std::int64_t first, std::int64_t end, bool in_delta,
                 Judge&& judge, Visit&& visit) {
  for (; first < end; first += kBlock) {
    const std::int64_t size = std::min(kBlock, end - first);
    RowBlock block{in_delta, first, size, ids + first, first_bits(size)};
    judge(block);
    visit(std::as_const(block));
  }
}

// Marking goes from ids to rows and finds the last row of an id. This puts right the others among
// rows `first` to `first + count - 1`.
template <typename Test>
void mark_superseded(const QxIndex& index, const Plan& plan, Changes& lookups, Test& test,
                     RowSet& rows, std::int64_t first, std::int64_t count) {
  const RowList all = superseded_rows(index);
  const std::int64_t* next = std::lower_bound(all.begin, all.end, first);
  const std::int64_t* const end = std::lower_bound(next, all.end, first + count);
  while (next != end) {
    const std::int64_t size = std::min<std::int64_t>(kBlock, end - next);
    std::int64_t ids[kBlock];
    for (std::int64_t i = 0; i < size; ++i) ids[i] = index.base_ids[next[i]];
    std::uint64_t marked = first_bits(size);
    if (plan.mark_hidden) marked &= ~lookups.hide_base_rows(ids, size);
    if (plan.mark_passing) marked &= test._match(ids, size);
    for (std::int64_t i = 0; i < size; ++i) {
      rows.remove(next[i]);
      if (((marked >> i) & 1) != 0) rows.add(next[i]);
    }
    next += size;
  }
}

// The base part of a walk by way of a set. Not inlined: no walk that can do without the set has to
// carry its stack.
template <typename Test, typename Visit>
[[gnu::noinline]] void walk_base_by_set(const QxIndex& index, const Plan& plan, Changes& lookups,
                                        Test& test, Visit&& visit) {
  RowSet rows;
  const auto judge = [&](RowBlock& block) {
    block.visible &= rows.block(block.first);
    if (block.visible != 0) ask_about(plan, lookups, test, block);
  };
  for (std::int64_t first = 0; first < index.n_base; first += RowSet::kMostRows) {
    const std::int64_t count = std::min(RowSet::kMostRows, index.n_base - first);
    if (plan.mark_passing) {
      test.mark(index, rows, first, count);
    } else {
      rows.reset(first, count, true);
    }
    if (plan.mark_hidden) lookups.remove_hidden(rows);
    mark_superseded(index, plan, lookups, test, rows, first, count);
    walk_blocks(index.base_ids, first, first + count, false, judge, visit);
  }
}

// Calls visit(RowBlock) for all rows, visible or not: delta rows in delta order, then base rows in
// base order. To a walk with a test, a row that fails it is not visible.
template <typename Test, typename Visit>
void walk_rows(const QxIndex& index, Test&& test, Visit&& visit) {
  Changes lookups(index);
  const auto judge_delta = [&](RowBlock& block) {
    block.visible &= ~lookups.deleted(block.ids, block.count);
    if (block.visible != 0) block.visible &= test._match(block.ids, block.count);
  };
  walk_blocks(index.delta_ids.data, 0, index.delta_ids.length, true, judge_delta, visit);

  const std::int64_t changes = index.delta_pos.size() + index.deleted_at.size();
  const bool mark_hidden = changes > 0 && RowSet::pays(changes, index.n_base);
  const bool mark_passing = test.pays_ahead(index);
  const Plan plan = {mark_hidden, changes > 0 && !mark_hidden, mark_passing, !mark_passing};
  if (mark_hidden || mark_passing) {
    walk_base_by_set(index, plan, lookups, test, visit);
  } else {
    const auto judge = [&](RowBlock& block) { ask_about(plan, lookups, test, block); };
    walk_blocks(index.base_ids, 0, index.n_base, false, judge, visit);
  }
}

// Finds the visible row of each id: its delta row, else the base row found by id. Writes generation
// and row of those that have one, and says which do.
struct FoundRow {
  bool in_delta;
  std::int64_t row;
};
inline std::uint64_t find_visible(const QxIndex& index, Changes& lookups, const std::int64_t* ids,
                                  std::int64_t count, FoundRow* found) {
  std::int64_t rows[kBlock];
  for (std::int64_t i = 0; i < count; ++i) prefetch_base_row_of(index, ids[i]);
  lookups.delta_rows(ids, count, rows);
  std::uint64_t visible = 0;
  for (std::int64_t i = 0; i < count; ++i) {
    const bool in_delta = rows[i] >= 0;
    found[i] = {in_delta, in_delta ? rows[i] : base_row_of(index, ids[i])};
    visible |= std::uint64_t{found[i].row >= 0} << i;
  }
  return visible & ~lookups.deleted(ids, count);
}

}  // namespace qx
