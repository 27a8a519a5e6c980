// The limit of a search through listed ids: look every id up and touch every cache line of its
// vector, with the order and the prefetches that hide as much of the waiting as can be hidden.
#pragma once

#include <cstdint>
#include <vector>

#include "harness/data.h"
#include "harness/measure.h"

namespace bench {

// Vectors by row, and the table that finds the row of an id: what any engine must have.
struct Table {
  const float* vectors;
  const std::int64_t* id_to_row;
  std::int64_t dim;
};

inline const float* row_vector(const Table& table, std::int64_t id) {
  return table.vectors + table.id_to_row[id] * table.dim;
}

struct TouchLoop {
  const char* name;
  // Touches all lines of the vectors of `count` listed ids, at least one; returns something that
  // depends on them.
  std::uint64_t (*touch)(const Table& table, const std::int64_t* ids, std::int64_t count);
};

// Which loop is fastest depends on the machine and on the length of the rows, so all of them are
// timed and the fastest is the limit.
const std::vector<TouchLoop>& touch_loops();

// The rows of ids from 0 to the largest one, -1 for ids that have none.
Ids row_table(const Ids& ids);

}  // namespace bench
