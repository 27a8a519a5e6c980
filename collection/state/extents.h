// Between which values each component of a group of rows lies: what bounds the scores of all of
// them at once, for a query of few components.
#pragma once

#include <algorithm>
#include <limits>
#include <mutex>
#include <vector>

namespace qx::collection {

class Extents {
 public:
  static constexpr std::int64_t kGroupRows = 1024;
  static constexpr std::int64_t bytes_of(std::int64_t rows, std::int64_t dim) {
    return groups_of(rows) * 2 * dim * std::int64_t{sizeof(float)};
  }

  Extents(std::int64_t rows, std::int64_t dim) : dim_(dim), values_(empty(groups_of(rows))) {}

  // Takes rows `first` to `end` - 1 in, of an array of all rows. Threads may do so at the same
  // time.
  void add(const float* rows, std::int64_t first, std::int64_t end) {
    for (std::int64_t next = first; first < end; first = next) {
      next = std::min(end, end_of_group(first));
      std::vector<float> of_these = empty(1);
      for (std::int64_t row = first; row < next; ++row) {
        widen(of_these.data(), rows + row * dim_, rows + row * dim_);
      }
      const std::lock_guard lock(adding_);
      widen(at(first / kGroupRows), of_these.data(), of_these.data() + dim_);
    }
  }

  static constexpr std::int64_t end_of_group(std::int64_t row) {
    return (row / kGroupRows + 1) * kGroupRows;
  }
  // Of the group of a row.
  const float* least(std::int64_t row) const {
    return values_.data() + row / kGroupRows * 2 * dim_;
  }
  const float* largest(std::int64_t row) const { return least(row) + dim_; }

 private:
  static constexpr std::int64_t groups_of(std::int64_t rows) {
    return (rows + kGroupRows - 1) / kGroupRows;
  }
  // Extents of groups without rows.
  std::vector<float> empty(std::int64_t groups) const {
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    std::vector<float> values(static_cast<std::size_t>(groups * 2 * dim_), kInfinity);
    for (std::int64_t group = 0; group < groups; ++group) {
      std::fill_n(values.begin() + (2 * group + 1) * dim_, dim_, -kInfinity);
    }
    return values;
  }
  float* at(std::int64_t group) { return values_.data() + group * 2 * dim_; }
  void widen(float* extents, const float* least, const float* largest) const {
    float* const most = extents + dim_;
    for (std::int64_t j = 0; j < dim_; ++j) {
      extents[j] = least[j] < extents[j] ? least[j] : extents[j];
      most[j] = largest[j] > most[j] ? largest[j] : most[j];
    }
  }

  std::int64_t dim_;
  std::vector<float> values_;  // of each group: the least of each component, then the largest
  std::mutex adding_;
};

}  // namespace qx::collection
