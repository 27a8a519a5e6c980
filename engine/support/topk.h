// The top-k buffer rule, stated once: which candidates enter a result, and where. It knows scores
// and ids, not where they come from.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>

namespace qx {

// What an empty slot holds. The score is also the bar that a first candidate must pass.
inline constexpr std::int64_t kEmptyId = -1;
inline constexpr float kEmptyScore = -1e30f;
static_assert(std::bit_cast<std::uint32_t>(kEmptyScore) == 0xF149F2CA);

// The k best candidates so far, in the host's own two arrays.
// Invariants: k >= 1; scores never rise from slot 0 to slot k - 1; among equal scores the earlier
// arrival comes first; no slot holds a NaN, and none an occupied score of kEmptyScore or below.
class TopK {
 public:
  // Takes k slots and empties them.
  TopK(std::int64_t* ids, float* scores, std::int64_t k) : ids_(ids), scores_(scores), k_(k) {
    std::fill_n(scores_, k_, kEmptyScore);
    std::fill_n(ids_, k_, kEmptyId);
  }

  // Offers one candidate: it enters if it beats the last slot, behind all of its equals. A NaN
  // beats nothing.
  void offer(float score, std::int64_t id) {
    if (!(score > scores_[k_ - 1])) return;
    std::int64_t slot = k_ - 1;
    for (; slot > 0 && scores_[slot - 1] < score; --slot) {
      scores_[slot] = scores_[slot - 1];
      ids_[slot] = ids_[slot - 1];
    }
    scores_[slot] = score;
    ids_[slot] = id;
  }

  // Offers a block in order. Few candidates of a long scan enter, so a run is first compared with
  // the last slot as a whole, by a loop without branches that compilers turn into SIMD.
  void offer(const float* scores, const std::int64_t* ids, std::int64_t count) {
    for (std::int64_t first = 0; first < count; first += kRun) {
      const std::int64_t end = std::min(first + kRun, count);
      const float bar = scores_[k_ - 1];
      bool any = false;
      for (std::int64_t i = first; i < end; ++i) any |= scores[i] > bar;
      if (!any) continue;
      for (std::int64_t i = first; i < end; ++i) offer(scores[i], ids[i]);
    }
  }

 private:
  static constexpr std::int64_t kRun = 16;

  std::int64_t* ids_;
  float* scores_;
  std::int64_t k_;
};

}  // namespace qx
