// The bitmap of base rows against a standard set.
#include "read/row_bitmap.h"

#include <gtest/gtest.h>

#include <new>
#include <set>

#include "support/guarded.h"
#include "support/random.h"

namespace qx_test {
namespace {

using qx::RowBitmap;

// A bitmap that ends at a page that cannot be written, and is used again and again.
class Bitmap : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(place_.data()) % alignof(RowBitmap), 0u);
    bitmap_ = new (place_.data()) RowBitmap;
  }

  // Marks rows in and around the span, also by whole masks, and asks for each of its rows.
  void expect_the_marked_rows(std::int64_t first, std::int64_t count, bool all) {
    std::set<std::int64_t> model;
    bitmap_->reset(first, count, all);
    for (std::int64_t row = first; all && row < first + count; ++row) model.insert(row);
    for (int i = 0; i < 500; ++i) {
      const std::int64_t row = random_.between(first - count / 4 - 1, first + count + count / 4);
      const bool inside = row >= first && row < first + count;
      if (random_.percent(50)) {
        bitmap_->set(row);
        if (inside) model.insert(row);
      } else {
        bitmap_->clear(row);
        model.erase(row);
      }
    }
    // The first row after the span is the nearest that a wrong comparison lets in, above all where
    // it would be the first of a word.
    const std::int64_t end = first + count;
    for (const std::int64_t row : {end, end + 1, end + 63, end + 64, first - 1, first - 64,
                                   std::int64_t{-1}, INT64_MIN, INT64_MAX}) {
      bitmap_->set(row);
      bitmap_->clear(row);
    }
    for (std::int64_t i = 0; i < count; ++i) {
      const bool marked = (bitmap_->mask(i / 64 * 64) >> (i % 64) & 1) != 0;
      ASSERT_EQ(marked, model.count(first + i) != 0) << "row " << first + i << " of " << count;
    }
  }

  Random random_{21};
  Guarded<unsigned char> place_{sizeof(RowBitmap)};
  RowBitmap* bitmap_ = nullptr;
};

TEST_F(Bitmap, HoldsTheMarkedRowsOfItsSpanAndIgnoresOthers) {
  for (const std::int64_t count : {1LL, 63LL, 64LL, 65LL, 1000LL, 1LL * RowBitmap::kMaxRows}) {
    if (count > RowBitmap::kMaxRows) continue;
    for (const std::int64_t spans : {0, 1, 3, 5}) {
      for (const bool all : {false, true}) {
        expect_the_marked_rows(spans * RowBitmap::kMaxRows, count, all);
      }
    }
  }
}

TEST_F(Bitmap, TakesWholeMasksAndForgetsThemWhenItIsReset) {
  bitmap_->reset(64, 128, true);
  bitmap_->reset(64, 128, false);
  EXPECT_EQ(bitmap_->mask(0), 0u);
  EXPECT_EQ(bitmap_->mask(64), 0u);
  bitmap_->set_mask(64, 5);
  EXPECT_EQ(bitmap_->mask(0), 0u);
  EXPECT_EQ(bitmap_->mask(64), 5u);
  bitmap_->reset(64, 128, true);
  EXPECT_EQ(bitmap_->mask(64), ~std::uint64_t{0});
}

TEST_F(Bitmap, PaysForNoMoreThanTwoMarksARow) {
  EXPECT_TRUE(RowBitmap::is_worthwhile(0, 1));
  EXPECT_TRUE(RowBitmap::is_worthwhile(2, 1));
  EXPECT_FALSE(RowBitmap::is_worthwhile(3, 1));
  EXPECT_FALSE(RowBitmap::is_worthwhile(0, 0));
  EXPECT_TRUE(RowBitmap::is_worthwhile(2 * RowBitmap::kMaxRows, 10 * RowBitmap::kMaxRows));
  EXPECT_FALSE(RowBitmap::is_worthwhile(2 * RowBitmap::kMaxRows + 1, 10 * RowBitmap::kMaxRows));
}

}  // namespace
}  // namespace qx_test
