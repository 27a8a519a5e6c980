// The functions that insert and delete.
#include "store/delta.h"

uint64_t qx_index_insert(QxIndex* index, const float* vectors, const int64_t* ids, int32_t n) {
  if (n >= 1) qx::insert_rows(*index, vectors, ids, n);
  return index->snapshot;
}

uint64_t qx_index_delete(QxIndex* index, const int64_t* ids, int32_t n) {
  if (n >= 1) qx::delete_ids(*index, ids, n);
  return index->snapshot;
}
