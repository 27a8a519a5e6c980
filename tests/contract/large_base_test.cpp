// Current reads of a base of more than a million rows, compared row by row with the rules of the
// header. The engine reads such a base in several spans.
#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "support/host.h"
#include "support/random.h"

namespace qx_test {
namespace {

constexpr std::int64_t kRows = 1200000;
constexpr std::int64_t kEnough = 10;

class LargeBase {
 public:
  // Ids are drawn, so that some occur in several rows, near each other and far apart.
  LargeBase(std::int64_t id_end, std::int64_t changes) : index_(1), random_(5), end_(id_end) {
    for (std::int64_t row = 0; row < kRows; ++row) base_.push_back(random_.between(0, end_ - 1));
    seal(index_, 1, base_, Floats(base_.size(), 1.0f));
    const Ids inserted = draw(changes);
    insert(index_, inserted, Floats(inserted.size(), 1.0f));
    for (const std::int64_t id : inserted) {
      if (in_delta_.insert(id).second) delta_.push_back(id);
    }
    const Ids erased = draw(changes);
    delete_ids(index_, erased);
    erased_.insert(erased.begin(), erased.end());
    const Ids lifted(erased.begin(), erased.begin() + kEnough);
    insert(index_, lifted, Floats(lifted.size(), 1.0f));
    for (const std::int64_t id : lifted) {
      erased_.erase(id);
      if (in_delta_.insert(id).second) delta_.push_back(id);
    }
  }

  // Gives about `percent` of the ids label 1, some label -1, some label 2, and the others none.
  void attach_labels(int percent) {
    Ids ids;
    Ids labels;
    for (std::int64_t i = 0; i < kRows / 2; ++i) {
      ids.push_back(random_.between(0, end_ + end_ / 4));
      labels.push_back(random_.percent(percent) ? 1 : random_.percent(5) ? -1 : 2);
      labels_[ids.back()] = labels.back();
    }
    set_rowmeta(index_, ids, labels, {}, 0);
  }

  void expect_visible() {
    const Ids expected = visible([](std::int64_t) { return true; });
    EXPECT_EQ(qx_index_visible_count(index_), static_cast<std::int64_t>(expected.size()));
    EXPECT_TRUE(visible_ids(index_) == expected);
  }

  void expect_matches(std::int64_t label) {
    const Ids expected = visible([&](std::int64_t id) {
      const auto found = labels_.find(id);
      return (found == labels_.end() ? -1 : found->second) == label;
    });
    EXPECT_TRUE(match_ids(index_, has_label(label)) == expected) << "label " << label;
    const Found best = search_filtered(index_, has_label(label), {1.0f}, kEnough);
    for (std::size_t i = 0; i < kEnough; ++i) {
      EXPECT_EQ(best.slots.at(i).id, i < expected.size() ? expected[i] : -1);
    }
  }

 private:
  Ids draw(std::int64_t count) {
    Ids ids;
    for (std::int64_t i = 0; i < count; ++i) ids.push_back(random_.between(-5, end_ + end_ / 4));
    return ids;
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

TEST(LargeBase, ShowsWhatFewChangesLeave) {
  LargeBase base(2 * kRows, 20000);
  base.expect_visible();
  base.attach_labels(2);
  base.expect_matches(1);
  base.expect_matches(2);
  base.expect_matches(-1);
  base.expect_matches(7);
}

TEST(LargeBase, ShowsWhatManyChangesLeave) {
  LargeBase base(2 * kRows, kRows);
  base.expect_visible();
  base.attach_labels(2);
  base.expect_matches(1);
}

TEST(LargeBase, ShowsEveryRowOfManyRepeatedIds) {
  LargeBase base(kRows / 4, 20000);
  base.expect_visible();
  base.attach_labels(90);
  base.expect_matches(1);
  base.expect_matches(2);
  base.expect_matches(-1);
}

}  // namespace
}  // namespace qx_test
