// The C++ header: it answers as the C interface does, and what it refuses changes nothing and never
// reaches the engine.
#include <gtest/gtest.h>

#include <bit>
#include <functional>
#include <limits>
#include <string>

#include "qx_runtime.hpp"
#include "support/random.h"

namespace {

using Ids = std::vector<std::int64_t>;
using Floats = std::vector<float>;
using Offsets = std::vector<std::int32_t>;
using qx_test::Random;

constexpr std::int32_t kDim = 3;

Floats rows(std::int64_t count, std::int64_t dim = kDim) {
  Random random(5);
  return qx_test::draw_floats(random, qx_test::Values::kTies, count * dim);
}
Ids counted(std::int64_t count, std::int64_t first = 0) {
  Ids ids;
  for (std::int64_t i = 0; i < count; ++i) ids.push_back(first + i);
  return ids;
}
const Floats kQuery = {1.0f, 0.5f, -1.0f};

// An index with everything: 20 base rows, two of them changed, metadata, IVF lists.
qx::Index full_index() {
  qx::Index index(kDim, 7);
  const std::vector<qx::Partition> parts = {{-4, 0, 12}, {9, 12, 8}};
  index.build(rows(20), counted(20), parts);
  index.insert(rows(2), Ids{3, 50});
  index.erase(Ids{5});
  index.set_rowmeta(counted(4), Ids{1, 1, 2, 2}, Ids{10, 20, 11, 20, 10, 21, 11, 21}, 2);
  index.set_ivf(1, 2, rows(2), counted(20), Offsets{0, 8, 20});
  return index;
}

struct Expected {
  Ids ids = Ids(64);
  Floats scores = Floats(64);

  // Only the slots that a row reached.
  void cut(std::int64_t written) {
    while (written > 0 && ids[static_cast<std::size_t>(written - 1)] == -1) --written;
    ids.resize(static_cast<std::size_t>(written));
    scores.resize(static_cast<std::size_t>(written));
  }
};

void expect_same(const qx::Hits& hits, const Expected& expected) {
  EXPECT_EQ(hits.ids, expected.ids);
  ASSERT_EQ(hits.scores.size(), expected.scores.size());
  for (std::size_t i = 0; i < hits.size(); ++i) {
    EXPECT_EQ(std::bit_cast<std::uint32_t>(hits.scores[i]),
              std::bit_cast<std::uint32_t>(expected.scores[i]));
  }
}

TEST(CppHeader, AnswersAsTheCInterface) {
  const qx::Index index = full_index();
  const QxIndex* const c = index.handle();
  for (const std::int32_t k : {0, 1, 3, 40}) {
    Expected expected;
    expected.cut(
        qx_index_search_full(c, kQuery.data(), k, expected.ids.data(), expected.scores.data()));
    expect_same(index.search_full(kQuery, k), expected);
    expected = {};
    expected.cut(qx_index_search_partition(c, 9, kQuery.data(), k, expected.ids.data(),
                                           expected.scores.data()));
    expect_same(index.search_partition(9, kQuery, k), expected);
    const Ids candidates = {3, 5, 50, 6, 77};
    expected = {};
    expected.cut(qx_index_scatter_topk(c, candidates.data(), 5, kQuery.data(), k,
                                       expected.ids.data(), expected.scores.data()));
    expect_same(index.scatter_topk(candidates, kQuery, k), expected);
    const auto unsigned_k = static_cast<std::uint32_t>(k);
    expected = {};
    expected.cut(qx_index_search_mvcc(c, candidates.data(), 5, kQuery.data(), unsigned_k,
                                      expected.ids.data(), expected.scores.data()));
    expect_same(index.search_mvcc(candidates, kQuery, k), expected);
    expected = {};
    expected.cut(qx_index_search_filtered(c, 2, 1, 20, kQuery.data(), unsigned_k,
                                          expected.ids.data(), expected.scores.data()));
    expect_same(index.search_filtered(qx::Filter::column(1, 20), kQuery, k), expected);
    expected = {};
    expected.cut(
        qx_index_search_ivf(c, 1, kQuery.data(), k, expected.ids.data(), expected.scores.data()));
    expect_same(index.search_ivf(1, kQuery, k), expected);
  }
}

TEST(CppHeader, ListsAndExports) {
  const qx::Index index = full_index();
  EXPECT_EQ(index.dim(), kDim);
  EXPECT_EQ(index.size(), 20);
  EXPECT_EQ(index.user_tag(), 7u);
  EXPECT_EQ(index.partitions(), 2);
  EXPECT_EQ(index.columns(), 2);
  EXPECT_EQ(index.snapshot(), 2u);
  EXPECT_TRUE(index.mutated());
  EXPECT_TRUE(index.sealed());
  EXPECT_EQ(index.delta_count(), 2);
  EXPECT_EQ(index.visible_count(), 20);
  EXPECT_EQ(index.visible_ids().front(), 3);
  EXPECT_EQ(index.match_ids(qx::Filter::label(2)), (Ids{3, 2}));
  EXPECT_EQ(index.match_ids(qx::Filter::all()), index.visible_ids());
  const qx::Rows base = index.export_base();
  EXPECT_EQ(base.ids, counted(20));
  EXPECT_EQ(base.vectors, rows(20));
  const qx::Rows visible = index.export_visible();
  EXPECT_EQ(visible.ids, index.visible_ids());
  EXPECT_EQ(visible.vector(0)[1], rows(2)[1]);
  const qx::RowMeta meta = index.export_rowmeta(Ids{2, 99});
  EXPECT_EQ(meta.labels, (Ids{2, -1}));
  EXPECT_EQ(meta.values, (Ids{10, 21, -1, -1}));
  EXPECT_EQ(index.tuner_oversized(9), (std::vector<qx::PartitionSize>{{-4, 12}}));
  EXPECT_EQ(qx::tuner_defaults().first, 20000u);
  EXPECT_EQ(qx::tuner_defaults().second, 980u);
}

TEST(CppHeader, FillsTheHostsSlots) {
  const qx::Index index = full_index();
  Ids ids(30);
  Floats scores(30);
  const std::size_t found = index.search_filtered(qx::Filter::label(1), kQuery, ids, scores);
  const qx::Hits hits = index.search_filtered(qx::Filter::label(1), kQuery, 30);
  ASSERT_EQ(found, hits.size());
  for (std::size_t i = 0; i < found; ++i) EXPECT_EQ(hits[i], (qx::Hit{ids[i], scores[i]}));
  std::size_t seen = 0;
  for (const qx::Hit hit : hits) EXPECT_EQ(hit, hits[seen++]);
  EXPECT_EQ(seen, found);
}

TEST(CppHeader, FindsAnIdOfMinusOne) {
  qx::Index index(1);
  index.insert(Floats{2.0f}, Ids{-1});
  const qx::Hits hits = index.search_filtered(qx::Filter::all(), Floats{1.0f}, 5);
  EXPECT_EQ(hits.ids, Ids{-1});
  EXPECT_EQ(hits.scores, Floats{2.0f});
}

TEST(CppHeader, MovesItsIndex) {
  qx::Index index = full_index();
  qx::Index other(9);
  other = std::move(index);
  EXPECT_EQ(other.size(), 20);
  EXPECT_EQ(other.search_ivf(1, kQuery, 2).size(), 2u);
  // NOLINTBEGIN(bugprone-use-after-move,clang-analyzer-cplusplus.Move): the test
  EXPECT_THROW(index.size(), qx::LogicError);
  EXPECT_THROW(index.erase(Ids{1}), qx::LogicError);
  // NOLINTEND(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
  index = qx::Index(4);
  EXPECT_EQ(index.dim(), 4);
}

// NOLINTBEGIN(bugprone-use-after-move,clang-analyzer-cplusplus.Move): the test
TEST(CppHeader, RefusesEveryCallOnAnIndexThatWasMovedFrom) {
  qx::Index gone = full_index();
  const qx::Index kept = std::move(gone);
  Ids slots(2);
  Floats scores(2);
  const std::vector<std::function<void()>> calls = {
      [&] { gone.handle(); },
      [&] { gone.build(rows(1), Ids{1}); },
      [&] { gone.insert(rows(1), Ids{1}); },
      [&] { gone.insert({}, {}); },
      [&] {
        gone.set_ivf(1, 1, rows(1), Ids{1}, Offsets{0, 1});
      },
      [&] { gone.set_ivf_nprobe(1, 1); },
      [&] { gone.clear_ivf(); },
      [&] { gone.set_rowmeta(Ids{1}, Ids{1}, {}, 0); },
      [&] { gone.export_rowmeta({}); },
      [&] { gone.search_full(kQuery, 1); },
      [&] { gone.search_full({}, slots, scores); },
      [&] { gone.search_partition(9, kQuery, -1); },
      [&] { gone.scatter_topk(Ids{1}, kQuery, 1); },
      [&] { gone.search_mvcc(Ids{1}, kQuery, 1); },
      [&] { gone.search_ivf(1, kQuery, 1); },
      [&] { gone.search_filtered(qx::Filter::column(5, 1), kQuery, 1); },
      [&] { gone.match_ids(qx::Filter::all()); },
      [&] { gone.tuner_oversized(1); },
      [&] { gone.export_visible(); },
      [&] { gone.export_base(); },
  };
  for (const auto& call : calls) EXPECT_THROW(call(), qx::LogicError);
  EXPECT_EQ(gone.dim(), 0);
  EXPECT_EQ(gone.columns(), 0);
  EXPECT_EQ(kept.size(), 20);
}
// NOLINTEND(bugprone-use-after-move,clang-analyzer-cplusplus.Move)

TEST(CppHeader, RefusesTooManyCandidatesBeforeItTakesMemoryForSlots) {
  const qx::Index index = full_index();
  const std::int64_t never_read = 0;
  const std::span<const std::int64_t> many(&never_read, std::size_t{1} << 31);
  const std::int64_t k = std::numeric_limits<std::int64_t>::max();
  EXPECT_THROW(index.scatter_topk(many, kQuery, k), qx::InvalidArgument);
  EXPECT_THROW(index.search_mvcc(many, kQuery, k), qx::InvalidArgument);
}

TEST(CppHeader, RefusesSlotsThatOverlap) {
  const qx::Index index = full_index();
  Ids ids = {1, 2, 3, 4};
  Floats scores(4);
  const std::span<float> query = std::span(scores).first(kDim);
  const std::span<std::int64_t> two = std::span(ids).first(2);
  const std::span<float> two_scores = std::span(scores).first(2);
  EXPECT_THROW(index.search_full(query, two, two_scores), qx::InvalidArgument);
  EXPECT_THROW(index.scatter_topk(ids, kQuery, two, two_scores), qx::InvalidArgument);
  EXPECT_THROW(index.search_mvcc(ids, kQuery, two, two_scores), qx::InvalidArgument);
  EXPECT_EQ(index.scatter_topk(Ids{1, 2}, kQuery, two, two_scores), 2u);
}

// The engine's next allocation is tried first, even if the rows alone would not need one.
TEST(CppHeader, SeeksTheMemoryOfEachGrowth) {
  qx::DistinctIds few;
  few.add(Ids{1, 2, 2, 1, -7});
  EXPECT_EQ(few.least(), 3);
  EXPECT_EQ(few.most(), 3);
  for (const std::int64_t step : {std::int64_t{1}, std::int64_t{1} << 20}) {
    qx::DistinctIds many;
    for (int twice = 0; twice < 2; ++twice) {
      for (std::int64_t i = 0; i < 100000; ++i) many.add(Ids{i * step});
    }
    EXPECT_LE(many.least(), 100000);
    EXPECT_GE(many.most(), 100000);
    EXPECT_LE(many.most(), 150000);
  }
}

struct Refusal {
  std::string name;
  std::function<void(qx::Index&)> call;
  std::string message;
};

const std::vector<Refusal>& refusals() {
  static constexpr auto kMost = std::numeric_limits<std::int32_t>::max();
  static const std::vector<Refusal> all = {
      {"QueryWidth", [](qx::Index& i) { i.search_full(Floats(4), 1); }, "the query has 4 floats"},
      {"NegativeK", [](qx::Index& i) { i.search_full(kQuery, -1); }, "k is -1"},
      {"UnequalSlots",
       [](qx::Index& i) {
         Ids ids(2);
         Floats scores(3);
         i.search_full(kQuery, ids, scores);
       },
       "2 slots for ids and 3 for scores"},
      {"InsertWidth",
       [](qx::Index& i) {
         i.insert(Floats(5), Ids{1, 2});
       },
       "5 floats"},
      {"InsertCount", [](qx::Index& i) { i.insert(rows(2), Ids{1}); }, "6 floats, not 1 times"},
      {"MetaLabels",
       [](qx::Index& i) {
         i.set_rowmeta(Ids{1}, {}, Ids{1, 2}, 2);
       },
       "0 labels"},
      {"MetaValues", [](qx::Index& i) { i.set_rowmeta(Ids{1}, Ids{1}, Ids{1}, 2); }, "1 values"},
      {"MetaColumns", [](qx::Index& i) { i.set_rowmeta({}, {}, {}, 1); }, "ncols is 1"},
      {"NegativeColumns", [](qx::Index& i) { i.set_rowmeta({}, {}, {}, -1); }, "ncols is -1"},
      {"Column", [](qx::Index& i) { i.match_ids(qx::Filter::column(2, 0)); }, "column 2"},
      {"NegativeColumn", [](qx::Index& i) { i.match_ids(qx::Filter::column(-1, 0)); }, "column -1"},
      {"NoOffsets", [](qx::Index& i) { i.set_ivf(2, 1, {}, {}, {}); }, "there is no offset"},
      {"Centroids",
       [](qx::Index& i) {
         i.set_ivf(2, 1, Floats(2), {}, Offsets{0, 0});
       },
       "2 floats"},
      {"OffsetBehind",
       [](qx::Index& i) {
         i.set_ivf(2, 1, rows(1), Ids{1}, Offsets{0, 2});
       },
       "outside 0 to 1"},
      {"OffsetBack",
       [](qx::Index& i) {
         i.set_ivf(2, 1, rows(2), Ids{1}, Offsets{0, 1, 0});
       },
       "outside 1 to 1"},
      {"OffsetNegative",
       [](qx::Index& i) {
         i.set_ivf(2, 1, rows(1), Ids{1}, Offsets{-1, 0});
       },
       "an offset is -1"},
      {"Nprobe", [](qx::Index& i) { i.set_ivf_nprobe(1, -1); }, "nprobe is -1"},
      {"UnknownIvf", [](qx::Index& i) { i.search_ivf(2, kQuery, 1); }, "no IVF under key 2"},
      {"UnknownNprobe", [](qx::Index& i) { i.set_ivf_nprobe(2, 1); }, "no IVF under key 2"},
      {"NoMemory", [](qx::Index& i) { i.set_rowmeta({}, {}, {}, kMost); }, "std::bad_alloc"},
      {"SecondBuild", [](qx::Index& i) { i.build(rows(1), Ids{1}); }, "sealed"},
  };
  return all;
}

class Refused : public testing::TestWithParam<Refusal> {};

TEST_P(Refused, IsThrownAndChangesNothing) {
  qx::Index index = full_index();
  const qx::Rows before = index.export_visible();
  try {
    GetParam().call(index);
    FAIL() << "nothing was thrown";
  } catch (const std::exception& error) {
    EXPECT_NE(std::string(error.what()).find(GetParam().message), std::string::npos)
        << error.what();
  }
  const qx::Rows after = index.export_visible();
  EXPECT_EQ(after.ids, before.ids);
  EXPECT_EQ(after.vectors, before.vectors);
  EXPECT_EQ(index.snapshot(), 2u);
  EXPECT_EQ(index.columns(), 2);
  EXPECT_FALSE(index.has_ivf(2));
}

INSTANTIATE_TEST_SUITE_P(CppHeader, Refused, testing::ValuesIn(refusals()),
                         [](const auto& refusal) { return refusal.param.name; });

TEST(CppHeader, RefusesBases) {
  const auto refuses = [](const Floats& vectors, const Ids& ids, const auto& parts) {
    qx::Index index(kDim);
    EXPECT_THROW(index.build(vectors, ids, parts), std::exception);
    EXPECT_FALSE(index.sealed());
  };
  const std::vector<qx::Partition> none;
  refuses(rows(2), Ids{1, -1}, none);
  refuses(rows(2), Ids{1, std::int64_t{1} << 40}, none);
  refuses(rows(2), Ids{1, (std::int64_t{1} << 40) - 1}, none);  // its table is 8 TiB
  refuses(rows(2), Ids{1}, none);
  refuses(Floats(5), Ids{1, 2}, none);
  refuses(rows(2), Ids{1, 2}, std::vector<qx::Partition>{{1, 0, 1}, {1, 1, 1}});
  refuses(rows(2), Ids{1, 2}, std::vector<qx::Partition>{{1, 1, 2}});
  refuses(rows(2), Ids{1, 2}, std::vector<qx::Partition>{{1, -1, 2}});
  refuses(rows(2), Ids{1, 2}, std::vector<qx::Partition>{{1, 1, -1}});
  EXPECT_THROW(qx::Index(0), qx::InvalidArgument);
  EXPECT_THROW(qx::Index(-5), qx::InvalidArgument);
}

TEST(CppHeader, TakesNoMemoryForSlotsThatNoRowCanReach) {
  const qx::Index index = full_index();
  const std::int64_t k = std::numeric_limits<std::int64_t>::max();
  EXPECT_EQ(index.search_full(kQuery, k).size(), 20u);
  EXPECT_EQ(index.search_filtered(qx::Filter::all(), kQuery, k).size(), 20u);
  EXPECT_EQ(index.search_mvcc(Ids{1, 2}, kQuery, k).size(), 2u);
  EXPECT_EQ(index.search_ivf(1, kQuery, k).size(), 20u);
}

}  // namespace
