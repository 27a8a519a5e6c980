#include "peers/one_row.h"

#include <algorithm>

namespace bench {
namespace {

// Rows whose scores are offered together.
constexpr std::int64_t kBlockRows = 64;

}  // namespace

float score_one_row(const float* row, const float* query, std::int64_t dim) {
  float sum = 0.0f;
  for (std::int64_t j = 0; j < dim; ++j) sum = __builtin_fmaf(row[j], query[j], sum);
  return sum;
}

float scan_one_row(const Matrix& matrix, const float* query, std::int64_t k) {
  Selection best(k);
  float scores[kBlockRows];
  for (std::int64_t first = 0; first < matrix.rows; first += kBlockRows) {
    const std::int64_t rows = std::min(kBlockRows, matrix.rows - first);
    for (std::int64_t i = 0; i < rows; ++i) {
      scores[i] = score_one_row(matrix.values + (first + i) * matrix.dim, query, matrix.dim);
    }
    best.offer(scores, first, rows);
  }
  return best.best();
}

}  // namespace bench
