// OpenBLAS, sgemv, and a selection of the best. The rows are multiplied in blocks whose scores stay
// in the first-level cache, which is never slower than one product over all of them.
#include <cblas.h>
#include <omp.h>

#include <algorithm>

#include "peers/peers.h"
#include "peers/selection.h"

namespace bench {
namespace {
constexpr std::int64_t kBlockRows = 4096;
}

void use_one_thread() {
  omp_set_num_threads(1);
  openblas_set_num_threads(1);
}

FlatPeer openblas_flat(const Matrix& matrix, std::int64_t k) {
  return {"OpenBLAS sgemv, selection",
          [matrix, k, scores = std::vector<float>(kBlockRows)](const float* query) mutable {
            Selection best(k);
            for (std::int64_t first = 0; first < matrix.rows; first += kBlockRows) {
              const std::int64_t rows = std::min(kBlockRows, matrix.rows - first);
              const auto dim = static_cast<blasint>(matrix.dim);
              cblas_sgemv(CblasRowMajor, CblasNoTrans, static_cast<blasint>(rows), dim, 1.0f,
                          matrix.values + first * matrix.dim, dim, query, 1, 0.0f, scores.data(),
                          1);
              best.offer(scores.data(), first, rows);
            }
            return best.best();
          }};
}

}  // namespace bench
