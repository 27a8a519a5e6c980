// Exact search of the sealed base: the whole of it, one partition, a list of ids; and the tuner,
// which lists partitions by size. It knows nothing of the delta and of deletes.
#include <algorithm>

#include "qx_index.h"
#include "rows.h"
#include "scan.h"

namespace {

// Scans the base rows from `first` on; `count` and `k` are above 0.
void scan_base(const QxIndex& index, std::int64_t first, std::int64_t count, const float* query,
               std::int64_t k, int64_t* out_ids, float* out_scores) {
  qx::TopK topk(out_ids, out_scores, k);
  qx::Scan scan({query, qx::row_width(index), count, qx::base_magnitude(index)}, topk);
  scan.finish_with(qx::base_vector(index, first), index.base_ids + first, count, count);
}

// The partition of a key, or -1. Of equal keys the halving decides, so it is part of the contract.
std::int32_t find_partition(const QxIndex& index, std::int64_t key) {
  std::int32_t low = 0;
  std::int32_t high = index.n_parts - 1;
  while (low <= high) {
    const std::int32_t middle = low + (high - low) / 2;
    if (index.part_keys[middle] == key) return middle;
    if (index.part_keys[middle] < key) {
      low = middle + 1;
    } else {
      high = middle - 1;
    }
  }
  return -1;
}

}  // namespace

int32_t qx_index_search_full(const QxIndex* index, const float* query, int32_t k, int64_t* out_ids,
                             float* out_scores) {
  // n_base is 0 before the first build.
  const auto results = static_cast<std::int32_t>(std::min<std::int64_t>(index->n_base, k));
  if (results < 1) return 0;
  scan_base(*index, 0, index->n_base, query, results, out_ids, out_scores);
  return results;
}

int32_t qx_index_search_partition(const QxIndex* index, int64_t key, const float* query, int32_t k,
                                  int64_t* out_ids, float* out_scores) {
  // n_parts is 0 before the first build: no key is found.
  const std::int32_t partition = find_partition(*index, key);
  if (partition < 0) return 0;
  const std::int64_t start = index->part_starts[partition];
  const std::int64_t size = index->part_sizes[partition];
  if (start < 0 || size < 0 || start + size > index->n_base) return 0;
  const auto results = static_cast<std::int32_t>(std::min<std::int64_t>(size, k));
  if (results < 1) return 0;
  scan_base(*index, start, size, query, results, out_ids, out_scores);
  return results;
}

int32_t qx_index_scatter_topk(const QxIndex* index, const int64_t* cand_ids, int32_t n_cand,
                              const float* query, int32_t k, int64_t* out_ids, float* out_scores) {
  const std::int32_t results = std::min(k, n_cand);
  if (index->sealed == 0 || results < 1) return 0;
  qx::TopK topk(out_ids, out_scores, results);
  qx::Scan scan({query, qx::row_width(*index), n_cand, qx::base_magnitude(*index)}, topk);
  for (std::int32_t i = 0; i < n_cand; ++i) {
    const std::int64_t row = qx::base_row_of(*index, cand_ids[i]);
    if (row >= 0) scan.add(qx::base_vector(*index, row), cand_ids[i], true);
  }
  scan.finish();
  return results;
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
    sizes[listed] = index->part_sizes[p];
    ++listed;
  }
  return listed;
}
