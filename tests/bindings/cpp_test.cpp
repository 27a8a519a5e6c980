// The C++ header beyond what the hostile calls (wrapper_calls.cpp) compare with the model: its
// messages, its iterators, and what must be refused before memory is taken.
#include <gtest/gtest.h>

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
  const char* message;
  std::function<void(qx::Index&)> call;
};

const Ids kOne = {1}, kTwo = {1, 2};

const std::vector<Refusal>& refusals() {
  static constexpr auto kMost = std::numeric_limits<std::int32_t>::max();
  static Ids slots(2);
  static Floats scores(3);
  static const Offsets empty = {0, 0}, behind = {0, 2}, back = {0, 1, 0}, negative = {-1, 0};
  static const std::vector<Refusal> all = {
      {"the query has 4 floats", [](qx::Index& i) { i.search_full(Floats(4), 1); }},
      {"k is -1", [](qx::Index& i) { i.search_full(kQuery, -1); }},
      {"2 slots for ids and 3", [](qx::Index& i) { i.search_full(kQuery, slots, scores); }},
      {"5 floats", [](qx::Index& i) { i.insert(Floats(5), kTwo); }},
      {"6 floats, not 1 times", [](qx::Index& i) { i.insert(rows(2), kOne); }},
      {"0 labels", [](qx::Index& i) { i.set_rowmeta(kOne, {}, kTwo, 2); }},
      {"1 values", [](qx::Index& i) { i.set_rowmeta(kOne, kOne, kOne, 2); }},
      {"ncols is 1", [](qx::Index& i) { i.set_rowmeta({}, {}, {}, 1); }},
      {"ncols is -1", [](qx::Index& i) { i.set_rowmeta({}, {}, {}, -1); }},
      {"column 2", [](qx::Index& i) { i.match_ids(qx::Filter::column(2, 0)); }},
      {"column -1", [](qx::Index& i) { i.match_ids(qx::Filter::column(-1, 0)); }},
      {"there is no offset", [](qx::Index& i) { i.set_ivf(2, 1, {}, {}, {}); }},
      {"2 floats", [](qx::Index& i) { i.set_ivf(2, 1, Floats(2), {}, empty); }},
      {"outside 0 to 1", [](qx::Index& i) { i.set_ivf(2, 1, rows(1), kOne, behind); }},
      {"outside 1 to 1", [](qx::Index& i) { i.set_ivf(2, 1, rows(2), kOne, back); }},
      {"an offset is -1", [](qx::Index& i) { i.set_ivf(2, 1, rows(1), kOne, negative); }},
      {"nprobe is -1", [](qx::Index& i) { i.set_ivf_nprobe(1, -1); }},
      {"no IVF under key 2", [](qx::Index& i) { i.search_ivf(2, kQuery, 1); }},
      {"no IVF under key 2", [](qx::Index& i) { i.set_ivf_nprobe(2, 1); }},
      {"std::bad_alloc", [](qx::Index& i) { i.set_rowmeta({}, {}, {}, kMost); }},
      {"sealed", [](qx::Index& i) { i.build(rows(1), kOne); }},
  };
  return all;
}

TEST(CppHeader, SaysWhatItRefusesAndChangesNothing) {
  for (const Refusal& refusal : refusals()) {
    SCOPED_TRACE(refusal.message);
    qx::Index index = full_index();
    const qx::Rows before = index.export_visible();
    std::string message = "nothing was thrown";
    try {
      refusal.call(index);
    } catch (const std::exception& error) {
      message = error.what();
    }
    EXPECT_NE(message.find(refusal.message), std::string::npos) << message;
    const qx::Rows after = index.export_visible();
    EXPECT_EQ(after.ids, before.ids);
    EXPECT_EQ(after.vectors, before.vectors);
    EXPECT_EQ(index.snapshot(), 2u);
    EXPECT_EQ(index.columns(), 2);
    EXPECT_FALSE(index.has_ivf(2));
  }
}

}  // namespace
