// The functions of labels and columns.
#include "store/metadata.h"

int32_t qx_index_set_rowmeta(QxIndex* index, const int64_t* ids, const int64_t* labels,
                             const int64_t* values, int32_t ncols, int32_t n) {
  return qx::set_metadata(*index, ids, labels, values, ncols, n) ? 0 : -1;
}

int32_t qx_index_export_rowmeta(const QxIndex* index, const int64_t* ids, uint32_t n,
                                int64_t* out_labels, int64_t* out_values) {
  qx::get_metadata(*index, ids, static_cast<std::int32_t>(n), out_labels, out_values);
  return index->meta_ncols;
}
