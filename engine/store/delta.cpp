#include "store/delta.h"

#include <algorithm>

#include "store/codes.h"

namespace qx {
namespace {

// Starts a mutation. Its stamp is the counter's new value.
std::int64_t next_snapshot(QxIndex& index) {
  index.mutated = 1;
  return static_cast<std::int64_t>(++index.snapshot);
}

// Rows are coded as they are read, at multiples of the dimension. If rows of another dimension are
// among them, the last one may be cut off, and an append would complete it: then none is coded.
void code_new_rows(QxIndex& index, std::int64_t dim) {
  const std::int64_t rows = index.delta_ids.length;
  if (index.delta_vectors.length != rows * dim) {
    release_codes(index.delta_codes);
  } else if (is_worth_coding(rows, dim)) {
    extend_codes(index.delta_codes, index.delta_vectors.data, rows, dim);
  }
}

}  // namespace

void insert_rows(QxIndex& index, const float* vectors, const std::int64_t* ids, std::int64_t n) {
  QX_ASSERT(n >= 1);
  const std::int64_t stamp = next_snapshot(index);
  const std::int64_t dim = dim_of(index);
  // Codes under another dimension are of no use to what is written now.
  if (index.delta_codes.dim != dim) release_codes(index.delta_codes);
  for (std::int64_t i = 0; i < n; ++i) {
    const std::int64_t ahead = i + Int64Map::kPrefetchDistance;
    if (ahead < n) {
      index.deleted_at.prefetch(ids[ahead]);
      index.delta_pos.prefetch(ids[ahead]);
    }
    // The id's tombstone is lifted.
    if (std::int64_t* const tombstone = index.deleted_at.find(ids[i])) *tombstone = 0;
    bool inserted;
    const std::int64_t next_row = index.delta_ids.length;
    const std::int64_t row = *index.delta_pos.find_or_insert(ids[i], next_row, &inserted);
    if (inserted) {
      index.delta_ids.append(ids[i]);
      index.delta_stamps.append(stamp);
      index.delta_vectors.append(vectors + i * dim, dim);
    } else {
      if (dim > 0) std::copy_n(vectors + i * dim, dim, index.delta_vectors.range(row * dim, dim));
      index.delta_stamps.at(row) = stamp;
      if (row < index.delta_codes.rows) {
        replace_code(index.delta_codes, row, vectors + i * dim);
      }
    }
  }
  code_new_rows(index, dim);
}

void delete_ids(QxIndex& index, const std::int64_t* ids, std::int64_t n) {
  QX_ASSERT(n >= 1);
  const std::int64_t stamp = next_snapshot(index);
  index.deleted_at.assign_batch(ids, n, [&](std::int64_t) { return stamp; });
}

}  // namespace qx
