// IVF structures: how they are attached, replaced, changed and cleared; which lists a search scans,
// in which order.
#include <cmath>

#include "support/cases.h"
#include "support/random.h"

namespace qx_test {
namespace {

// Rows with ids 1 to 6; a structure under key 7 where one is given.
class SixRows : public Sealed {
 public:
  SixRows() : Sealed(1, {1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6}) {}
  explicit SixRows(const Ivf& ivf, const Floats& scores = {1, 2, 3, 4, 5, 6})
      : Sealed(1, {1, 2, 3, 4, 5, 6}, scores) {
    set_ivf(*this, 7, ivf);
  }

  // The ids that a search finds, best first; empty slots must follow them.
  Ids found_in(std::int64_t key, const Floats& query = kOne) const {
    const Found all = search_ivf(*this, key, query, 7);
    EXPECT_EQ(all.returned, 7);
    Ids ids;
    for (const Hit& hit : all.slots) {
      if (hit != kEmptySlot) ids.push_back(hit.id);
    }
    for (std::size_t i = ids.size(); i < all.slots.size(); ++i) {
      EXPECT_EQ(all.slots[i], kEmptySlot);
    }
    return ids;
  }
};

// Where all rows score alike, the order of a result is the order in which they were offered.
const Floats kAlike(6, 1);

// ---- The structures ----

TEST(IvfLists, AnyKeyHasItsOwnStructure) {
  const Ids keys{kLowestId, kHighestId, -1, 0, std::int64_t{1} << 40};
  const SixRows index;
  for (std::size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(qx_index_has_ivf(index, keys[i]), 0);
    EXPECT_EQ(set_ivf(index, keys[i], one_list({static_cast<std::int64_t>(i + 1)})), 0);
  }
  for (std::size_t i = 0; i < keys.size(); ++i) {
    EXPECT_EQ(qx_index_has_ivf(index, keys[i]), 1);
    EXPECT_EQ(index.found_in(keys[i]), Ids{static_cast<std::int64_t>(i + 1)});
  }
  EXPECT_EQ(qx_index_has_ivf(index, 8), 0);
  EXPECT_EQ(search_ivf(index, 8, kOne, 2), nothing_written());
}

TEST(IvfLists, OfNoElementsAreNotRead) {
  const Index index(3);
  const Guarded<std::int32_t> offset(1, 0);
  EXPECT_EQ(qx_index_set_ivf(index, 0, 0, 1, nullptr, nullptr, offset.data(), 0), 0);
  for (const std::int32_t nlist : {-1, kLowest}) {
    EXPECT_EQ(qx_index_set_ivf(index, nlist, nlist, 1, nullptr, nullptr, nullptr, 0), 0);
  }
  for (const std::int32_t nlist : kNoCounts) {
    EXPECT_EQ(qx_index_has_ivf(index, nlist), 1);
    EXPECT_EQ(search_ivf(index, nlist, {1, 1, 1}, 2), nothing_written());
  }
  const Guarded<float> centroid(1, 1);
  const Guarded<std::int32_t> offsets(2, 0);
  for (const std::int32_t n_ids : kNoCounts) {
    const SixRows rows;
    EXPECT_EQ(qx_index_set_ivf(rows, 7, 1, 1, centroid.data(), nullptr, offsets.data(), n_ids), 0);
    EXPECT_EQ(rows.found_in(7), Ids());
  }
}

TEST(IvfLists, OfANegativeDimensionReadAProductAboveZeroAlone) {
  const Index index(static_cast<std::uint32_t>(-2));
  const Guarded<std::int32_t> offsets(2, 0);
  EXPECT_EQ(qx_index_set_ivf(index, 7, 1, 1, nullptr, nullptr, offsets.data(), 0), 0);
  EXPECT_EQ(search_ivf(index, 7, {}, 1), empty_slots(1));
  const Guarded<float> centroids(6, 1);
  EXPECT_EQ(qx_index_set_ivf(index, 7, -3, 1, centroids.data(), nullptr, nullptr, 0), 0);
  const ChildEnd end = run_in_child([&] {
    const Guarded<float> too_few(5, 1);
    qx_index_set_ivf(index, 7, -3, 1, too_few.data(), nullptr, nullptr, 0);
  });
  EXPECT_NE(end.exit_status, 0) << "the sixth centroid value was not read";
}

// ---- The lists of a search ----

TEST(IvfSearch, ScansTheListsOfTheBestCentroidsBestFirst) {
  const Ivf ivf{3, 1, {5, 9, 7}, {1, 2, 3, 4, 5, 6}, {0, 2, 4, 6}};
  const SixRows index(ivf);
  EXPECT_EQ(index.found_in(7), (Ids{4, 3}));
  qx_index_set_ivf_nprobe(index, 7, 2);
  EXPECT_EQ(index.found_in(7), (Ids{6, 5, 4, 3}));
  EXPECT_EQ(index.found_in(7, {-1}), (Ids{1, 2, 5, 6}));
  const SixRows alike(ivf, kAlike);
  qx_index_set_ivf_nprobe(alike, 7, 3);
  EXPECT_EQ(alike.found_in(7), (Ids{3, 4, 5, 6, 1, 2}));
  EXPECT_EQ(search_ivf(alike, 7, kOne, 3), found({{3, 1}, {4, 1}, {5, 1}}));
}

TEST(IvfSearch, ScansTheEarlierOfListsWithEqualCentroidsFirst) {
  const SixRows all({3, 3, {5, 5, 5}, {1, 2, 3}, {0, 1, 2, 3}}, kAlike);
  EXPECT_EQ(all.found_in(7), (Ids{1, 2, 3}));
  const SixRows one({3, 1, {4, 5, 5}, {1, 2, 3}, {0, 1, 2, 3}}, kAlike);
  EXPECT_EQ(one.found_in(7), Ids{2});
}

TEST(IvfSearch, NeverScansAListWhoseCentroidScoresTheEmptySlotOrLess) {
  const SixRows index({5,
                       9,
                       {QX_EMPTY_SCORE, -kInfinity, kNaN, -9e29f, kInfinity},
                       {1, 2, 3, 4, 5},
                       {0, 1, 2, 3, 4, 5}});
  EXPECT_EQ(index.found_in(7), (Ids{5, 4}));
  const SixRows none({2, 2, {kNaN, -kInfinity}, {1, 2}, {0, 1, 2}});
  EXPECT_EQ(none.found_in(7), Ids());
}

TEST(IvfSearch, TakesListsAsTheirOffsetsSay) {
  const SixRows decreasing({4, 4, {4, 3, 2, 1}, {1, 2, 3}, {2, 2, 3, 0, 1}});
  EXPECT_EQ(decreasing.found_in(7), (Ids{3, 1}));
  const SixRows anywhere({3, 3, {3, 2, 1}, {1, 2}, {kHighest, kHighest, 9, kLowest}});
  EXPECT_EQ(anywhere.found_in(7), Ids());
  const SixRows some_left_out({2, 2, {2, 1}, {1, 2, 3, 4, 5}, {1, 3, 4}});
  EXPECT_EQ(some_left_out.found_in(7), (Ids{4, 3, 2}));
  const SixRows not_scanned({2, 1, {2, 1}, {1, 2, 3}, {0, 2, 9}});
  EXPECT_EQ(not_scanned.found_in(7), (Ids{2, 1}));
}

TEST(IvfSearch, TakesCentroidsAsRowsOfTheirMatrixAlsoIfTheyCameBeforeTheBase) {
  const Index index(2);
  set_ivf(index, 7, {3, 1, {1, 0, 0, 1, -1, -1}, {1, 2, 3}, {0, 1, 2, 3}});
  seal(index, 2, {1, 2, 3}, {1, 0, 0, 1, 1, 1});
  EXPECT_EQ(search_ivf(index, 7, {2, 1}, 1), found({{1, 2}}));
  EXPECT_EQ(search_ivf(index, 7, {1, 3}, 1), found({{2, 3}}));
  EXPECT_EQ(search_ivf(index, 7, {-1, -3}, 1), found({{3, -4}}));
}

// Lists of many long rows that lie anywhere in the base, follow each other in it, or lack a row: a
// search finds the best of what they list, whichever of them and the base came last.
TEST(IvfSearch, OfManyRowsFindsTheBestOfTheListsWhereverTheirRowsAre) {
  constexpr std::int32_t kRows = 1500;
  constexpr std::int32_t kDim = 64;
  Random random(41);
  const auto draw = [&](std::int64_t rows) {
    Floats floats(static_cast<std::size_t>(rows * kDim));
    for (float& number : floats) number = static_cast<float>(random.between(-1000, 1000));
    return floats;
  };
  const Ids in_order = ids_from(7, kRows);
  Ids shuffled = in_order;
  random.shuffle(shuffled);
  Ids with_gaps = shuffled;
  with_gaps[700] = 3;
  const Floats centroids = draw(2);
  for (const bool rebuilt : {false, true}) {
    const Sealed index(kDim, in_order, draw(kRows));
    const std::vector<Ids> lists = {in_order, shuffled, with_gaps};
    for (std::size_t i = 0; i < lists.size(); ++i) {
      set_ivf(index, static_cast<std::int64_t>(i), {2, 1, centroids, lists[i], {0, 710, kRows}});
    }
    if (rebuilt) seal(index, kDim, in_order, draw(kRows));
    for (int repeat = 0; repeat < 20; ++repeat) {
      const Floats query = draw(1);
      const auto score = [&](std::int64_t list) {
        float sum = 0;
        for (std::int64_t j = 0; j < kDim; ++j) {
          const auto at = static_cast<std::size_t>(j);
          sum = std::fma(centroids[static_cast<std::size_t>(list * kDim + j)], query[at], sum);
        }
        return sum;
      };
      const bool second = score(1) > score(0);
      for (std::size_t i = 0; i < lists.size(); ++i) {
        const Ids listed(lists[i].begin() + (second ? 710 : 0),
                         second ? lists[i].end() : lists[i].begin() + 710);
        for (const std::int32_t k : {1, 10, 100}) {
          EXPECT_EQ(search_ivf(index, static_cast<std::int64_t>(i), query, k),
                    scatter(index, listed, query, k));
        }
      }
    }
  }
}

}  // namespace
}  // namespace qx_test
