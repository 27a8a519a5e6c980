// What a compiler makes of the plain loop when it may reorder sums and use every instruction of
// this machine: this file is compiled with -ffast-math -march=native.
#include <algorithm>
#include <memory>
#include <utility>
#include <vector>

#include "peers/flat.h"

namespace bench {
namespace {

float dot(const float* row, const float* query, std::int64_t dim) {
  float sum = 0.0f;
  for (std::int64_t j = 0; j < dim; ++j) sum += row[j] * query[j];
  return sum;
}

// The k best so far as a heap whose top is the worst of them.
class Heap {
 public:
  explicit Heap(std::int64_t k) : k_(static_cast<std::size_t>(k)) { entries_.reserve(k_ + 1); }

  void offer(float score, std::int64_t row) {
    if (entries_.size() == k_ && score <= entries_.front().first) return;
    entries_.emplace_back(score, row);
    std::push_heap(entries_.begin(), entries_.end(), std::greater<>());
    if (entries_.size() <= k_) return;
    std::pop_heap(entries_.begin(), entries_.end(), std::greater<>());
    entries_.pop_back();
  }

  float best() const { return std::max_element(entries_.begin(), entries_.end())->first; }

 private:
  std::size_t k_;
  std::vector<std::pair<float, std::int64_t>> entries_;
};

class FastMath : public FlatPeer {
 public:
  explicit FastMath(const Matrix& matrix) : matrix_(matrix) {}

  const char* name() const override { return "-ffast-math loop, heap"; }

  float search(const float* query, std::int64_t k) override {
    Heap heap(k);
    for (std::int64_t r = 0; r < matrix_.rows; ++r) {
      heap.offer(dot(matrix_.values + r * matrix_.dim, query, matrix_.dim), r);
    }
    return heap.best();
  }

 private:
  Matrix matrix_;
};

}  // namespace

std::unique_ptr<FlatPeer> make_fast_math(const Matrix& matrix) {
  return std::make_unique<FastMath>(matrix);
}

}  // namespace bench
