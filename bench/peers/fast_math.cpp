// What a compiler makes of the plain loop when it may reorder sums and use every instruction of
// this machine: this file is compiled with -ffast-math -march=native.
#include <algorithm>
#include <functional>
#include <utility>
#include <vector>

#include "peers/peers.h"

namespace bench {
namespace {

using Scored = std::pair<float, std::int64_t>;

float dot(const float* row, const float* query, std::int64_t dim) {
  float sum = 0.0f;
  for (std::int64_t j = 0; j < dim; ++j) sum += row[j] * query[j];
  return sum;
}

// The best so far are a heap whose top is the worst of them.
float search(const Matrix& matrix, std::size_t k, const float* query) {
  std::vector<Scored> heap;
  heap.reserve(k + 1);
  for (std::int64_t r = 0; r < matrix.rows; ++r) {
    const float score = dot(matrix.values + r * matrix.dim, query, matrix.dim);
    if (heap.size() == k && score <= heap.front().first) continue;
    heap.emplace_back(score, r);
    std::push_heap(heap.begin(), heap.end(), std::greater<>());
    if (heap.size() <= k) continue;
    std::pop_heap(heap.begin(), heap.end(), std::greater<>());
    heap.pop_back();
  }
  return std::max_element(heap.begin(), heap.end())->first;
}

}  // namespace

FlatPeer fast_math(const Matrix& matrix, std::int64_t k) {
  return {"-ffast-math loop, heap",
          [matrix, most = static_cast<std::size_t>(k)](const float* query) {
            return search(matrix, most, query);
          }};
}

}  // namespace bench
