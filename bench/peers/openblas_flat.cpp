// OpenBLAS, sgemv, and a selection of the best. The rows are multiplied in blocks whose scores stay
// in the first-level cache, which is never slower than one product over all of them.
#include <cblas.h>

#include <algorithm>
#include <memory>

#include "peers/flat.h"
#include "peers/selection.h"

namespace bench {
namespace {

constexpr std::int64_t kBlockRows = 4096;

class OpenblasFlat : public FlatPeer {
 public:
  explicit OpenblasFlat(const Matrix& matrix) : matrix_(matrix) {}

  const char* name() const override { return "OpenBLAS sgemv, selection"; }

  float search(const float* query, std::int64_t k) override {
    Selection best(k);
    for (std::int64_t first = 0; first < matrix_.rows; first += kBlockRows) {
      const std::int64_t rows = std::min(kBlockRows, matrix_.rows - first);
      const auto dim = static_cast<blasint>(matrix_.dim);
      cblas_sgemv(CblasRowMajor, CblasNoTrans, static_cast<blasint>(rows), dim, 1.0f,
                  matrix_.values + first * matrix_.dim, dim, query, 1, 0.0f, scores_, 1);
      best.offer(scores_, first, rows);
    }
    return best.best();
  }

 private:
  Matrix matrix_;
  float scores_[kBlockRows] = {};
};

}  // namespace

std::unique_ptr<FlatPeer> make_openblas_flat(const Matrix& matrix) {
  return std::make_unique<OpenblasFlat>(matrix);
}

}  // namespace bench
