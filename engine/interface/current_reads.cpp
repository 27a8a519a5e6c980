// The current reads: searches, listings and the export of the rows that are visible now.
#include "read/id_lists.h"
#include "read/listing.h"

int64_t qx_index_search_mvcc(const QxIndex* index, const int64_t* ids, int32_t n,
                             const float* query, uint32_t k, int64_t* out_ids, float* out_scores) {
  const auto slots = static_cast<std::int32_t>(k);
  if (slots < 1) return 0;
  qx::Scan scan(*index, query, {slots, out_ids, out_scores}, n);
  qx::add_visible_rows(*index, ids, n, scan);
  return scan.finish();
}

int64_t qx_index_search_filtered(const QxIndex* index, uint32_t mode, int32_t column, int64_t value,
                                 const float* query, uint32_t k, int64_t* out_ids,
                                 float* out_scores) {
  const auto slots = static_cast<std::int32_t>(k);
  if (slots < 1) return 0;
  qx::Selection selection(*index, {mode, column, value});
  qx::Scan scan(*index, query, {slots, out_ids, out_scores},
                index->n_base + index->delta_ids.length);
  while (selection.next()) scan.add(selection.span());
  return scan.finish();
}

int64_t qx_index_match_ids(const QxIndex* index, uint32_t mode, int32_t column, int64_t value,
                           int64_t* out_ids) {
  return qx::list_ids(*index, {mode, column, value}, out_ids);
}

int64_t qx_index_visible_ids(const QxIndex* index, int64_t* out_ids) {
  return qx::list_ids(*index, qx::kNoFilter, out_ids);
}

int64_t qx_index_visible_count(const QxIndex* index) {
  return qx::count_rows(*index, qx::kNoFilter);
}

int64_t qx_index_export_visible(const QxIndex* index, float* out_vectors, int64_t* out_ids) {
  return qx::copy_rows(*index, qx::kNoFilter, out_vectors, out_ids);
}
