#include <algorithm>

#include "peers/peers.h"
#include "peers/selection.h"

namespace bench {
namespace {
constexpr std::int64_t kBlockRows = 64;  // whose scores are offered together
}

float score_one_row(const float* row, const float* query, std::int64_t dim) {
  float sum = 0.0f;
  for (std::int64_t j = 0; j < dim; ++j) sum = __builtin_fmaf(row[j], query[j], sum);
  return sum;
}

FlatPeer one_row(const Matrix& matrix, std::int64_t k) {
  return {"one row at a time, -O3 -mavx2 -mfma", [matrix, k](const float* query) {
            Selection best(k);
            float scores[kBlockRows];
            for (std::int64_t first = 0; first < matrix.rows; first += kBlockRows) {
              const std::int64_t rows = std::min(kBlockRows, matrix.rows - first);
              const float* const block = matrix.values + first * matrix.dim;
              for (std::int64_t i = 0; i < rows; ++i) {
                scores[i] = score_one_row(block + i * matrix.dim, query, matrix.dim);
              }
              best.offer(scores, first, rows);
            }
            return best.best();
          }};
}

}  // namespace bench
