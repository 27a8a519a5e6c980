// The life of an index: creation, release, the accessors, the bulk build of the sealed base and
// its export.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "qx_index.h"
#include "rows.h"
#include "support/compiler.h"
#include "support/fp_environment.h"

namespace {

// Bound of the row count, of the element count and, exclusively, of the ids of a base.
constexpr std::int64_t kBaseLimit = std::int64_t{1} << 40;

// Whether n rows of dim floats, in n_parts partitions, are within the limits.
bool valid_shape(std::int64_t n, std::int32_t dim, std::int32_t n_parts) {
  std::int64_t elements = 0;
  return dim >= 0 && n_parts >= 0 && n >= 0 && n <= kBaseLimit &&
         !__builtin_mul_overflow(n, std::int64_t{dim}, &elements) && elements <= kBaseLimit;
}

// Finds the largest id, -1 without ids; false when an id is outside the limits.
bool find_max_id(const std::int64_t* ids, std::int64_t n, std::int64_t* max_id) {
  *max_id = -1;
  for (std::int64_t r = 0; r < n; ++r) {
    if (ids[r] < 0 || ids[r] >= kBaseLimit) return false;
    *max_id = std::max(*max_id, ids[r]);
  }
  return true;
}

// A block with a copy of `count` elements; null, without reading, for none.
template <typename T>
T* copy_block(const T* source, std::int64_t count) {
  if (count == 0) return nullptr;
  void* const block = qx::allocate(count, sizeof(T));
  return static_cast<T*>(std::memcpy(block, source, static_cast<std::size_t>(count) * sizeof(T)));
}

// The largest magnitude of `count` floats, NaNs aside.
float largest_magnitude(const float* floats, std::int64_t count) {
  constexpr std::int64_t kLanes = 16;  // maxima side by side, which compilers turn into SIMD
  float largest[kLanes] = {};
  const auto take = [&](std::int64_t lane, float value) {
    const float magnitude = std::abs(value);
    largest[lane] = magnitude > largest[lane] ? magnitude : largest[lane];
  };
  std::int64_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    for (std::int64_t lane = 0; lane < kLanes; ++lane) take(lane, floats[i + lane]);
  }
  for (; i < count; ++i) take(0, floats[i]);
  return *std::max_element(largest, largest + kLanes);
}

// A block with a copy of `count` floats and, behind them, their largest magnitude; null for none.
float* copy_vectors(const float* source, std::int64_t count) {
  if (count == 0) return nullptr;
  auto* const block = static_cast<float*>(qx::allocate_at_line(count + 1, sizeof(float)));
  std::memcpy(block, source, static_cast<std::size_t>(count) * sizeof(float));
  qx::in_default_fp_environment([&] { block[count] = largest_magnitude(block, count); });
  return block;
}

template <typename T>
void copy_out(T* target, const T* source, std::int64_t count) {
  if (count > 0) std::memcpy(target, source, static_cast<std::size_t>(count) * sizeof(T));
}

// The table from ids to their last rows, and behind it how many rows are not the last of their id,
// and which.
std::int64_t* build_id_to_row(const std::int64_t* ids, std::int64_t n, std::int64_t max_id) {
  const std::int64_t slots = max_id + 1;
  if (slots == 0) return nullptr;
  void* block = qx::allocate(slots + 1, sizeof(std::int64_t));
  std::memset(block, 0xFF, static_cast<std::size_t>(slots) * sizeof(std::int64_t));  // all -1
  auto* id_to_row = static_cast<std::int64_t*>(block);
  std::int64_t superseded = 0;
  for (std::int64_t r = 0; r < n; ++r) {
    superseded += id_to_row[ids[r]] >= 0 ? 1 : 0;
    id_to_row[ids[r]] = r;
  }
  if (superseded > 0) {
    block = qx::reallocate(block, slots + 1 + superseded, sizeof(std::int64_t));
    id_to_row = static_cast<std::int64_t*>(block);
    std::int64_t* next = id_to_row + slots + 1;
    for (std::int64_t r = 0; r < n; ++r) {
      if (id_to_row[ids[r]] != r) *next++ = r;
    }
  }
  id_to_row[slots] = superseded;
  return id_to_row;
}

}  // namespace

QxIndex* qx_index_new(uint32_t dim, uint32_t user_tag) {
  auto* const index = new (qx::allocate(1, sizeof(QxIndex))) QxIndex;
  index->dim = dim;
  index->user_tag = user_tag;
  return index;
}

void qx_index_free(QxIndex* index) {
  if (index == nullptr) return;
  qx::release(index->base_vectors);
  qx::release(index->base_ids);
  qx::release(index->part_keys);
  qx::release(index->part_starts);
  qx::release(index->part_sizes);
  qx::release(index->id_to_row);
  index->delta_pos.release();
  index->delta_ids.release();
  index->delta_stamps.release();
  index->delta_vectors.release();
  index->deleted_at.release();
  index->row_labels.release();
  for (std::int64_t c = 0; c < index->meta_columns.length; ++c) index->meta_columns.at(c).release();
  index->meta_columns.release();
  qx::release_ivf(*index);
  qx::release(index);
}

int32_t qx_index_stats(const QxIndex* index, uint64_t* n_base, uint32_t* dim, uint32_t* user_tag,
                       int32_t* n_parts) {
  *n_base = static_cast<uint64_t>(index->n_base);
  *dim = index->dim;
  *user_tag = index->user_tag;
  *n_parts = index->n_parts;
  return 0;
}

uint64_t qx_index_snapshot(const QxIndex* index) { return index->snapshot; }

uint32_t qx_index_mutated(const QxIndex* index) { return index->mutated; }

uint32_t qx_index_sealed(const QxIndex* index) { return index->sealed; }

int64_t qx_index_delta_count(const QxIndex* index) { return index->delta_ids.length; }

int32_t qx_runtime_format_version(void) { return 1; }

int32_t qx_index_build(QxIndex* index, const float* vectors, int64_t n, int32_t dim,
                       const int64_t* ids, const int64_t* part_keys, const int32_t* part_starts,
                       const int32_t* part_sizes, int32_t n_parts) {
  std::int64_t max_id = -1;
  if (!valid_shape(n, dim, n_parts) || !find_max_id(ids, n, &max_id)) return -1;
  // The arrays of an earlier build stay allocated: the contract, which the header tells the host.
  index->base_vectors = copy_vectors(vectors, n * dim);
  index->base_ids = copy_block(ids, n);
  index->part_keys = copy_block(part_keys, n_parts);
  index->part_starts = copy_block(part_starts, n_parts);
  index->part_sizes = copy_block(part_sizes, n_parts);
  index->id_to_row = build_id_to_row(ids, n, max_id);
  index->max_base_id = max_id;
  index->dim = static_cast<uint32_t>(dim);
  index->n_base = n;
  index->sealed = 1;
  index->n_parts = n_parts;
  return 0;
}

int64_t qx_index_export_base(const QxIndex* index, float* out_vectors, int64_t* out_ids) {
  if (index->sealed == 0) return 0;
  copy_out(out_vectors, index->base_vectors, index->n_base * qx::row_width(*index));
  copy_out(out_ids, index->base_ids, index->n_base);
  return index->n_base;
}
