// The tuner: two constants, and the list of the partitions that reach a size.
#include <limits>
#include <utility>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();

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

// Two rows under partitions of the given sizes, which may be wrong, with keys 0, 10, 20 ...
class SizedParts : public Index {
 public:
  explicit SizedParts(const Ints& sizes) : Index(1) {
    Partitions parts{{}, Ints(sizes.size(), 0), sizes};
    for (std::size_t p = 0; p < sizes.size(); ++p) {
      parts.keys.push_back(10 * static_cast<std::int64_t>(p));
    }
    seal(*this, 1, {1, 2}, {1, 2}, parts);
  }
};

std::pair<std::uint32_t, std::uint32_t> defaults() {
  std::uint32_t first = 1;
  std::uint32_t second = 1;
  EXPECT_EQ(qx_tuner_defaults(&first, &second), 0);
  return {first, second};
}

TEST(Tuner, APartitionOfExactlyTheThresholdIsListed) {
  const SizedParts index({4, 5, 6});
  EXPECT_EQ(oversized(index, 5), (Oversized{{10, 20}, {5, 6}}));
  EXPECT_EQ(oversized(index, 6), (Oversized{{20}, {6}}));
  EXPECT_EQ(oversized(index, 7), Oversized());
}

TEST(Tuner, PartitionsAreListedInTableOrder) {
  const SizedParts index({9, 1, 7, 8, 0, 9});
  EXPECT_EQ(oversized(index, 7), (Oversized{{0, 20, 30, 50}, {9, 7, 8, 9}}));
}

TEST(Tuner, ThresholdZeroListsEverySizeThatIsNotNegative) {
  const SizedParts index({0, -1, 5, kLowest, kHighest});
  EXPECT_EQ(oversized(index, 0), (Oversized{{0, 20, 40}, {0, 5, kHighest}}));
}

TEST(Tuner, TheLowestThresholdListsEveryPartition) {
  const SizedParts index({0, -1, 5, kLowest, kHighest});
  EXPECT_EQ(oversized(index, kLowest),
            (Oversized{{0, 10, 20, 30, 40}, {0, -1, 5, kLowest, kHighest}}));
}

TEST(Tuner, TheHighestThresholdListsOnlyTheHighestSize) {
  const SizedParts index({0, -1, 5, kLowest, kHighest});
  EXPECT_EQ(oversized(index, kHighest), (Oversized{{40}, {kHighest}}));
}

TEST(Tuner, WithoutPartitionsNothingIsWritten) {
  const Index unbuilt(1);
  EXPECT_EQ(oversized(unbuilt, kLowest), Oversized());
  const SizedParts sealed({});
  EXPECT_EQ(oversized(sealed, kLowest), Oversized());
}

TEST(Tuner, ListsThePartitionsOfTheLatestBuild) {
  const Index index(1);
  seal_to_be_replaced(index, 1, {1, 2}, {1, 2}, {{5, 6, 7}, {0, 0, 0}, {2, 2, 2}});
  seal(index, 1, {1, 2}, {1, 2}, {{8}, {0}, {1}});
  EXPECT_EQ(oversized(index, 1), (Oversized{{8}, {1}}));
}

TEST(Tuner, DeletesDoNotShrinkAPartition) {
  const SizedParts index({2});
  delete_ids(index, {1, 2});
  EXPECT_EQ(oversized(index, 2), (Oversized{{0}, {2}}));
}

TEST(Tuner, TheDefaultsAreTheSameInEveryState) {
  const std::pair<std::uint32_t, std::uint32_t> expected{20000, 980};
  EXPECT_EQ(defaults(), expected);
  const SizedParts index({30000});
  insert(index, {1}, {1});
  EXPECT_EQ(defaults(), expected);
  oversized(index, 5);
  EXPECT_EQ(defaults(), expected);
}

}  // namespace
}  // namespace qx_test
