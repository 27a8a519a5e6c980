#include <algorithm>
#include <cstddef>

#include "limits/limits.h"

namespace bench {
namespace {

constexpr std::int64_t kLineBytes = 64;

// Past the end of a list its last id stands in, which costs nothing: its lines are there already.
struct Lookup {
  const char* row(std::int64_t i) const {
    return reinterpret_cast<const char*>(row_vector(table, ids[std::min(i, count - 1)]));
  }
  void prefetch(std::int64_t i) const {
    __builtin_prefetch(table.id_to_row + ids[std::min(i, count - 1)]);
  }
  std::int64_t row_bytes() const { return table.dim * static_cast<std::int64_t>(sizeof(float)); }

  const Table& table;
  const std::int64_t* ids;
  std::int64_t count;
};

std::uint64_t byte_at(const char* at) { return static_cast<unsigned char>(*at); }

// Row after row. The lines of the row kAhead places later are prefetched one by one, in step with
// the lines that are touched.
template <int kAhead>
std::uint64_t touch_in_turn(const Table& table, const std::int64_t* ids, std::int64_t count) {
  const Lookup lookup{table, ids, count};
  const std::int64_t row_bytes = lookup.row_bytes();
  std::uint64_t sum = 0;
  for (std::int64_t i = 0; i < count; ++i) {
    lookup.prefetch(i + 2 * std::int64_t{kAhead});
    const char* const next = lookup.row(i + kAhead);
    const char* const row = lookup.row(i);
    for (std::int64_t at = 0; at < row_bytes; at += kLineBytes) {
      __builtin_prefetch(next + at);
      sum += byte_at(row + at);
    }
    // A row that does not start on a line may end on one line more.
    sum += byte_at(row + row_bytes - 1);
  }
  return sum;
}

// kRows rows side by side, one line of each in turn. With kPrefetch the same line of the next rows
// is prefetched in step; without it the hardware follows the rows alone, as it does for long ones.
template <int kRows, bool kPrefetch>
std::uint64_t touch_side_by_side(const Table& table, const std::int64_t* ids, std::int64_t count) {
  const Lookup lookup{table, ids, count};
  const std::int64_t row_bytes = lookup.row_bytes();
  const char* rows[kRows];
  const char* next[kRows];
  for (int r = 0; r < kRows; ++r) next[r] = lookup.row(r);
  std::uint64_t sum = 0;
  for (std::int64_t i = 0; i < count; i += kRows) {
    for (int r = 0; r < kRows; ++r) {
      lookup.prefetch(i + 3 * std::int64_t{kRows} + r);
      rows[r] = next[r];
      next[r] = lookup.row(i + kRows + r);
    }
    for (std::int64_t at = 0; at < row_bytes; at += kLineBytes) {
      for (int r = 0; r < kRows; ++r) {
        if (kPrefetch) __builtin_prefetch(next[r] + at);
        sum += byte_at(rows[r] + at);
      }
    }
    for (const char* const row : rows) sum += byte_at(row + row_bytes - 1);
  }
  return sum;
}

}  // namespace

std::span<const TouchLoop> touch_loops() {
  static constexpr TouchLoop kLoops[] = {
      {"touch row after row, 8 ahead", touch_in_turn<8>},
      {"touch row after row, 32 ahead", touch_in_turn<32>},
      {"touch 8 rows side by side, prefetch", touch_side_by_side<8, true>},
      {"touch 16 rows side by side, prefetch", touch_side_by_side<16, true>},
      {"touch 16 rows side by side", touch_side_by_side<16, false>}};
  return kLoops;
}

Ids row_table(const Ids& ids) {
  const std::int64_t slots = *std::max_element(ids.begin(), ids.end()) + 1;
  Ids rows(static_cast<std::size_t>(slots), -1);
  std::int64_t row = 0;
  for (const std::int64_t id : ids) rows[static_cast<std::size_t>(id)] = row++;
  return rows;
}

}  // namespace bench
