/*
 * The nearest neighbours of a query among vectors that are loaded once.
 *
 * Introduces: qx_runtime_format_version qx_index_new qx_index_build qx_index_sealed qx_index_stats
 *             qx_index_search_full qx_index_free
 *
 * Prints:
 *   interface 1
 *   sealed 1: 4 rows of 3 floats in 0 partitions, tag 2026
 *   2 found:
 *     id 30 (0.93)
 *     id 10 (0.80)
 */
#include <inttypes.h>
#include <stdio.h>

#include "qx_runtime.h"

int main(void) {
  /* Four vectors of length 1, so that the inner product is the cosine of the angle. */
  const float vectors[4 * 3] = {1.0f, 0.0f, 0.0f, 0.0f, 1.0f, 0.0f,
                                0.8f, 0.6f, 0.0f, 0.0f, 0.0f, 1.0f};
  const int64_t ids[4] = {10, 20, 30, 40};
  const float query[3] = {0.8f, 0.48f, 0.36f};
  int64_t found[2];
  float scores[2];
  uint64_t rows;
  uint32_t dim, tag;
  int32_t parts, count, i;
  QxIndex* index;

  printf("interface %d\n", qx_runtime_format_version());
  if (qx_runtime_format_version() != QX_RUNTIME_FORMAT_VERSION) return 1;

  index = qx_index_new(3, 2026);
  if (qx_index_build(index, vectors, 4, 3, ids, NULL, NULL, NULL, 0) != 0) {
    fprintf(stderr, "the base was rejected\n");
    qx_index_free(index);
    return 1;
  }
  qx_index_stats(index, &rows, &dim, &tag, &parts);
  printf("sealed %u: %" PRIu64 " rows of %u floats in %d partitions, tag %u\n",
         qx_index_sealed(index), rows, dim, parts, tag);

  /* The host's arrays hold k slots each; the best comes first. */
  count = qx_index_search_full(index, query, 2, found, scores);
  printf("%d found:\n", count);
  for (i = 0; i < count; ++i) printf("  id %" PRId64 " (%.2f)\n", found[i], scores[i]);

  qx_index_free(index);
  return 0;
}
