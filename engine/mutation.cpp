// Inserts and deletes: the only writers of the delta, the tombstones and the snapshot counter. It
// never looks at the base.
#include <cstring>

#include "qx_index.h"
#include "rows.h"

namespace {

// Starts a mutation; its stamp is the counter's new value.
std::int64_t next_snapshot(QxIndex& index) {
  index.mutated = 1;
  return static_cast<std::int64_t>(++index.snapshot);
}

// Completes the row of an id that has just become a key of delta_pos.
void append_row(QxIndex& index, const float* vector, std::int64_t id, std::int64_t stamp) {
  index.delta_ids.append(id);
  index.delta_stamps.append(stamp);
  index.delta_vectors.append(vector, qx::row_width(index));
}

void overwrite_row(QxIndex& index, std::int64_t row, const float* vector, std::int64_t stamp) {
  if (float* const target = qx::delta_vector(index, row)) {
    std::memcpy(target, vector, static_cast<std::size_t>(qx::row_width(index)) * sizeof(float));
  }
  index.delta_stamps.at(row) = stamp;
}

}  // namespace

uint64_t qx_index_insert(QxIndex* index, const float* vectors, const int64_t* ids, int32_t n) {
  if (n < 1) return index->snapshot;
  const std::int64_t stamp = next_snapshot(*index);
  const std::int64_t width = qx::row_width(*index);
  for (std::int64_t i = 0; i < n; ++i) {
    if (i + qx::Int64Map::kAhead < n) {
      index->deleted_at.prefetch(ids[i + qx::Int64Map::kAhead]);
      index->delta_pos.prefetch(ids[i + qx::Int64Map::kAhead]);
    }
    if (std::int64_t* const tombstone = index->deleted_at.find(ids[i])) *tombstone = 0;
    bool inserted;
    const std::int64_t row =
        *index->delta_pos.find_or_insert(ids[i], index->delta_ids.length, &inserted);
    if (inserted) {
      append_row(*index, vectors + i * width, ids[i], stamp);
    } else {
      overwrite_row(*index, row, vectors + i * width, stamp);
    }
  }
  return index->snapshot;
}

uint64_t qx_index_delete(QxIndex* index, const int64_t* ids, int32_t n) {
  if (n < 1) return index->snapshot;
  const std::int64_t stamp = next_snapshot(*index);
  index->deleted_at.assign_batch(ids, n, [&](std::int64_t) { return stamp; });
  return index->snapshot;
}
