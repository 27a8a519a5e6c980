// The set of base rows against a standard one.
#include "row_set.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <set>

#include "histories/random.h"
#include "support/guarded.h"
#include "visibility.h"

namespace {

using qx::RowSet;
using qx_test::Random;

// Marks rows in and around the span, and asks for each of its rows.
void expect_the_marked_rows(std::int64_t first, std::int64_t count, bool all) {
  Random random(21);
  const auto set = std::make_unique<RowSet>();
  std::set<std::int64_t> model;
  set->reset(first, count, all);
  for (std::int64_t row = first; all && row < first + count; ++row) model.insert(row);
  for (int i = 0; i < 500; ++i) {
    const std::int64_t row = random.between(first - count / 4 - 1, first + count + count / 4);
    const bool inside = row >= first && row < first + count;
    if (random.percent(50)) {
      set->add(row);
      if (inside) model.insert(row);
    } else {
      set->remove(row);
      model.erase(row);
    }
  }
  for (const std::int64_t outside : {std::int64_t{-1}, INT64_MIN, first + count, INT64_MAX}) {
    set->add(outside);
    set->remove(outside);
  }
  for (std::int64_t i = 0; i < count; ++i) {
    const bool marked = (set->block(first + i / 64 * 64) >> (i % 64) & 1) != 0;
    ASSERT_EQ(marked, model.count(first + i) != 0) << "row " << first + i << " of " << count;
  }
}

TEST(RowSet, HoldsTheMarkedRowsOfItsSpanAndIgnoresOthers) {
  for (const std::int64_t count : {1LL, 63LL, 64LL, 65LL, 1000LL, 1LL * RowSet::kMostRows}) {
    if (count > RowSet::kMostRows) continue;
    for (const std::int64_t first : {std::int64_t{0}, RowSet::kMostRows, 3 * RowSet::kMostRows}) {
      for (const bool all : {false, true}) expect_the_marked_rows(first, count, all);
    }
  }
}

// The set ends at a page that cannot be written. A row that is the first one behind the span, and
// would be the first of a word, is the nearest that a wrong comparison lets in.
TEST(RowSet, WritesNothingBehindItsLastWord) {
  qx_test::Guarded<unsigned char> place(sizeof(RowSet));
  ASSERT_EQ(reinterpret_cast<std::uintptr_t>(place.data()) % alignof(RowSet), 0u);
  auto* const set = new (place.data()) RowSet;
  for (const std::int64_t first : {std::int64_t{0}, RowSet::kMostRows, 5 * RowSet::kMostRows}) {
    for (const bool all : {false, true}) {
      set->reset(first, RowSet::kMostRows, all);
      const std::int64_t end = first + RowSet::kMostRows;
      for (const std::int64_t row : {end, end + 1, end + 63, end + 64, first - 1, first - 64}) {
        set->add(row);
        set->remove(row);
      }
      for (std::int64_t row = first; row < end; row += 64) {
        ASSERT_EQ(set->block(row), all ? ~std::uint64_t{0} : 0) << "row " << row;
      }
      set->add(end - 1);
      EXPECT_EQ(set->block(end - 64) >> 63, 1u);
    }
  }
}

TEST(RowSet, ForgetsWhatItHeldWhenItIsReset) {
  const auto set = std::make_unique<RowSet>();
  set->reset(0, 128, true);
  set->reset(0, 128, false);
  EXPECT_EQ(set->block(0), 0u);
  EXPECT_EQ(set->block(64), 0u);
  set->reset(0, 128, true);
  EXPECT_EQ(set->block(64), ~std::uint64_t{0});
}

TEST(RowSet, PaysForNoMoreThanTwoMarksARow) {
  EXPECT_TRUE(RowSet::pays(0, 1));
  EXPECT_TRUE(RowSet::pays(2, 1));
  EXPECT_FALSE(RowSet::pays(3, 1));
  EXPECT_FALSE(RowSet::pays(0, 0));
  EXPECT_TRUE(RowSet::pays(2 * RowSet::kMostRows, 10 * RowSet::kMostRows));
  EXPECT_FALSE(RowSet::pays(2 * RowSet::kMostRows + 1, 10 * RowSet::kMostRows));
}

TEST(RowSet, OfATestThatEveryIdPassesHoldsEveryRow) {
  const QxIndex index;
  const auto set = std::make_unique<RowSet>();
  set->reset(0, 128, false);
  qx::EveryId().mark(index, *set, 64, 128);
  EXPECT_EQ(set->block(64), ~std::uint64_t{0});
  EXPECT_EQ(set->block(128), ~std::uint64_t{0});
}

}  // namespace
