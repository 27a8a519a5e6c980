// Base rows as bits on the reader's stack, a span of the base at a time, made anew by each walk.
// Whoever knows which few rows to take or to leave marks them here; the walk then reads a word for
// 64 rows and looks nothing up.
#pragma once

#include <algorithm>
#include <cstdint>

namespace qx {

// Invariants: 0 <= count_ <= kMostRows. Bit i % 64 of word i / 64 says whether row first_ + i is in
// the set, for i below count_. Other bits have no value.
class RowSet {
 public:
#if defined(QX_SMALL_SPANS)
  // In builds for tests: random histories then have bases of several spans.
  static constexpr std::int64_t kMostRows = 128;
#else
  // 64 KiB, most of the stack that a walk needs.
  static constexpr std::int64_t kMostRows = std::int64_t{1} << 19;
#endif

  // Whether to go through `entries` ids that are marked, once for each span of a base of `rows`
  // rows, rather than to ask for each of these rows.
  static bool pays(std::int64_t entries, std::int64_t rows) {
    const std::int64_t spans = (rows + kMostRows - 1) / kMostRows;
    return rows > 0 && entries <= 2 * rows / spans;
  }

  // Makes this the set of all the `count` rows from `first` on, or of none of them.
  void reset(std::int64_t first, std::int64_t count, bool all) {
    first_ = first;
    count_ = count;
    std::fill_n(words_, (count + 63) / 64, all ? ~std::uint64_t{0} : 0);
  }

  // Rows outside of the span, -1 among them, may come and are ignored. No branch depends on it.
  void add(std::int64_t row) { words_[word(row)] |= bit(row); }
  void remove(std::int64_t row) { words_[word(row)] &= ~bit(row); }

  // The 64 rows from `row` on, which lies a multiple of 64 behind the first; bits behind the span
  // have no value.
  std::uint64_t block(std::int64_t row) const { return words_[(row - first_) / 64]; }

 private:
  // The place of a row behind the first, and whether it is in the span. Outside of it, there is a
  // word all the same, but no bit.
  std::uint64_t place(std::int64_t row) const {
    return static_cast<std::uint64_t>(row) - static_cast<std::uint64_t>(first_);
  }
  std::uint64_t inside(std::int64_t row) const {
    return place(row) < static_cast<std::uint64_t>(count_) ? 1 : 0;
  }
  std::uint64_t word(std::int64_t row) const { return (place(row) & -inside(row)) / 64; }
  std::uint64_t bit(std::int64_t row) const { return inside(row) << (place(row) % 64); }

  std::int64_t first_ = 0;
  std::int64_t count_ = 0;
  std::uint64_t words_[kMostRows / 64];
};

}  // namespace qx
