// Current reads without a predicate: search over listed ids; count, listing and export of what is
// visible.
#include "visibility.h"

#include <cstring>

#include "scan.h"

int64_t qx_index_search_mvcc(const QxIndex* index, const int64_t* ids, int32_t n,
                             const float* query, uint32_t k, int64_t* out_ids, float* out_scores) {
  const auto results = static_cast<std::int32_t>(k);
  if (results < 1) return 0;
  qx::TopK topk(out_ids, out_scores, results);
  qx::ScatteredScan scan(qx::row_width(*index), query, topk);
  for (std::int32_t i = 0; i < n; ++i) {
    qx::RowRef ref;
    if (qx::find_visible(*index, ids[i], &ref)) scan.add(qx::vector_of(*index, ref), ids[i]);
  }
  scan.finish();
  return results;
}

int64_t qx_index_visible_ids(const QxIndex* index, int64_t* out_ids) {
  std::int64_t count = 0;
  qx::walk_visible(*index, [&](const qx::RowRef& ref) { out_ids[count++] = ref.id; });
  return count;
}

int64_t qx_index_visible_count(const QxIndex* index) {
  std::int64_t count = 0;
  qx::walk_visible(*index, [&](const qx::RowRef&) { ++count; });
  return count;
}

int64_t qx_index_export_visible(const QxIndex* index, float* out_vectors, int64_t* out_ids) {
  const std::int64_t width = qx::row_width(*index);
  std::int64_t count = 0;
  qx::walk_visible(*index, [&](const qx::RowRef& ref) {
    if (width > 0) {
      std::memcpy(out_vectors + count * width, qx::vector_of(*index, ref),
                  static_cast<std::size_t>(width) * sizeof(float));
    }
    out_ids[count++] = ref.id;
  });
  return count;
}
