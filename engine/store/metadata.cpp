#include "store/metadata.h"

namespace qx {

bool set_metadata(QxIndex& index, const std::int64_t* ids, const std::int64_t* labels,
                  const std::int64_t* values, std::int32_t ncols, std::int64_t n) {
  if (ncols < index.meta_ncols) return false;
  while (index.meta_columns.length < ncols) index.meta_columns.append(Int64Map());
  index.meta_ncols = ncols;
  index.row_labels.assign_batch(ids, n, [&](std::int64_t i) { return labels[i]; });
  for (std::int64_t c = 0; c < ncols; ++c) {
    const auto value_of = [&](std::int64_t i) { return values[i * ncols + c]; };
    index.meta_columns.at(c).assign_batch(ids, n, value_of);
  }
  return true;
}

void get_metadata(const QxIndex& index, const std::int64_t* ids, std::int64_t n,
                  std::int64_t* labels, std::int64_t* values) {
  const std::int64_t ncols = index.meta_ncols;
  for (std::int64_t i = 0; i < n; ++i) {
    labels[i] = index.row_labels.get(ids[i], kMissing);
    for (std::int64_t c = 0; c < ncols; ++c) {
      values[i * ncols + c] = index.meta_columns.at(c).get(ids[i], kMissing);
    }
  }
}

}  // namespace qx
