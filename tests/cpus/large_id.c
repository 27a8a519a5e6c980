/* Builds a base whose largest id wants a table of 2^33 entries, which no 32-bit address space
 * holds: there the process must end by the trap of a failed allocation. */
#include "qx_runtime.h"

int main(void) {
  const float vector[] = {1.0f, 0.5f};
  const int64_t id = (int64_t)1 << 33;
  QxIndex* index = qx_index_new(2, 0);
  qx_index_build(index, vector, 1, 2, &id, 0, 0, 0, 0);
  qx_index_free(index);
  return 0;
}
