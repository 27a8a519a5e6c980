// A host in C++11: it prints the id of the best of two rows.
#include <cstdint>
#include <cstdio>
#include <vector>

#include "qx_runtime.h"

int main() {
  const std::vector<float> rows = {1.0f, 0.0f, 0.0f, 1.0f};
  const std::vector<std::int64_t> ids = {3, 4};
  const std::vector<float> query = {0.25f, 0.5f};
  std::int64_t id = -1;
  float score = 0;
  QxIndex* const index = qx_index_new(2, 0);
  qx_index_insert(index, rows.data(), ids.data(), 2);
  if (qx_index_search_filtered(index, 0, 0, 0, query.data(), 1, &id, &score) != 1) return 1;
  std::printf("id %d, score %.2f\n", static_cast<int>(id), static_cast<double>(score));
  qx_index_free(index);
}
