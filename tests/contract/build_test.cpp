// A new index; the sealed base: what a build stores and rejects, and what a second one replaces.
#include "support/cases.h"

namespace qx_test {
namespace {

TEST(Lifecycle, ANewIndexReportsItsNumbersAndNothingElse) {
  for (const std::uint32_t number : {0u, 1u, 42u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
    const Index index(number, number + 1);
    const Observed nothing{{0, number, number + 1, 0}, 0, 0, 0, 0, {}, {}};
    EXPECT_EQ(observe(index), nothing);
  }
  EXPECT_EQ(qx_runtime_format_version(), QX_RUNTIME_FORMAT_VERSION);
}

// Tries each condition for a rejection.
void expect_rejections(QxIndex* index) {
  const auto build_nothing = [&](std::int64_t n, std::int32_t dim, std::int32_t n_parts) {
    return qx_index_build(index, nullptr, n, dim, nullptr, nullptr, nullptr, nullptr, n_parts);
  };
  const Observed before = observe(index);
  const Partitions parts{{1}, {0}, {1}};
  for (const std::int64_t id : {std::int64_t{-1}, kLowestId, QX_MAX_BASE_ID + 1, kHighestId}) {
    EXPECT_EQ(build(index, 1, {id}, {1}, parts), -1) << id;
    EXPECT_EQ(build(index, 1, {id, 5, 6}, {1, 2, 3}, parts), -1) << id;
    EXPECT_EQ(build(index, 1, {3, id, 4}, {1, 2, 3}, parts), -1) << id;
    EXPECT_EQ(build(index, 1, {5, 6, id}, {1, 2, 3}, parts), -1) << id;
  }
  for (const std::int32_t below : {-1, kLowest}) {
    EXPECT_EQ(build(index, below, {1}, {1}, parts), -1);
    EXPECT_EQ(build_nothing(0, below, 0), -1);
    EXPECT_EQ(build_nothing(0, 1, below), -1);
    EXPECT_EQ(build_nothing(below, 1, 0), -1);
  }
  EXPECT_EQ(build_nothing((std::int64_t{1} << 40) + 1, 0, 0), -1);
  EXPECT_EQ(observe(index), before);
}

TEST(Build, ARejectedOneLeavesTheIndexAsItWas) {
  const Index fresh(6, 7);
  expect_rejections(fresh);
  const Sealed index(2, {5, 6}, {1, 2, 3, 4}, {{3, 9}, {0, 1}, {1, 1}});
  insert(index, {6, 7}, {8, 8, 9, 9});
  expect_rejections(index);
  EXPECT_EQ(search_partition(index, 9, {1, 0}, 1), found({{6, 3}}));
  EXPECT_EQ(scatter(index, {1, 5}, {1, 0}, 2), found({{5, 1}, kEmptySlot}));
}

TEST(Rebuild, ReplacesTheWholeBase) {
  const Index index(1);
  seal_to_be_replaced(index, 2, {5, 6, 9}, {1, 2, 3, 4, 5, 6}, {{1, 2}, {0, 1}, {1, 2}});
  seal(index, 1, {6, 2}, {10, 20}, {{7}, {1}, {1}});
  EXPECT_EQ(stats(index), (Stats{2, 1, 0, 1}));
  EXPECT_EQ(export_base(index), (Rows{{6, 2}, {10, 20}}));
  EXPECT_EQ(search_full(index, kOne, 3), found({{2, 20}, {6, 10}}));
  EXPECT_EQ(search_partition(index, 7, kOne, 2), found({{2, 20}}));
  EXPECT_EQ(search_partition(index, 1, kOne, 2), nothing_written());
  EXPECT_EQ(scatter(index, {5, 6, 9}, kOne, 3), found({{6, 10}, kEmptySlot, kEmptySlot}));
}

TEST(Rebuild, LeavesMetadataAndIvfStructuresWhichThenFindTheNewRows) {
  const Index index(1);
  seal_to_be_replaced(index, 1, {1, 2}, {1, 2});
  set_rowmeta(index, {1, 3}, {10, 20}, {11, 12, 21, 22}, 2);
  set_ivf(index, 5, one_list({1, 2, 3}));
  EXPECT_EQ(search_ivf(index, 5, kOne, 3), found({{2, 2}, {1, 1}, kEmptySlot}));
  seal(index, 1, {3, 1}, {30, 10});
  EXPECT_EQ(export_rowmeta(index, {1, 3}), (Metadata{2, {10, 20}, {11, 12, 21, 22}}));
  EXPECT_EQ(match_ids(index, has_label(20)), Ids{3});
  EXPECT_EQ(search_ivf(index, 5, kOne, 3), found({{3, 30}, {1, 10}, kEmptySlot}));
}

}  // namespace
}  // namespace qx_test
