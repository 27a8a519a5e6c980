// Records that no call of the interface makes: what reads do not look at, what they take as absent,
// and which checks end the process when an invariant is broken.
#include "record/fields.h"
#include "support/cases.h"

namespace qx_test {
namespace {

TEST(Invariants, NoReadLooksAtTheSnapshotOrTheStamps) {
  const Sealed index(1, {1, 2}, {1, 2});
  insert(index, {2, 9}, {20, 90});
  delete_ids(index, {1});
  const Rows visible = export_visible(index);
  const Found current = search_mvcc(index, {1, 2, 9}, kOne, 3);
  index->snapshot = 0;
  index->mutated = 0;
  index->delta_stamps.at(0) = 1000;
  index->delta_stamps.at(1) = -1;
  EXPECT_EQ(export_visible(index), visible);
  EXPECT_EQ(search_mvcc(index, {1, 2, 9}, kOne, 3), current);
  EXPECT_EQ(search_filtered(index, kEveryId, kOne, 3), current);
}

TEST(Invariants, ATombstoneOfAnyValueButZeroHides) {
  const Index index(1);
  insert(index, {5}, {5});
  for (const std::int64_t value : {std::int64_t{1}, std::int64_t{-1}, kLowestId, kHighestId}) {
    index->deleted_at.assign(5, value);
    EXPECT_EQ(visible_ids(index), Ids()) << "value " << value;
    EXPECT_EQ(search_mvcc(index, {5}, kOne, 1), found({kEmptySlot})) << "value " << value;
  }
  index->deleted_at.assign(5, 0);
  EXPECT_EQ(visible_ids(index), Ids{5});
  EXPECT_EQ(search_mvcc(index, {5}, kOne, 1), found({{5, 5}}));
}

TEST(Invariants, AColumnBehindTheCurrentNumberMatchesNothing) {
  const Index index(1);
  insert(index, {5}, {5});
  set_rowmeta(index, {5}, {0}, {7, 8}, 2);
  index->meta_ncols = 1;
  EXPECT_EQ(match_ids(index, has_value(0, 7)), Ids{5});
  EXPECT_EQ(match_ids(index, has_value(1, 8)), Ids());
  EXPECT_EQ(export_rowmeta(index, {5}), (Metadata{1, {0}, {7}}));
}

TEST(Invariants, AnIvfKeyWithANegativePositionIsAbsent) {
  const Sealed index(1, {1, 2}, {1, 2});
  set_ivf(index, 7, one_list({1}));
  index->ivf_map.assign(7, -1);
  EXPECT_EQ(qx_index_has_ivf(index, 7), 0);
  EXPECT_EQ(qx_index_set_ivf_nprobe(index, 7, 3), -1);
  EXPECT_EQ(search_ivf(index, 7, kOne, 1), nothing_written());
  set_ivf(index, 7, one_list({2}));
  EXPECT_EQ(index->ivf_map.size(), 1);
  EXPECT_EQ(value_of(index->ivf_map, 7), 1);
  EXPECT_EQ(search_ivf(index, 7, kOne, 1), found({{2, 2}}));
}

TEST(Invariants, AnIvfPositionAfterTheListEndsTheProcess) {
  const Index index(1);
  set_ivf(index, 7, one_list({1}));
  const std::function<void()> calls[] = {[&] { search_ivf(index, 7, kOne, 1); },
                                         [&] { qx_index_set_ivf_nprobe(index, 7, 1); },
                                         [&] { set_ivf(index, 7, one_list({1})); }};
  index->ivf_map.assign(7, 1);
  for (const auto& call : calls) EXPECT_TRUE(ends_out_of_bounds(1, 1, call));
}

TEST(Invariants, OffsetsThatEndBeforeTheirListEndTheSearch) {
  const Index index(1);
  set_ivf(index, 7, {2, 1, {1, 2}, {1, 1}, {0, 1, 2}});
  for (const std::int64_t length : {2, 1}) {
    index->ivf_list.at(0).list_offsets.length = length;
    EXPECT_TRUE(ends_out_of_bounds(length, length, [&] { search_ivf(index, 7, kOne, 1); }));
  }
}

TEST(Invariants, AMissingColumnEndsTheProcessWhereARowIsAsked) {
  const Sealed index(1, {5}, {5});
  set_rowmeta(index, {5}, {0}, {7}, 1);
  index->meta_ncols = 2;
  EXPECT_TRUE(ends_out_of_bounds(1, 1, [&] { match_ids(index, has_value(1, 7)); }));
  EXPECT_TRUE(ends_out_of_bounds(1, 1, [&] { export_rowmeta(index, {5}); }));
  delete_ids(index, {5});
  EXPECT_EQ(match_ids(index, has_value(1, 7)), Ids());
}

TEST(Invariants, AMissingStampEndsTheInsert) {
  const Index index(1);
  insert(index, {5}, {5});
  EXPECT_TRUE(ends_out_of_bounds(0, 0, [&] {
    index->delta_stamps.length = 0;
    insert(index, {5}, {6});
  }));
}

}  // namespace
}  // namespace qx_test
