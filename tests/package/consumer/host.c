/* A host in C99: it prints the id of the best of two rows. */
#include <stdio.h>

#include "qx_runtime.h"

int main(void) {
  const float rows[] = {1.0f, 0.0f, 0.0f, 1.0f};
  const int64_t ids[] = {3, 4};
  const float query[] = {0.25f, 0.5f};
  int64_t id;
  float score;
  QxIndex* index = qx_index_new(2, 0);
  if (qx_index_build(index, rows, 2, 2, ids, NULL, NULL, NULL, 0) != 0) return 1;
  if (qx_index_search_full(index, query, 1, &id, &score) != 1) return 1;
  printf("id %d, score %.2f\n", (int)id, score);
  qx_index_free(index);
  return 0;
}
