// The rows of a large base, known without storing them: a piece of rows, repeated, except for a few
// champions; and the oracle, which scores and ranks them one by one.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <map>

#include "scale/pieces.h"
#include "scale/stages.h"
#include "support/random.h"

namespace qx_scale {

inline float score_of(const float* row, const Floats& query) {
  float score = 0;
  for (std::size_t j = 0; j < query.size(); ++j) score = std::fma(row[j], query[j], score);
  return score;
}

// Keeps the k best of the rows offered; among equal scores, the earlier one.
class Oracle {
 public:
  explicit Oracle(std::size_t k) : k_(k) {}

  void offer(float score, std::int64_t id) {
    if (hits_.ids.size() == k_ && !(score > hits_.scores.back())) return;
    const auto at =
        std::upper_bound(hits_.scores.begin(), hits_.scores.end(), score, std::greater<>()) -
        hits_.scores.begin();
    hits_.scores.insert(hits_.scores.begin() + at, score);
    hits_.ids.insert(hits_.ids.begin() + at, id);
    if (hits_.ids.size() <= k_) return;
    hits_.scores.pop_back();
    hits_.ids.pop_back();
  }
  const Hits& hits() const { return hits_; }

 private:
  std::size_t k_;
  Hits hits_;
};

// Champions beat all other rows, in an order that differs from that of their rows. They are where
// offsets, in bytes or in elements, exceed powers of two, and at both ends.
class Rows {
 public:
  explicit Rows(std::int64_t count) : count_(count), piece_(kPieceRows * kRowBytes) {
    qx_test::Random random(7);
    const auto draw = [&] {
      return static_cast<float>(random.between(-(1 << 20), 1 << 20)) * 0x1p-20f;
    };
    for (std::int64_t j = 0; j < kWidth; ++j) query_.push_back(draw());
    float* const floats = piece_.as<float>();
    std::generate_n(floats, kPieceRows * kWidth, draw);
    for (std::int64_t r = 0; r < kPieceRows; ++r) {
      scores_.push_back(score_of(floats + r * kWidth, query_));
    }
    choose_champions();
  }

  std::int64_t count() const { return count_; }
  const Piece& piece() const { return piece_; }
  const Floats& query() const { return query_; }

  // Every id is odd; the table of ids is twice as long as the base.
  static std::int64_t id_of(std::int64_t row) { return 2 * row + 1; }

  // A row's vector; that of a champion occurs only once.
  const float* vector(std::int64_t row) const {
    const auto champion = champions_.find(row);
    return champion != champions_.end() ? champion->second.data()
                                        : piece_.as<float>() + row % kPieceRows * kWidth;
  }
  float score(std::int64_t row) const {
    return champions_.count(row) != 0 ? score_of(vector(row), query_)
                                      : scores_[static_cast<std::size_t>(row % kPieceRows)];
  }
  const std::map<std::int64_t, Floats>& champions() const { return champions_; }

  static constexpr std::int64_t kRowBytes = kWidth * 4;
  // Whole pages, and not a power of two: an offset that wraps at one reaches different rows.
  static constexpr std::int64_t kPieceRows = std::int64_t{8} * 16381;

 private:
  void choose_champions() {
    Ids places = {0, count_ / 3, count_ - 2, count_ - 1};
    for (const std::int64_t power : {31, 32, 33, 34}) {
      const std::int64_t row = (std::int64_t{1} << power) / kRowBytes;
      for (const std::int64_t near : {row - 1, row, row + 1}) {
        if (near < count_) places.push_back(near);
      }
    }
    std::int64_t rank = 0;
    for (const std::int64_t place : places) {
      rank = (rank + 7) % 23;
      Floats vector = query_;
      for (float& value : vector) value *= 1 + static_cast<float>(rank) / 32;
      champions_[place] = vector;
    }
  }

  std::int64_t count_;
  Piece piece_;
  Floats query_;
  Floats scores_;
  std::map<std::int64_t, Floats> champions_;
};

}  // namespace qx_scale
