// The partition table: the rows that a key names in a search, and the list of large partitions.
#include <utility>

#include "support/cases.h"

namespace qx_test {
namespace {

// Rows 0 to 5 with ids 10 to 60 and scores 1 to 6, under the given partitions.
class SixRows : public Sealed {
 public:
  explicit SixRows(const Partitions& parts)
      : Sealed(1, {10, 20, 30, 40, 50, 60}, {1, 2, 3, 4, 5, 6}, parts) {}

  // The rows of a partition in base order, as a search for the worst finds them; none where it is
  // not searched.
  Found rows_of(std::int64_t key) const {
    Found rows = search_partition(*this, key, {-1}, 10);
    for (Hit& hit : rows.slots) hit.score = -hit.score;
    return rows;
  }
};

TEST(PartitionSearch, FindsTheKeysOfTablesOfEverySizeAndNoOthers) {
  for (std::int32_t n_parts = 0; n_parts <= 6; ++n_parts) {
    Partitions parts;
    for (std::int32_t p = 0; p < n_parts; ++p) {
      parts.keys.push_back(10 * p - 20);
      parts.starts.push_back(p);
      parts.sizes.push_back(1);
    }
    const SixRows index(parts);
    for (std::int64_t p = 0; p < n_parts; ++p) {
      EXPECT_EQ(index.rows_of(10 * p - 20), found({{10 * (p + 1), static_cast<float>(p + 1)}}));
      EXPECT_EQ(index.rows_of(10 * p - 21), nothing_written());
      EXPECT_EQ(index.rows_of(10 * p - 19), nothing_written());
    }
    EXPECT_EQ(index.rows_of(kLowestId), nothing_written());
    EXPECT_EQ(index.rows_of(kHighestId), nothing_written());
  }
}

TEST(PartitionSearch, UsesTheOneOfEqualKeysThatABinarySearchMeetsFirst) {
  const std::pair<Ids, std::int64_t> first_met[] = {
      {{5, 5}, 10},          {{5, 5, 5}, 20},       {{5, 5, 5, 5}, 20}, {{5, 5, 5, 5, 5}, 30},
      {{5, 5, 9, 9, 9}, 10}, {{1, 1, 1, 5, 5}, 40}, {{1, 5, 5, 9}, 20}};
  for (const auto& [keys, id] : first_met) {
    const SixRows index({keys, {0, 1, 2, 3, 4}, Ints(5, 1)});
    EXPECT_EQ(index.rows_of(5), found({{id, static_cast<float>(id) / 10}}));
  }
}

TEST(PartitionSearch, WritesNothingWhereARangeIsEmptyOrLeavesTheBase) {
  const std::pair<std::int32_t, std::int32_t> ranges[] = {{0, 0},
                                                          {3, 0},
                                                          {6, 0},
                                                          {4, 3},
                                                          {0, 7},
                                                          {6, 1},
                                                          {-1, 3},
                                                          {3, -1},
                                                          {kLowest, 3},
                                                          {0, kLowest},
                                                          {kLowest, kHighest},
                                                          {kHighest, 1},
                                                          {1, kHighest},
                                                          {2, kHighest},
                                                          {kHighest, kHighest}};
  for (const auto& [start, size] : ranges) {
    const SixRows index({{1, 2, 3}, {0, start, 2}, {1, size, 2}});
    EXPECT_EQ(index.rows_of(2), nothing_written()) << start << ", " << size;
    EXPECT_EQ(index.rows_of(1), found({{10, 1}}));
    EXPECT_EQ(index.rows_of(3), found({{30, 3}, {40, 4}}));
  }
}

struct Oversized {
  Ids keys;
  Ids sizes;

  friend bool operator==(const Oversized&, const Oversized&) = default;
};

Oversized oversized(QxIndex* index, std::int32_t threshold) {
  const auto slots = static_cast<std::size_t>(stats(index).n_parts) + kSpareSlots;
  Guarded<std::int64_t> keys(slots, kUntouchedId);
  Guarded<std::int64_t> sizes(slots, kUntouchedId);
  const std::int32_t listed = qx_index_tuner_oversized(index, threshold, keys.data(), sizes.data());
  Oversized result{written(keys, kUntouchedId), written(sizes, kUntouchedId)};
  EXPECT_EQ(listed, static_cast<std::int32_t>(result.keys.size()));
  return result;
}

TEST(Tuner, ListsPartitionsOfAtLeastTheThresholdInTableOrder) {
  const SixRows index({{0, 10, 20, 30, 40}, Ints(5, 0), {0, -1, 5, kLowest, kHighest}});
  EXPECT_EQ(oversized(index, kLowest),
            (Oversized{{0, 10, 20, 30, 40}, {0, -1, 5, kLowest, kHighest}}));
  EXPECT_EQ(oversized(index, 0), (Oversized{{0, 20, 40}, {0, 5, kHighest}}));
  EXPECT_EQ(oversized(index, 5), (Oversized{{20, 40}, {5, kHighest}}));
  EXPECT_EQ(oversized(index, 6), (Oversized{{40}, {kHighest}}));
  EXPECT_EQ(oversized(index, kHighest), (Oversized{{40}, {kHighest}}));
}

}  // namespace
}  // namespace qx_test
