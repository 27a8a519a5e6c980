#include "peers/flat.h"

#include <cblas.h>
#include <omp.h>

namespace bench {

FlatPeers make_flat_peers(const Matrix& matrix) {
  FlatPeers peers;
  peers.push_back(make_faiss_flat(matrix));
  peers.push_back(make_hnswlib_flat(matrix));
  peers.push_back(make_openblas_flat(matrix));
  peers.push_back(make_fast_math(matrix));
  return peers;
}

void use_one_thread() {
  omp_set_num_threads(1);
  openblas_set_num_threads(1);
}

}  // namespace bench
