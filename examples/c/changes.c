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
 *   of 1, 2 and 4 now, best first: 4 1
 *   rebuilt: snapshot 0, base: 1 4 3
 */
#include <inttypes.h>
#include <stdio.h>

#include "qx_runtime.h"

static void report(const char* when, const QxIndex* index) {
  printf("%s: snapshot %" PRIu64 ", mutated %u, %" PRId64 " delta rows, %" PRId64 " visible\n",
         when, qx_index_snapshot(index), qx_index_mutated(index), qx_index_delta_count(index),
         qx_index_visible_count(index));
}

static void print_ids(const char* what, const int64_t* ids, int64_t count) {
  printf("%s:", what);
  for (int64_t i = 0; i < count; ++i) printf(" %" PRId64, ids[i]);
  printf("\n");
}

int main(void) {
  const float vectors[3 * 2] = {1.0f, 0.0f, 0.0f, 1.0f, 0.6f, 0.8f};
  const int64_t ids[3] = {1, 2, 3}, changed_ids[2] = {1, 4}, asked[3] = {1, 2, 4};
  const float changed[2 * 2] = {0.5f, 0.5f, 2.0f, 0.0f}, query[2] = {1.0f, 0.0f};
  float out_vectors[4 * 2], scores[3];
  int64_t out_ids[4], found[3], n;
  QxIndex *index = qx_index_new(2, 0), *rebuilt = qx_index_new(2, 0);
  qx_index_build(index, vectors, 3, 2, ids, NULL, NULL, NULL, 0);
  report("before", index);

  qx_index_insert(index, changed, changed_ids, 2); /* replaces 1, adds 4 */
  qx_index_delete(index, &ids[1], 1);              /* hides 2 */
  report("after", index);
  n = qx_index_visible_ids(index, out_ids); /* inserted rows first */
  print_ids("visible", out_ids, n);
  n = qx_index_search_mvcc(index, asked, 3, query, 3, found, scores);
  while (n > 0 && found[n - 1] == QX_EMPTY_ID && scores[n - 1] == QX_EMPTY_SCORE) --n;
  print_ids("of 1, 2 and 4 now, best first", found, n);

  /* A new index gives back what the old one still held of replaced and deleted rows. */
  qx_index_build(rebuilt, out_vectors, qx_index_export_visible(index, out_vectors, out_ids), 2,
                 out_ids, NULL, NULL, NULL, 0);
  qx_index_free(index);
  printf("rebuilt: snapshot %" PRIu64 ", ", qx_index_snapshot(rebuilt));
  print_ids("base", out_ids, qx_index_export_base(rebuilt, out_vectors, out_ids));
  qx_index_free(rebuilt);
  return 0;
}
