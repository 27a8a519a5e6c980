// The functions of the sealed base: its build, its export, and the tuner, which lists partitions by
// size.
#include "store/base.h"

#include <algorithm>

#include "store/members.h"

int32_t qx_index_build(QxIndex* index, const float* vectors, int64_t n, int32_t dim,
                       const int64_t* ids, const int64_t* part_keys, const int32_t* part_starts,
                       const int32_t* part_sizes, int32_t n_parts) {
  const qx::BaseInput input = {vectors, n, dim, ids, part_keys, part_starts, part_sizes, n_parts};
  if (!qx::build_base(*index, input)) return -1;
  qx::derive_all_members(*index);
  return 0;
}

int64_t qx_index_export_base(const QxIndex* index, float* out_vectors, int64_t* out_ids) {
  if (index->sealed == 0) return 0;
  std::copy_n(index->base_vectors, index->n_base * qx::dim_of(*index), out_vectors);
  std::copy_n(index->base_ids, index->n_base, out_ids);
  return index->n_base;
}

int32_t qx_tuner_defaults(uint32_t* first, uint32_t* second) {
  *first = 20000;
  *second = 980;
  return 0;
}

int32_t qx_index_tuner_oversized(const QxIndex* index, int32_t threshold, int64_t* keys,
                                 int64_t* sizes) {
  std::int32_t listed = 0;
  for (std::int32_t p = 0; p < index->n_parts; ++p) {
    if (index->part_sizes[p] < threshold) continue;
    keys[listed] = index->part_keys[p];
    sizes[listed++] = index->part_sizes[p];
  }
  return listed;
}
