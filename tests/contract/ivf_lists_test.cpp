// IVF structures: how they are attached under keys, replaced, changed and cleared.
#include <limits>

#include "support/host.h"

namespace qx_test {
namespace {

constexpr std::int64_t kLowestKey = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighestKey = std::numeric_limits<std::int64_t>::max();
constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();

// With dimension 1 and the query {1} a row's score is its only component.
const Floats kOne{1};

// Rows with ids 1 to 4 and scores 1 to 4.
class FourRows : public Index {
 public:
  FourRows() : Index(1) { seal(*this, 1, {1, 2, 3, 4}, {1, 2, 3, 4}); }
};

// One list that is scanned, with these members.
Ivf one_list(const Ids& members) {
  return {1, 1, {1}, members, {0, static_cast<std::int32_t>(members.size())}};
}

TEST(IvfLists, ANewIndexHasNone) {
  const Index index(1);
  EXPECT_EQ(qx_index_has_ivf(index, 7), 0);
  EXPECT_EQ(qx_index_has_ivf(index, 0), 0);
}

TEST(IvfLists, AnAttachedKeyIsPresentAndItsNeighbourIsNot) {
  const Index index(1);
  EXPECT_EQ(set_ivf(index, 7, one_list({1})), 0);
  EXPECT_EQ(qx_index_has_ivf(index, 7), 1);
  EXPECT_EQ(qx_index_has_ivf(index, 8), 0);
}

TEST(IvfLists, AnyKeyIsValid) {
  const Ids keys{kLowestKey, kHighestKey, -1, 0, std::int64_t{1} << 40};
  const FourRows index;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(qx_index_has_ivf(index, keys[i]), 0);
    set_ivf(index, keys[i], one_list({static_cast<std::int64_t>(i)}));
  }
  for (std::size_t i = 1; i < keys.size(); ++i) {
    EXPECT_EQ(qx_index_has_ivf(index, keys[i]), 1);
    EXPECT_EQ(search_ivf(index, keys[i], kOne, 1),
              found({{static_cast<std::int64_t>(i), static_cast<float>(i)}}));
  }
}

TEST(IvfLists, ASecondStructureUnderAKeyReplacesTheFirst) {
  const FourRows index;
  EXPECT_EQ(set_ivf(index, 7, {2, 2, {1, 2}, {1, 2, 3}, {0, 1, 3}}), 0);
  EXPECT_EQ(search_ivf(index, 7, kOne, 4), found({{3, 3}, {2, 2}, {1, 1}, kEmptySlot}));
  EXPECT_EQ(set_ivf(index, 7, one_list({4})), 0);
  EXPECT_EQ(qx_index_has_ivf(index, 7), 1);
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({{4, 4}, kEmptySlot}));
}

TEST(IvfLists, ReplacingOneKeyLeavesTheOthers) {
  const FourRows index;
  set_ivf(index, 7, one_list({1}));
  set_ivf(index, 9, one_list({2}));
  set_ivf(index, 7, one_list({3}));
  EXPECT_EQ(search_ivf(index, 7, kOne, 1), found({{3, 3}}));
  EXPECT_EQ(search_ivf(index, 9, kOne, 1), found({{2, 2}}));
}

TEST(IvfLists, TheProbeCountOfAnUnknownKeyCannotBeSet) {
  const Index index(1);
  EXPECT_EQ(qx_index_set_ivf_nprobe(index, 7, 3), -1);
  set_ivf(index, 7, one_list({1}));
  EXPECT_EQ(qx_index_set_ivf_nprobe(index, 8, 3), -1);
  EXPECT_EQ(qx_index_has_ivf(index, 8), 0);
}

TEST(IvfLists, AnyProbeCountIsTaken) {
  const FourRows index;
  set_ivf(index, 7, {2, 1, {1, 2}, {1, 2}, {0, 1, 2}});
  const Found none = found({kEmptySlot, kEmptySlot});
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({{2, 2}, kEmptySlot}));
  for (const std::int32_t nprobe : {0, -1, kLowest}) {
    EXPECT_EQ(qx_index_set_ivf_nprobe(index, 7, nprobe), 0);
    EXPECT_EQ(search_ivf(index, 7, kOne, 2), none) << "nprobe " << nprobe;
  }
  for (const std::int32_t nprobe : {2, kHighest}) {
    EXPECT_EQ(qx_index_set_ivf_nprobe(index, 7, nprobe), 0);
    EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({{2, 2}, {1, 1}})) << "nprobe " << nprobe;
  }
}

TEST(IvfLists, TheProbeCountOfOneKeyIsSetAlone) {
  const FourRows index;
  set_ivf(index, 7, one_list({1}));
  set_ivf(index, 9, one_list({2}));
  EXPECT_EQ(qx_index_set_ivf_nprobe(index, 9, 0), 0);
  EXPECT_EQ(search_ivf(index, 7, kOne, 1), found({{1, 1}}));
  EXPECT_EQ(search_ivf(index, 9, kOne, 1), found({kEmptySlot}));
}

TEST(IvfLists, AStructureWithoutListsReadsOneOffset) {
  const Index index(3);
  const Guarded<std::int32_t> offset(1, 0);
  EXPECT_EQ(qx_index_set_ivf(index, 7, 0, 1, nullptr, nullptr, offset.data(), 0), 0);
  EXPECT_EQ(qx_index_has_ivf(index, 7), 1);
  EXPECT_EQ(search_ivf(index, 7, {1, 1, 1}, 2), nothing_written());
}

TEST(IvfLists, ANegativeListCountReadsNoOffsetsAndNoCentroids) {
  const Index index(3);
  for (const std::int32_t nlist : {-1, -2, kLowest}) {
    EXPECT_EQ(qx_index_set_ivf(index, nlist, nlist, 1, nullptr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(qx_index_has_ivf(index, nlist), 1);
    EXPECT_EQ(search_ivf(index, nlist, {1, 1, 1}, 2), nothing_written());
  }
}

TEST(IvfLists, ANegativeDimensionTimesANegativeListCountReadsTheProduct) {
  const Index index(static_cast<std::uint32_t>(-2));
  const Guarded<float> centroids(6, 1);
  EXPECT_EQ(qx_index_set_ivf(index, 7, -3, 1, centroids.data(), nullptr, nullptr, 0), 0);
  EXPECT_EQ(qx_index_has_ivf(index, 7), 1);
  const ChildEnd end = run_in_child([&] {
    const Guarded<float> too_few(5, 1);
    qx_index_set_ivf(index, 7, -3, 1, too_few.data(), nullptr, nullptr, 0);
  });
  EXPECT_NE(end.exit_status, 0) << "the sixth centroid value was not read";
}

TEST(IvfLists, ANegativeDimensionTimesAListCountReadsNoCentroids) {
  const Index index(0xFFFFFFFF);
  const Guarded<std::int32_t> offsets(3, 0);
  EXPECT_EQ(qx_index_set_ivf(index, 7, 2, 1, nullptr, nullptr, offsets.data(), 0), 0);
  EXPECT_EQ(search_ivf(index, 7, {}, 1), found({kEmptySlot}));
}

TEST(IvfLists, WithoutIdsNoIdIsRead) {
  const FourRows index;
  const Guarded<float> centroids(1, 1);
  const Guarded<std::int32_t> offsets(2, 0);
  for (const std::int32_t n_ids : {0, -1, kLowest}) {
    EXPECT_EQ(qx_index_set_ivf(index, 7, 1, 1, centroids.data(), nullptr, offsets.data(), n_ids),
              0);
    EXPECT_EQ(search_ivf(index, 7, kOne, 1), found({kEmptySlot}));
  }
}

TEST(IvfLists, BeforeABuildTheDimensionOfTheNewIndexCounts) {
  const Index index(2);
  EXPECT_EQ(set_ivf(index, 7, {2, 1, {1, 0, 0, 1}, {1, 2}, {0, 1, 2}}), 0);
  seal(index, 2, {1, 2}, {5, 6, 7, 8});
  EXPECT_EQ(search_ivf(index, 7, {1, 0}, 1), found({{1, 5}}));
  EXPECT_EQ(search_ivf(index, 7, {0, 1}, 1), found({{2, 8}}));
}

TEST(IvfLists, TheHostMayChangeItsArraysAfterwards) {
  const FourRows index;
  Floats centroids{1, 2};
  Ids list_ids{1, 3};
  Ints list_offsets{0, 1, 2};
  qx_index_set_ivf(index, 7, 2, 1, centroids.data(), list_ids.data(), list_offsets.data(), 2);
  centroids = {9, 0};
  list_ids = {2, 2};
  list_offsets = {0, 0, 0};
  EXPECT_EQ(search_ivf(index, 7, kOne, 1), found({{3, 3}}));
}

TEST(IvfLists, ClearingAnIndexWithoutStructuresReturnsZero) {
  const Index index(1);
  EXPECT_EQ(qx_index_clear_ivf(index), 0);
  EXPECT_EQ(qx_index_clear_ivf(index), 0);
  EXPECT_EQ(qx_index_has_ivf(index, 0), 0);
}

TEST(IvfLists, AfterAClearEveryKeyIsUnknown) {
  const FourRows index;
  set_ivf(index, 7, one_list({1}));
  set_ivf(index, 9, one_list({2}));
  EXPECT_EQ(qx_index_clear_ivf(index), 0);
  for (const std::int64_t key : {7, 9}) {
    EXPECT_EQ(qx_index_has_ivf(index, key), 0);
    EXPECT_EQ(qx_index_set_ivf_nprobe(index, key, 1), -1);
    EXPECT_EQ(search_ivf(index, key, kOne, 1), nothing_written());
  }
}

TEST(IvfLists, AfterAClearKeysCanBeAttachedAgain) {
  const FourRows index;
  set_ivf(index, 7, one_list({1}));
  set_ivf(index, 9, one_list({2}));
  qx_index_clear_ivf(index);
  set_ivf(index, 9, one_list({3}));
  EXPECT_EQ(qx_index_has_ivf(index, 7), 0);
  EXPECT_EQ(search_ivf(index, 9, kOne, 1), found({{3, 3}}));
}

TEST(IvfLists, MutationsLeaveThem) {
  const FourRows index;
  set_ivf(index, 7, one_list({1, 2}));
  insert(index, {1, 9}, {50, 60});
  delete_ids(index, {2});
  EXPECT_EQ(search_ivf(index, 7, kOne, 2), found({{2, 2}, {1, 1}}));
}

TEST(IvfLists, IvfKeysAreNotPartitionKeys) {
  const Index index(1);
  seal(index, 1, {1, 2}, {1, 2}, {{7}, {0}, {1}});
  EXPECT_EQ(qx_index_has_ivf(index, 7), 0);
  set_ivf(index, 7, one_list({2}));
  set_ivf(index, 8, one_list({2}));
  EXPECT_EQ(search_ivf(index, 7, kOne, 1), found({{2, 2}}));
  EXPECT_EQ(search_partition(index, 7, kOne, 1), found({{1, 1}}));
  EXPECT_EQ(search_partition(index, 8, kOne, 1), nothing_written());
}

TEST(IvfLists, ManyKeysKeepTheirOwnStructures) {
  const FourRows index;
  for (std::int64_t key = 0; key < 500; ++key) set_ivf(index, key << 32, one_list({key % 4 + 1}));
  for (std::int64_t key = 0; key < 500; ++key) {
    const std::int64_t id = key % 4 + 1;
    ASSERT_EQ(search_ivf(index, key << 32, kOne, 1), found({{id, static_cast<float>(id)}}));
    ASSERT_EQ(qx_index_has_ivf(index, (key << 32) + 1), 0);
  }
}

}  // namespace
}  // namespace qx_test
