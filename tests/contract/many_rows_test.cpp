// Current reads of many rows, compared row by row with the rules of the header: of some thousands,
// and of more than a million, which the engine reads in several spans.
#include <algorithm>
#include <iterator>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "support/cases.h"
#include "support/random.h"

namespace qx_test {
namespace {

constexpr std::int64_t kEnough = 10;

class ManyRows {
 public:
  // A base with ids below `id_end`, drawn, so that some occur in several rows, near each other and
  // far apart; then `changes` inserts, as many deletes, and some inserts of deleted ids.
  ManyRows(std::int64_t rows, std::int64_t id_end, std::int64_t changes)
      : index_(1), random_(5), end_(id_end) {
    for (std::int64_t row = 0; row < rows; ++row) base_.push_back(random_.between(0, end_ - 1));
    seal(index_, 1, base_, Floats(base_.size(), 1));
    insert_ids(draw(changes));
    const Ids erased = draw(changes);
    delete_ids(index_, erased);
    erased_.insert(erased.begin(), erased.end());
    insert_ids({erased.begin(), erased.begin() + std::min(changes, kEnough)});
  }

  // Gives about `percent` of the ids label 1, some label -1, some label 2, and the others none.
  void attach_labels(int percent) {
    Ids ids;
    Ids labels;
    for (std::int64_t i = 0; i < std::ssize(base_) / 2; ++i) {
      ids.push_back(random_.between(0, end_ + end_ / 4));
      labels.push_back(random_.percent(percent) ? 1 : random_.percent(5) ? -1 : 2);
      labels_[ids.back()] = labels.back();
    }
    set_rowmeta(index_, ids, labels, {}, 0);
  }

  void expect_visible() {
    const Ids expected = visible([](std::int64_t) { return true; });
    EXPECT_EQ(qx_index_visible_count(index_), std::ssize(expected));
    EXPECT_TRUE(visible_ids(index_) == expected);
    EXPECT_TRUE(match_ids(index_, kEveryId) == expected);
    EXPECT_TRUE(export_visible(index_) == (Rows{expected, Floats(expected.size(), 1)}));
  }

  void expect_matches(const Ids& tested) {
    for (const std::int64_t label : tested) {
      const Ids expected = visible([&](std::int64_t id) {
        const auto found = labels_.find(id);
        return (found == labels_.end() ? -1 : found->second) == label;
      });
      EXPECT_TRUE(match_ids(index_, has_label(label)) == expected) << "label " << label;
      const Found best = search_filtered(index_, has_label(label), kOne, kEnough);
      for (std::size_t i = 0; i < kEnough; ++i) {
        EXPECT_EQ(best.slots.at(i).id, i < expected.size() ? expected[i] : -1);
      }
    }
  }

 private:
  Ids draw(std::int64_t count) {
    Ids ids;
    for (std::int64_t i = 0; i < count; ++i) ids.push_back(random_.between(-5, end_ + end_ / 4));
    return ids;
  }

  void insert_ids(const Ids& ids) {
    insert(index_, ids, Floats(ids.size(), 1));
    for (const std::int64_t id : ids) {
      erased_.erase(id);
      if (in_delta_.insert(id).second) delta_.push_back(id);
    }
  }

  template <typename Passes>
  Ids visible(Passes passes) const {
    Ids ids;
    for (const std::int64_t id : delta_) {
      if (erased_.count(id) == 0 && passes(id)) ids.push_back(id);
    }
    for (const std::int64_t id : base_) {
      if (erased_.count(id) == 0 && in_delta_.count(id) == 0 && passes(id)) ids.push_back(id);
    }
    return ids;
  }

  Index index_;
  Random random_;
  std::int64_t end_;
  Ids base_;
  Ids delta_;
  std::unordered_set<std::int64_t> in_delta_;
  std::unordered_set<std::int64_t> erased_;
  std::unordered_map<std::int64_t, std::int64_t> labels_;
};

TEST(ManyRows, ShowWhatAnyNumberOfChangesLeavesUnderDenseAndSparseIds) {
  constexpr std::int64_t kRows = 20011;
  for (const std::int64_t id_end : {kRows / 4, kRows, 3 * kRows, 250 * kRows}) {
    for (const std::int64_t changes :
         {kRows, kRows / 2, kRows / 13, kRows / 500, std::int64_t{1}}) {
      SCOPED_TRACE("ids to " + std::to_string(id_end) + ", changes " + std::to_string(changes));
      ManyRows(kRows, id_end, changes).expect_visible();
    }
  }
}

constexpr std::int64_t kLarge = 1200000;

TEST(LargeBase, ShowsWhatFewChangesLeave) {
  ManyRows rows(kLarge, 2 * kLarge, 20000);
  rows.expect_visible();
  rows.attach_labels(2);
  rows.expect_matches({1, 2, -1, 7});
}

TEST(LargeBase, ShowsWhatManyChangesLeave) {
  ManyRows rows(kLarge, 2 * kLarge, kLarge);
  rows.expect_visible();
  rows.attach_labels(2);
  rows.expect_matches({1});
}

// In this order the metadata of many rows is walked along. Here and there it is not quite in order.
TEST(LargeBase, MatchesMetadataThatCameInTheOrderOfItsRows) {
  constexpr std::int64_t kRows = 300000;
  const auto label_of = [](std::int64_t id) { return id % 11 == 3 ? std::int64_t{1} : id % 2 * 5; };
  Index index(1);
  Ids ids;
  for (std::int64_t row = 0; row < kRows; ++row) ids.push_back(row ^ 5);
  seal(index, 1, ids, Floats(ids.size(), 1));
  Ids labelled = ids;
  for (std::size_t row = 990; row < labelled.size(); row += 1000) {
    std::swap(labelled[row], labelled[row + 1]);
  }
  Ids labels;
  std::transform(labelled.begin(), labelled.end(), std::back_inserter(labels), label_of);
  set_rowmeta(index, labelled, labels, {}, 0);
  for (const std::int64_t label : {0, 1, 5, -1}) {
    Ids expected;
    std::copy_if(ids.begin(), ids.end(), std::back_inserter(expected),
                 [&](std::int64_t id) { return label_of(id) == label; });
    EXPECT_TRUE(match_ids(index, has_label(label)) == expected) << "label " << label;
  }
}

TEST(LargeBase, ShowsEveryRowOfManyRepeatedIds) {
  ManyRows rows(kLarge, kLarge / 4, 20000);
  rows.expect_visible();
  rows.attach_labels(90);
  rows.expect_matches({1, 2, -1});
}

}  // namespace
}  // namespace qx_test
