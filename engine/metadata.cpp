// Labels and columns per id, the predicate over them, and the reads that it restricts.
#include <cstdint>

#include "qx_index.h"
#include "scan.h"
#include "visibility.h"

namespace qx {
namespace {

// What a missing label or column value reads as, everywhere.
constexpr std::int64_t kMissing = -1;

// Whether an id passes the test: any id in mode 0, the label's in mode 1, a column's in the others.
bool _match(const QxIndex& index, std::int64_t id, std::int32_t mode, std::int32_t column,
            std::int64_t value) {
  if (mode == 0) return true;
  if (mode == 1) return index.row_labels.get(id, kMissing) == value;
  if (column < 0 || column >= index.meta_ncols) return false;
  return index.meta_columns.at(column).get(id, kMissing) == value;
}

}  // namespace
}  // namespace qx

int32_t qx_index_set_rowmeta(QxIndex* index, const int64_t* ids, const int64_t* labels,
                             const int64_t* values, int32_t ncols, int32_t n) {
  if (ncols < index->meta_ncols) return -1;
  while (index->meta_columns.length < ncols) index->meta_columns.append(qx::Int64Map());
  index->meta_ncols = ncols;
  for (std::int64_t i = 0; i < n; ++i) {
    index->row_labels.assign(ids[i], labels[i]);
    for (std::int64_t c = 0; c < ncols; ++c) {
      index->meta_columns.at(c).assign(ids[i], values[i * ncols + c]);
    }
  }
  return 0;
}

int32_t qx_index_export_rowmeta(const QxIndex* index, const int64_t* ids, uint32_t n,
                                int64_t* out_labels, int64_t* out_values) {
  const std::int64_t ncols = index->meta_ncols;
  for (std::int64_t i = 0; i < static_cast<std::int32_t>(n); ++i) {
    out_labels[i] = index->row_labels.get(ids[i], qx::kMissing);
    for (std::int64_t c = 0; c < ncols; ++c) {
      out_values[i * ncols + c] = index->meta_columns.at(c).get(ids[i], qx::kMissing);
    }
  }
  return index->meta_ncols;
}

int64_t qx_index_search_filtered(const QxIndex* index, uint32_t mode, int32_t column, int64_t value,
                                 const float* query, uint32_t k, int64_t* out_ids,
                                 float* out_scores) {
  const auto results = static_cast<std::int32_t>(k);
  if (results < 1) return 0;
  qx::TopK topk(out_ids, out_scores, results);
  qx::ScatteredScan scan(qx::row_width(*index), query, topk);
  qx::walk_visible(*index, [&](const qx::RowRef& ref) {
    if (qx::_match(*index, ref.id, static_cast<std::int32_t>(mode), column, value)) {
      scan.add(qx::vector_of(*index, ref), ref.id);
    }
  });
  scan.finish();
  return results;
}

int64_t qx_index_match_ids(const QxIndex* index, uint32_t mode, int32_t column, int64_t value,
                           int64_t* out_ids) {
  std::int64_t count = 0;
  qx::walk_visible(*index, [&](const qx::RowRef& ref) {
    if (qx::_match(*index, ref.id, static_cast<std::int32_t>(mode), column, value)) {
      out_ids[count++] = ref.id;
    }
  });
  return count;
}
