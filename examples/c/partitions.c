/*
 * A base in partitions (one for each tenant, say), and candidates that the host has chosen.
 *
 * Introduces: qx_index_stats qx_index_search_partition qx_index_scatter_topk
 *             qx_index_tuner_oversized qx_tuner_defaults
 *
 * Prints:
 *   5 rows of 2 floats in 2 partitions, tag 2026
 *   partition 100: id 2 (0.80), id 3 (0.60)
 *   partition 200: id 9 (0.90), id 8 (0.70)
 *   partition 300: 0 results
 *   of 3, 8 and 77: id 8 (0.70), id 3 (0.60)
 *   a partition of 3 rows or more: 100 with 3
 *   tuning numbers: 20000 and 980
 */
#include <inttypes.h>
#include <stdio.h>

#include "qx_runtime.h"

int main(void) {
  /* The rows of a partition are contiguous: rows 0 to 2 are those of key 100. */
  const float vectors[5 * 2] = {0.3f, 0.9f, 0.8f, 0.2f, 0.6f, 0.8f, 0.7f, 0.7f, 0.9f, 0.1f};
  const int64_t ids[5] = {1, 2, 3, 8, 9};
  const int64_t keys[2] = {100, 200}; /* ascending */
  const int32_t starts[2] = {0, 3}, sizes[2] = {3, 2};
  const float query[2] = {1.0f, 0.0f};
  const int64_t candidates[3] = {3, 8, 77};
  int64_t found[2], large_keys[2], large_sizes[2];
  float scores[2];
  uint64_t rows;
  uint32_t dim, tag, first, second;
  int32_t parts, i;
  QxIndex* index = qx_index_new(2, 2026);
  if (qx_index_build(index, vectors, 5, 2, ids, keys, starts, sizes, 2) != 0) return 1;
  qx_index_stats(index, &rows, &dim, &tag, &parts);
  printf("%" PRIu64 " rows of %u floats in %d partitions, tag %u\n", rows, dim, parts, tag);
  for (i = 0; i < 2; ++i) {
    if (qx_index_search_partition(index, keys[i], query, 2, found, scores) != 2) return 1;
    printf("partition %" PRId64 ": id %" PRId64 " (%.2f), id %" PRId64 " (%.2f)\n", keys[i],
           found[0], scores[0], found[1], scores[1]);
  }
  printf("partition 300: %d results\n",
         qx_index_search_partition(index, 300, query, 2, found, scores));

  /* Only these are scored; id 77 has no row and is skipped. */
  qx_index_scatter_topk(index, candidates, 3, query, 2, found, scores);
  printf("of 3, 8 and 77: id %" PRId64 " (%.2f), id %" PRId64 " (%.2f)\n", found[0], scores[0],
         found[1], scores[1]);

  if (qx_index_tuner_oversized(index, 3, large_keys, large_sizes) != 1) return 1;
  printf("a partition of 3 rows or more: %" PRId64 " with %" PRId64 "\n", large_keys[0],
         large_sizes[0]);
  qx_tuner_defaults(&first, &second);
  printf("tuning numbers: %u and %u\n", first, second);
  qx_index_free(index);
  return 0;
}
