// The smallest program over a sharded index: each rank gives a row, and rank 0 prints the best.
#include <cstdio>

#include "sharded_index.hpp"

namespace {

void search() {
  qx::ShardedIndex index(MPI_COMM_WORLD, 2);
  const float own[] = {static_cast<float>(index.ranks().rank()), 1};
  index.build(own);
  const float query[] = {1, 0};
  for (const qx::Hits& hits : index.search_filtered(qx::Filter::all(), query, 2)) {
    for (const qx::Hit hit : hits) {
      std::printf("id %d, score %g; ", static_cast<int>(hit.id), static_cast<double>(hit.score));
    }
  }
}

}  // namespace

int main(int count, char** arguments) {
  MPI_Init(&count, &arguments);
  search();
  MPI_Finalize();
  return 0;
}
