// One bit for each base row of a span, on the reader's stack. It knows rows, not why they are
// marked.
#pragma once

#include <algorithm>

#include "support/abort.h"

namespace qx {

// Invariants: 0 <= count_ <= kMaxRows. Bit i % 64 of word i / 64 is that of row first_ + i, for i
// below count_. Other bits have no meaning.
class RowBitmap {
 public:
#if defined(QX_SMALL_SPANS)
  // In builds for tests: the bases of random call sequences then have several spans.
  static constexpr std::int64_t kMaxRows = 128;
#else
  // 64 KiB, most of the stack that a read needs.
  static constexpr std::int64_t kMaxRows = std::int64_t{1} << 19;
#endif

  // True if filling the bitmap from `entries` ids, once per span, is cheaper than one lookup per
  // row of a base of `rows` rows.
  static bool is_worthwhile(std::int64_t entries, std::int64_t rows) {
    const std::int64_t spans = (rows + kMaxRows - 1) / kMaxRows;
    return rows > 0 && entries <= 2 * rows / spans;
  }

  // Covers the `count` rows from `first` on, all set or all clear.
  void reset(std::int64_t first, std::int64_t count, bool set) {
    QX_ASSERT(count >= 0 && count <= kMaxRows);
    first_ = first;
    count_ = count;
    std::fill_n(words_, (count + 63) / 64, set ? ~std::uint64_t{0} : 0);
  }

  // One bit for each row, from the first on; bits past the span have no meaning.
  const std::uint64_t* words() const { return words_; }

  // For a row outside the span, -1 among them, these do nothing. Branch-free.
  void set(std::int64_t row) { words_[word(row)] |= bit(row); }
  void clear(std::int64_t row) { words_[word(row)] &= ~bit(row); }

  // The mask of the 64 rows from `offset` after the first on; bits past the span have no meaning.
  // Requires: offset is a multiple of 64.
  std::uint64_t mask(std::int64_t offset) const {
    QX_ASSERT(offset % 64 == 0 && offset >= 0 && offset < count_);
    return words_[offset / 64];
  }
  void set_mask(std::int64_t offset, std::uint64_t mask) {
    QX_ASSERT(offset % 64 == 0 && offset >= 0 && offset < count_);
    words_[offset / 64] = mask;
  }

 private:
  std::uint64_t offset_of(std::int64_t row) const {
    return static_cast<std::uint64_t>(row) - static_cast<std::uint64_t>(first_);
  }
  std::uint64_t is_inside(std::int64_t row) const {
    return offset_of(row) < static_cast<std::uint64_t>(count_) ? 1 : 0;
  }
  // For a row outside the span, word() is valid and bit() is 0.
  std::uint64_t word(std::int64_t row) const { return (offset_of(row) & -is_inside(row)) / 64; }
  std::uint64_t bit(std::int64_t row) const { return is_inside(row) << (offset_of(row) % 64); }

  std::int64_t first_ = 0;
  std::int64_t count_ = 0;
  std::uint64_t words_[kMaxRows / 64];
};

}  // namespace qx
