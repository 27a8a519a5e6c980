/*
 * Rows that come, change and go beside the sealed base, and the rebuild that folds them into it.
 *
 * Introduces: qx_index_insert qx_index_delete qx_index_snapshot qx_index_mutated
 *             qx_index_delta_count qx_index_search_mvcc qx_index_visible_count
 *             qx_index_visible_ids qx_index_export_visible qx_index_export_base
 *
 * Prints:
 *   before: snapshot 0, mutated 0, 0 delta rows, 3 visible
 *   after: snapshot 2, mutated 1, 2 delta rows, 3 visible
 *   visible: 1 4 3
 *   of 1, 2 and 4 now: id 4 (2.00), id 1 (0.50)
 *   rebuilt: base 1 4 3, snapshot 0
 */
#include <stdio.h>

#include "qx_runtime.h"

static void report(const char* when, const QxIndex* index) {
  printf("%s: snapshot %u, mutated %u, %d delta rows, %d visible\n", when,
         (unsigned)qx_index_snapshot(index), qx_index_mutated(index),
         (int)qx_index_delta_count(index), (int)qx_index_visible_count(index));
}

int main(void) {
  const float vectors[3 * 2] = {1.0f, 0.0f, 0.0f, 1.0f, 0.6f, 0.8f};
  const int64_t ids[3] = {1, 2, 3}, asked[3] = {1, 2, 4};
  const float changed[2 * 2] = {0.5f, 0.5f, 2.0f, 0.0f}, query[2] = {1.0f, 0.0f};
  const int64_t changed_ids[2] = {1, 4};
  float out_vectors[4 * 2], scores[3];
  int64_t out_ids[4], found[3];
  QxIndex *index = qx_index_new(2, 0), *rebuilt;
  qx_index_build(index, vectors, 3, 2, ids, NULL, NULL, NULL, 0);
  report("before", index);

  qx_index_insert(index, changed, changed_ids, 2); /* replaces 1, adds 4 */
  qx_index_delete(index, &ids[1], 1);              /* hides 2 */
  report("after", index);
  qx_index_visible_ids(index, out_ids); /* first inserted rows, then base rows */
  printf("visible: %d %d %d\n", (int)out_ids[0], (int)out_ids[1], (int)out_ids[2]);
  qx_index_search_mvcc(index, asked, 3, query, 3, found, scores); /* slots without a row: id -1 */
  printf("of 1, 2 and 4 now: id %d (%.2f), id %d (%.2f)\n", (int)found[0], scores[0], (int)found[1],
         scores[1]);

  /* A new index gives back what the old one still held of replaced and deleted rows. */
  rebuilt = qx_index_new(2, 0);
  qx_index_build(rebuilt, out_vectors, qx_index_export_visible(index, out_vectors, out_ids), 2,
                 out_ids, NULL, NULL, NULL, 0);
  qx_index_free(index);
  qx_index_export_base(rebuilt, out_vectors, out_ids);
  printf("rebuilt: base %d %d %d, snapshot %u\n", (int)out_ids[0], (int)out_ids[1], (int)out_ids[2],
         (unsigned)qx_index_snapshot(rebuilt));
  qx_index_free(rebuilt);
  return 0;
}
