#include "store/delta.h"

#include <cstring>

namespace qx {
namespace {

// Starts a mutation. Its stamp is the counter's new value.
std::int64_t next_snapshot(QxIndex& index) {
  index.mutated = 1;
  return static_cast<std::int64_t>(++index.snapshot);
}

void lift_tombstone(QxIndex& index, std::int64_t id) {
  if (std::int64_t* const tombstone = index.deleted_at.find(id)) *tombstone = 0;
}

// Appends the row of an id that has just become a key of delta_pos.
void append_row(QxIndex& index, const float* vector, std::int64_t id, std::int64_t stamp) {
  index.delta_ids.append(id);
  index.delta_stamps.append(stamp);
  index.delta_vectors.append(vector, dim_of(index));
}

void overwrite_row(QxIndex& index, std::int64_t row, const float* vector, std::int64_t stamp) {
  const std::int64_t dim = dim_of(index);
  if (dim > 0) {
    float* const target = index.delta_vectors.range(row * dim, dim);
    std::memcpy(target, vector, static_cast<std::size_t>(dim) * sizeof(float));
  }
  index.delta_stamps.at(row) = stamp;
}

void prefetch_lookups(const QxIndex& index, std::int64_t id) {
  index.deleted_at.prefetch(id);
  index.delta_pos.prefetch(id);
}

}  // namespace

void insert_rows(QxIndex& index, const float* vectors, const std::int64_t* ids, std::int64_t n) {
  QX_ASSERT(n >= 1);
  const std::int64_t stamp = next_snapshot(index);
  const std::int64_t dim = dim_of(index);
  for (std::int64_t i = 0; i < n; ++i) {
    const std::int64_t ahead = i + Int64Map::kPrefetchDistance;
    if (ahead < n) prefetch_lookups(index, ids[ahead]);
    lift_tombstone(index, ids[i]);
    bool inserted;
    const std::int64_t next_row = index.delta_ids.length;
    const std::int64_t row = *index.delta_pos.find_or_insert(ids[i], next_row, &inserted);
    if (inserted) {
      append_row(index, vectors + i * dim, ids[i], stamp);
    } else {
      overwrite_row(index, row, vectors + i * dim, stamp);
    }
  }
}

void delete_ids(QxIndex& index, const std::int64_t* ids, std::int64_t n) {
  QX_ASSERT(n >= 1);
  const std::int64_t stamp = next_snapshot(index);
  index.deleted_at.assign_batch(ids, n, [&](std::int64_t) { return stamp; });
}

}  // namespace qx
