#include "search/best.h"

#include <algorithm>

namespace qx::collection {

bool Best::is_better(const Hit& one, const Hit& other) const {
  if (one.score != other.score) return one.score > other.score;
  return state_.key(one.at) < state_.key(other.at);
}

bool Best::rules_out(const Hit& bound) {
  if (bound.score != threshold()) return bound.score < threshold();
  const std::lock_guard lock(offering_);
  return std::ssize(heap_) == k_ && !is_better(bound, heap_.front());
}

void Best::insert(const Hit& hit) {
  const auto better = [&](const Hit& one, const Hit& other) { return is_better(one, other); };
  const bool is_full = std::ssize(heap_) == k_;
  if (is_full && !is_better(hit, heap_.front())) return;
  if (is_full) {
    std::ranges::pop_heap(heap_, better);
    heap_.back() = hit;
  } else {
    heap_.push_back(hit);
  }
  std::ranges::push_heap(heap_, better);
}

void Best::offer(std::size_t part, const std::int64_t* rows, const float* scores,
                 std::int64_t count) {
  const auto may_enter = [&](float score) { return score >= threshold(); };
  if (std::none_of(scores, scores + count, may_enter)) return;
  const std::lock_guard lock(offering_);
  for (std::int64_t i = 0; i < count; ++i) {
    if (may_enter(scores[i])) insert({scores[i], {part, rows[i]}});
  }
  if (std::ssize(heap_) == k_) {
    threshold_.store(heap_.front().score, std::memory_order_relaxed);
  }
}

std::vector<Hit> Best::take() {
  std::ranges::sort(heap_, [&](const Hit& one, const Hit& other) { return is_better(one, other); });
  return std::move(heap_);
}

}  // namespace qx::collection
