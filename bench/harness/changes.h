// Rows that changed since the base was sealed: the same ones for the library and for the plain
// maps.
#pragma once

#include "harness/data.h"
#include "peers/absl_index.h"

namespace bench {

// Half of the inserted and half of the deleted ids are ids of the base; the others are beyond it.
struct Changes {
  Ids inserted;
  Ids deleted;
};

// Draws share * n ids of each kind, where n is the number of base ids.
Changes draw_changes(const Ids& base_ids, double share, Random& random);

// Inserts and deletes in both. Returns the vectors of the inserted rows, in their order.
Floats apply_changes(const Changes& changes, QxIndex* index, AbslIndex& absl, std::int64_t dim,
                     Random& random);

}  // namespace bench
