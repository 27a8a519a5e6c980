// The functions of the life of an index: creation, release, the accessors.
#include "store/codes.h"
#include "store/ivf.h"
#include "store/members.h"

QxIndex* qx_index_new(uint32_t dim, uint32_t user_tag) {
  auto* const index = new (qx::allocate(1, sizeof(QxIndex))) QxIndex;
  index->dim = dim;
  index->user_tag = user_tag;
  return index;
}

// Fields are released in the order in which they are declared; destructors would reverse it, and
// find nothing afterwards.
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
  index->meta_columns.release();
  qx::release_ivf(*index);
  qx::release_all_members(*index);
  index->duplicate_rows.release();
  qx::release_codes(index->base_codes);
  qx::release_codes(index->delta_codes);
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
