/*
 * An inverted file: the host clusters its rows, and a search looks into the clusters whose
 * centroids are nearest instead of at all rows.
 *
 * Introduces: qx_runtime_format_version qx_index_sealed qx_index_set_ivf qx_index_has_ivf
 *             qx_index_search_ivf qx_index_set_ivf_nprobe qx_index_clear_ivf
 *
 * Prints:
 *   interface 1, sealed 1
 *   attached 1
 *   1 list: id 0 (0.99), id 1 (0.93)
 *   2 lists: id 0 (0.99), id 4 (0.94)
 *   attached 0
 */
#include <inttypes.h>
#include <stdio.h>

#include "qx_runtime.h"

enum { KEY = 1, LISTS = 3, ROWS = 6 };

static void search(const QxIndex* index, const char* what) {
  const float query[2] = {0.9f, 0.45f};
  int64_t found[2];
  float scores[2];
  qx_index_search_ivf(index, KEY, query, 2, found, scores); /* every list has two rows */
  printf("%s: id %" PRId64 " (%.2f), id %" PRId64 " (%.2f)\n", what, found[0], scores[0], found[1],
         scores[1]);
}

int main(void) {
  const float vectors[ROWS * 2] = {1.0f,  0.2f, 0.98f, 0.1f, 0.1f, 1.0f,
                                   -0.2f, 0.9f, 0.7f,  0.7f, 0.5f, 0.8f};
  const int64_t ids[ROWS] = {0, 1, 2, 3, 4, 5};
  /* What a clustering gives: a centroid for each list, and the ids of each list's rows. */
  const float centroids[LISTS * 2] = {0.99f, 0.15f, -0.05f, 0.95f, 0.6f, 0.75f};
  const int64_t list_ids[ROWS] = {0, 1, 2, 3, 4, 5};
  const int32_t list_offsets[LISTS + 1] = {0, 2, 4, 6}; /* list c: offset c up to c + 1 */
  QxIndex* index = qx_index_new(2, 0);
  if (qx_index_build(index, vectors, ROWS, 2, ids, NULL, NULL, NULL, 0) != 0) return 1;
  printf("interface %d, sealed %u\n", qx_runtime_format_version(), qx_index_sealed(index));

  qx_index_set_ivf(index, KEY, LISTS, 1, centroids, list_ids, list_offsets, ROWS);
  printf("attached %d\n", qx_index_has_ivf(index, KEY));
  search(index, "1 list");

  /* More lists find more, and take longer; all of them are the exact search. */
  qx_index_set_ivf_nprobe(index, KEY, 2);
  search(index, "2 lists");

  qx_index_clear_ivf(index);
  printf("attached %d\n", qx_index_has_ivf(index, KEY));
  qx_index_free(index);
  return 0;
}
