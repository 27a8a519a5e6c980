// The searches of the sealed base: the whole of it, one partition, listed ids, IVF lists.
#include "read/id_lists.h"
#include "store/ivf.h"

namespace {

// The best of `count` consecutive base rows. Returns the number of slots, 0 if there is none.
int32_t search_rows(const QxIndex& index, std::int64_t first, std::int64_t count,
                    const float* query, int32_t k, int64_t* out_ids, float* out_scores) {
  const std::int64_t slots = std::min<std::int64_t>(count, k);
  if (slots < 1) return 0;
  qx::Scan scan(index, query, {slots, out_ids, out_scores}, count);
  scan.add_base_rows(first, count, index.base_ids + first);
  return scan.finish();
}

}  // namespace

int32_t qx_index_search_full(const QxIndex* index, const float* query, int32_t k, int64_t* out_ids,
                             float* out_scores) {
  // n_base is 0 before the first build.
  return search_rows(*index, 0, index->n_base, query, k, out_ids, out_scores);
}

int32_t qx_index_search_partition(const QxIndex* index, int64_t key, const float* query, int32_t k,
                                  int64_t* out_ids, float* out_scores) {
  // n_parts is 0 before the first build: no key is found.
  const std::int32_t partition = qx::find_partition(*index, key);
  if (partition < 0) return 0;
  const std::int64_t start = index->part_starts[partition];
  const std::int64_t size = index->part_sizes[partition];
  if (start < 0 || size < 0 || start + size > index->n_base) return 0;
  return search_rows(*index, start, size, query, k, out_ids, out_scores);
}

int32_t qx_index_scatter_topk(const QxIndex* index, const int64_t* cand_ids, int32_t n_cand,
                              const float* query, int32_t k, int64_t* out_ids, float* out_scores) {
  const std::int32_t slots = std::min(k, n_cand);
  if (index->sealed == 0 || slots < 1) return 0;
  qx::Scan scan(*index, query, {slots, out_ids, out_scores}, n_cand);
  qx::add_base_rows(*index, cand_ids, n_cand, scan);
  return scan.finish();
}

int32_t qx_index_search_ivf(const QxIndex* index, int64_t key, const float* query, int32_t k,
                            int64_t* out_ids, float* out_scores) {
  const QxIvf* const ivf = qx::find_ivf(*index, key);
  if (ivf == nullptr || k < 1 || ivf->nlist < 1) return 0;
  qx::Scan scan(*index, query, {k, out_ids, out_scores}, ivf->list_ids.length);
  qx::add_best_lists(*index, *ivf, query, scan);
  return scan.finish();
}
