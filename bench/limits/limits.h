// What no search can beat. Which loop is fastest depends on the machine, on where the data is and
// on the length of the rows, so all of them are timed, and the fastest is the limit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "harness/data.h"
#include "harness/measure.h"

namespace bench {

// The limit of every scan: the same bytes merely read by one core.
struct ReadLoop {
  const char* name;
  // Reads all bytes with the widest loads there are, and returns something that depends on them.
  std::uint64_t (*read)(const void* data, std::size_t bytes);
};
std::span<const ReadLoop> read_loops();

// Vectors by row, and the table that finds the row of an id: what any engine must have.
struct Table {
  const float* vectors;
  const std::int64_t* id_to_row;
  std::int64_t dim;
};

inline const float* row_vector(const Table& table, std::int64_t id) {
  return table.vectors + table.id_to_row[id] * table.dim;
}

// The rows of ids from 0 to the largest one, -1 for ids that have none.
Ids row_table(const Ids& ids);

// The limit of a search through listed ids: look every id up and touch every cache line of its
// vector, with the order and the prefetches that hide as much of the waiting as can be hidden.
struct TouchLoop {
  const char* name;
  // Touches all lines of the vectors of `count` listed ids, at least one; returns something that
  // depends on them.
  std::uint64_t (*touch)(const Table& table, const std::int64_t* ids, std::int64_t count);
};
std::span<const TouchLoop> touch_loops();

// One contestant a loop: work(loop) is what it does.
template <typename Loops, typename Work>
void add_limits(Contestants& contestants, const Loops& loops, Work work) {
  for (const auto& loop : loops) {
    contestants.push_back({loop.name, Role::kLimit, [work, loop] { return work(loop); }});
  }
}

inline void add_read_limits(Contestants& contestants, const void* data, std::int64_t bytes) {
  add_limits(contestants, read_loops(), [data, bytes](const ReadLoop& loop) {
    return loop.read(data, static_cast<std::size_t>(bytes));
  });
}

// The limit of listing ids.
inline Contestant id_copy(const Ids& ids, Ids& to) {
  return {"copy the ids", Role::kLimit, [&ids, &to] {
            std::memcpy(to.data(), ids.data(), ids.size() * sizeof(std::int64_t));
            consume(to);
          }};
}

}  // namespace bench
