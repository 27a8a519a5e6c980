// The bitmap of base rows against a standard set.
#include "read/row_bitmap.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <set>

#include "support/guarded.h"
#include "support/random.h"

namespace {

using qx::RowBitmap;
using qx_test::Random;

// Marks rows in and around the span, and asks for each of its rows.
void expect_the_marked_rows(std::int64_t first, std::int64_t count, bool all) {
  Random random(21);
  const auto set = std::make_unique<RowBitmap>();
  std::set<std::int64_t> model;
  set->reset(first, count, all);
  for (std::int64_t row = first; all && row < first + count; ++row) model.insert(row);
  for (int i = 0; i < 500; ++i) {
    const std::int64_t row = random.between(first - count / 4 - 1, first + count + count / 4);
    const bool inside = row >= first && row < first + count;
    if (random.percent(50)) {
      set->set(row);
      if (inside) model.insert(row);
    } else {
      set->clear(row);
      model.erase(row);
    }
  }
  for (const std::int64_t outside : {std::int64_t{-1}, INT64_MIN, first + count, INT64_MAX}) {
    set->set(outside);
    set->clear(outside);
  }
  for (std::int64_t i = 0; i < count; ++i) {
    const bool marked = (set->mask(i / 64 * 64) >> (i % 64) & 1) != 0;
    ASSERT_EQ(marked, model.count(first + i) != 0) << "row " << first + i << " of " << count;
  }
}

TEST(RowBitmap, HoldsTheMarkedRowsOfItsSpanAndIgnoresOthers) {
  for (const std::int64_t count : {1LL, 63LL, 64LL, 65LL, 1000LL, 1LL * RowBitmap::kMaxRows}) {
    if (count > RowBitmap::kMaxRows) continue;
    for (const std::int64_t first :
         {std::int64_t{0}, RowBitmap::kMaxRows, 3 * RowBitmap::kMaxRows}) {
      for (const bool all : {false, true}) expect_the_marked_rows(first, count, all);
    }
  }
}

// The set ends at a page that cannot be written. A row that is the first one after the span, and
// would be the first of a word, is the nearest that a wrong comparison lets in.
TEST(RowBitmap, WritesNothingBehindItsLastWord) {
  qx_test::Guarded<unsigned char> place(sizeof(RowBitmap));
  ASSERT_EQ(reinterpret_cast<std::uintptr_t>(place.data()) % alignof(RowBitmap), 0u);
  auto* const set = new (place.data()) RowBitmap;
  for (const std::int64_t first : {std::int64_t{0}, RowBitmap::kMaxRows, 5 * RowBitmap::kMaxRows}) {
    for (const bool all : {false, true}) {
      set->reset(first, RowBitmap::kMaxRows, all);
      const std::int64_t end = first + RowBitmap::kMaxRows;
      for (const std::int64_t row : {end, end + 1, end + 63, end + 64, first - 1, first - 64}) {
        set->set(row);
        set->clear(row);
      }
      for (std::int64_t row = first; row < end; row += 64) {
        ASSERT_EQ(set->mask(row - first), all ? ~std::uint64_t{0} : 0) << "row " << row;
      }
      set->set(end - 1);
      EXPECT_EQ(set->mask(RowBitmap::kMaxRows - 64) >> 63, 1u);
    }
  }
}

TEST(RowBitmap, ForgetsWhatItHeldWhenItIsReset) {
  const auto set = std::make_unique<RowBitmap>();
  set->reset(0, 128, true);
  set->reset(0, 128, false);
  EXPECT_EQ(set->mask(0), 0u);
  EXPECT_EQ(set->mask(64), 0u);
  set->reset(0, 128, true);
  EXPECT_EQ(set->mask(64), ~std::uint64_t{0});
}

TEST(RowBitmap, PaysForNoMoreThanTwoMarksARow) {
  EXPECT_TRUE(RowBitmap::is_worthwhile(0, 1));
  EXPECT_TRUE(RowBitmap::is_worthwhile(2, 1));
  EXPECT_FALSE(RowBitmap::is_worthwhile(3, 1));
  EXPECT_FALSE(RowBitmap::is_worthwhile(0, 0));
  EXPECT_TRUE(RowBitmap::is_worthwhile(2 * RowBitmap::kMaxRows, 10 * RowBitmap::kMaxRows));
  EXPECT_FALSE(RowBitmap::is_worthwhile(2 * RowBitmap::kMaxRows + 1, 10 * RowBitmap::kMaxRows));
}

TEST(RowBitmap, TakesWholeMasks) {
  const auto set = std::make_unique<RowBitmap>();
  set->reset(64, 128, false);
  set->set_mask(64, 5);
  EXPECT_EQ(set->mask(0), 0u);
  EXPECT_EQ(set->mask(64), 5u);
}

}  // namespace
