// The one visibility rule and the one walk: which rows a current read sees, and in which order.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>

#include "hidden_ids.h"
#include "qx_index.h"
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

  bool whole() const { return visible == first_bits(count); }
};

inline const float* vector_of(const QxIndex& index, bool in_delta, std::int64_t row) {
  return in_delta ? delta_vector(index, row) : base_vector(index, row);
}

// Copies the ids that a mask selects, in order, and returns how many they are.
inline std::int64_t copy_selected(const std::int64_t* ids, std::uint64_t mask, std::int64_t* out) {
  const std::int64_t selected = std::popcount(mask);
  if (selected == kBlock) {
    std::copy_n(ids, kBlock, out);
  } else if (selected * 4 < kBlock) {
    for_each_bit(mask, [&](std::int64_t i) { *out++ = ids[i]; });
  } else {
    // An id that is not selected is overwritten by the next. The last one is selected, so no place
    // behind it is touched.
    const std::int64_t end = kBlock - std::countl_zero(mask);
    for (std::int64_t i = 0; i < end; ++i) {
      *out = ids[i];
      out += (mask >> i) & 1;
    }
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

  // The same, said the other way round: adds every id that hides its base rows to a set.
  void add_hiding_ids(HiddenIds& set) const {
    for (const auto& entry : index_.delta_pos) set.add(entry.key, true);
    for (const auto& entry : index_.deleted_at) set.add(entry.key, entry.value != 0);
  }

 private:
  const QxIndex& index_;
  std::int64_t tombstone_guess_ = 0;
  std::int64_t delta_guess_ = 0;
};

// Cuts `count` rows into blocks; hidden_of(ids, size) says which rows of a block are not visible.
template <typename HiddenOf, typename Visit>
void walk_blocks(const std::int64_t* ids, std::int64_t count, bool in_delta, HiddenOf&& hidden_of,
                 Visit&& visit) {
  for (std::int64_t first = 0; first < count; first += kBlock) {
    const std::int64_t size = std::min(kBlock, count - first);
    const std::uint64_t visible = first_bits(size) & ~hidden_of(ids + first, size);
    visit(RowBlock{in_delta, first, size, ids + first, visible});
  }
}

// Leaves of the possibly hidden rows of a span those that are. Gathering them over many blocks
// fills the batches of lookups.
inline void confirm_hidden(const HiddenIds& set, Changes& lookups, const std::int64_t* ids,
                           std::int64_t blocks, std::uint64_t* hidden) {
  std::int64_t listed[kBlock];
  std::int64_t places[kBlock];
  std::int64_t count = 0;
  const auto confirm = [&] {
    for_each_bit(lookups.hide_base_rows(listed, count), [&](std::int64_t i) {
      hidden[places[i] / kBlock] |= std::uint64_t{1} << (places[i] % kBlock);
    });
    count = 0;
  };
  for (std::int64_t block = 0; block < blocks; ++block) {
    const std::uint64_t maybe = hidden[block];
    hidden[block] = 0;
    for_each_bit(maybe, [&](std::int64_t i) {
      places[count] = block * kBlock + i;
      listed[count] = ids[places[count]];
      count += set.ask_again(listed[count]) ? 1 : 0;
      if (count == kBlock) confirm();
    });
  }
  if (count != 0) confirm();
}

// The base part of a walk by way of a set of the hidden ids. Not inlined: no walk that can do
// without the set has to carry its stack.
template <typename Visit>
[[gnu::noinline]] void walk_base_by_set(const QxIndex& index, Visit&& visit) {
  HiddenIds set(index.max_base_id);
  Changes lookups(index);
  lookups.add_hiding_ids(set);
  constexpr std::int64_t kSpanBlocks = 16;
  for (std::int64_t start = 0; start < index.n_base; start += kSpanBlocks * kBlock) {
    const std::int64_t* const ids = index.base_ids + start;
    const std::int64_t count = std::min(kSpanBlocks * kBlock, index.n_base - start);
    std::uint64_t hidden[kSpanBlocks];
    for (std::int64_t i = 0; i < count; i += kBlock) {
      hidden[i / kBlock] = set.ask(ids + i, std::min(kBlock, count - i));
    }
    if (!set.exact()) confirm_hidden(set, lookups, ids, (count + kBlock - 1) / kBlock, hidden);
    for (std::int64_t i = 0; i < count; i += kBlock) {
      const std::int64_t size = std::min(kBlock, count - i);
      visit(RowBlock{false, start + i, size, ids + i, first_bits(size) & ~hidden[i / kBlock]});
    }
  }
}

// Calls visit(RowBlock) for all rows, visible or not: delta rows in delta order, then base rows in
// base order.
template <typename Visit>
void walk_rows(const QxIndex& index, Visit&& visit) {
  Changes lookups(index);
  const auto deleted = [&](const std::int64_t* ids, std::int64_t count) {
    return lookups.deleted(ids, count);
  };
  walk_blocks(index.delta_ids.data, index.delta_ids.length, true, deleted, visit);

  const std::int64_t changes = index.delta_pos.size() + index.deleted_at.size();
  const auto none = [](const std::int64_t*, std::int64_t) { return std::uint64_t{0}; };
  const auto hidden = [&](const std::int64_t* ids, std::int64_t count) {
    return lookups.hide_base_rows(ids, count);
  };
  if (changes == 0) {
    walk_blocks(index.base_ids, index.n_base, false, none, visit);
  } else if (HiddenIds::pays(changes, index.n_base, index.max_base_id)) {
    walk_base_by_set(index, visit);
  } else {
    walk_blocks(index.base_ids, index.n_base, false, hidden, visit);
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
