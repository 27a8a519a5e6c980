// Predicates over labels and columns: the visible rows that pass, in searches and in listings.
#include <algorithm>
#include <iterator>

#include "support/cases.h"

namespace qx_test {
namespace {

// Every mode that tests a column.
constexpr std::uint32_t kColumnModes[] = {QX_FILTER_COLUMN, 7, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};

// Base rows 1 to 4, delta rows 2 and 9, whose scores are their ids; labels and two columns for
// some.
class Labelled : public Sealed {
 public:
  Labelled() : Sealed(1, {1, 2, 3, 4}, {1, 12, 3, 4}) {
    insert(*this, {2, 9}, {2, 9});
    set_rowmeta(*this, {1, 2, 9, 77}, {5, 5, 6, 5}, {10, -1, 10, 21, 30, 21, 10, 21}, 2);
  }

  // The ids that pass, in the order of the listing. The search must find the same rows.
  Ids passing(const Predicate& predicate) const {
    Ids ids = match_ids(*this, predicate);
    std::vector<Hit> offered;
    for (const std::int64_t id : ids) offered.push_back({id, 0});
    offered.push_back(kEmptySlot);
    const auto k = static_cast<std::uint32_t>(offered.size());
    EXPECT_EQ(search_filtered(*this, predicate, {0}, k), found(offered));
    if (k > 2) {
      const auto best = static_cast<float>(*std::max_element(ids.begin(), ids.end()));
      EXPECT_EQ(search_filtered(*this, predicate, kOne, 1).slots.at(0).score, best);
    }
    return ids;
  }
};

TEST(Predicate, ModeZeroTakesEveryVisibleRowWhateverColumnAndValueAre) {
  const Labelled index;
  delete_ids(index, {3});
  EXPECT_EQ(visible_ids(index), (Ids{2, 9, 1, 4}));
  for (const Predicate& predicate :
       {kEveryId, Predicate{QX_FILTER_ALL, -3, 1234}, {QX_FILTER_ALL, kHighest, kLowestId}}) {
    EXPECT_EQ(index.passing(predicate), (Ids{2, 9, 1, 4}));
  }
}

TEST(Predicate, ModeOneComparesTheLabelWhateverTheColumnIs) {
  const Labelled index;
  EXPECT_EQ(index.passing(has_label(6)), Ids{9});
  EXPECT_EQ(index.passing(has_label(4)), Ids());
  EXPECT_EQ(index.passing(has_label(QX_MISSING)), (Ids{3, 4}));
  for (const std::int32_t column : {0, -1, 1, 2, kLowest, kHighest}) {
    EXPECT_EQ(index.passing({QX_FILTER_LABEL, column, 5}), (Ids{2, 1})) << "column " << column;
  }
}

TEST(Predicate, EveryOtherModeComparesAColumn) {
  const Labelled index;
  for (const std::uint32_t mode : kColumnModes) {
    EXPECT_EQ(index.passing({mode, 0, 10}), (Ids{2, 1})) << "mode " << mode;
    EXPECT_EQ(index.passing({mode, 1, 21}), (Ids{2, 9})) << "mode " << mode;
    EXPECT_EQ(index.passing({mode, 1, 10}), Ids()) << "mode " << mode;
    EXPECT_EQ(index.passing({mode, 0, QX_MISSING}), (Ids{3, 4})) << "mode " << mode;
    EXPECT_EQ(index.passing({mode, 1, QX_MISSING}), (Ids{1, 3, 4})) << "mode " << mode;
    for (const std::int32_t column : {2, 3, -1, kLowest, kHighest}) {
      EXPECT_EQ(index.passing({mode, column, QX_MISSING}), Ids()) << "column " << column;
    }
  }
  set_rowmeta(index, {}, {}, {}, 3);
  EXPECT_EQ(index.passing(has_value(2, QX_MISSING)), visible_ids(index));
}

// Where nearly all values are missing, the others are few; here in no order of the rows.
TEST(Predicate, AMissingLabelIsFoundAmongManyRows) {
  constexpr std::int64_t kRows = 1000;
  const Index index(1);
  const Ids ids = ids_from(0, kRows);
  seal(index, 1, ids, Floats(ids.size(), 1));
  const Ids labelled(ids.rbegin(), ids.rend());
  Ids labels;
  Ids without;
  for (const std::int64_t id : labelled) labels.push_back(id % 10 == 3 ? 7 : QX_MISSING);
  std::copy_if(ids.begin(), ids.end(), std::back_inserter(without),
               [](std::int64_t id) { return id % 10 != 3; });
  set_rowmeta(index, labelled, labels, {}, 0);
  EXPECT_EQ(match_ids(index, has_label(QX_MISSING)), without);
}

TEST(Predicate, ExtremeIdsAndValuesMatchLikeAnyOther) {
  const Index index(1);
  insert(index, {kLowestId, kHighestId}, {1, 2});
  set_rowmeta(index, {kLowestId, kHighestId}, {kHighestId, kLowestId}, {kLowestId, kHighestId}, 1);
  EXPECT_EQ(match_ids(index, has_label(kHighestId)), Ids{kLowestId});
  EXPECT_EQ(match_ids(index, has_value(0, kHighestId)), Ids{kHighestId});
  EXPECT_EQ(search_filtered(index, has_label(kLowestId), kOne, 1), found({{kHighestId, 2}}));
}

}  // namespace
}  // namespace qx_test
