// The selection of the best rows for peers that only compute scores. It is as good as it gets for
// few results: sixteen scores at a time are compared with the last slot, and few of them enter.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <vector>

namespace bench {
// Files under different compiler flags include this: each must keep the code that it compiled, and
// the linker must not replace it by another file's.
namespace {

class Selection {
 public:
  explicit Selection(std::int64_t k)
      : scores_(static_cast<std::size_t>(k), -std::numeric_limits<float>::infinity()),
        rows_(static_cast<std::size_t>(k), -1) {}

  float best() const { return scores_.front(); }

  // Offers the scores of the rows from `first` on.
  void offer(const float* scores, std::int64_t first, std::int64_t count) {
    for (std::int64_t start = 0; start < count; start += kRun) {
      const std::int64_t end = std::min(start + kRun, count);
      if (end - start == kRun && !any_above(scores + start, scores_.back())) continue;
      for (std::int64_t i = start; i < end; ++i) {
        if (scores[i] > scores_.back()) insert(scores[i], first + i);
      }
    }
  }

 private:
  static constexpr std::int64_t kRun = 16;
  static constexpr std::size_t kFewSlots = 64;

  static bool any_above(const float* scores, float bar) {
    int above = 0;
    // cppcheck-suppress objectIndex ; there are kRun scores wherever this is called
    for (std::int64_t i = 0; i < kRun; ++i) above |= scores[i] > bar;
    return above != 0;
  }

  // Of many slots, the place is found by halving, and those behind it are moved as a block.
  void insert(float score, std::int64_t row) {
    std::size_t slot = scores_.size() - 1;
    if (slot >= kFewSlots) {
      const auto last = scores_.end() - 1;
      const auto place = std::upper_bound(scores_.begin(), last, score, std::greater<>());
      slot = static_cast<std::size_t>(place - scores_.begin());
      std::copy_backward(place, last, scores_.end());
      std::copy_backward(rows_.begin() + (place - scores_.begin()), rows_.end() - 1, rows_.end());
    }
    for (; slot > 0 && scores_[slot - 1] < score; --slot) {
      scores_[slot] = scores_[slot - 1];
      rows_[slot] = rows_[slot - 1];
    }
    scores_[slot] = score;
    rows_[slot] = row;
  }

  std::vector<float> scores_;
  std::vector<std::int64_t> rows_;
};

}  // namespace
}  // namespace bench
