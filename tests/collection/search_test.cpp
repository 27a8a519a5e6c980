// Searches where groups of rows, ranges and batches begin and end: ties there, and rows that are
// gone.
#include <gtest/gtest.h>

#include <numeric>
#include <tuple>

#include "collection/host.h"
#include "interface/handles.h"
#include "search/selection.h"
#include "support/random.h"

namespace qx_test {
namespace {

constexpr std::int64_t kRows = 5000;  // in groups of 1024
constexpr std::size_t kPlace = 7;

// A collection or a view of rows whose vectors differ in one component, and its model.
class Place {
 public:
  explicit Place(std::int32_t dim, Metric metric = Metric::kInnerProduct, bool is_dense = false)
      : schema_{dim, false, {}, {}, metric}, is_dense_(is_dense) {
    model_.is_distance = metric == Metric::kEuclidean;
    for (const float value : {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 1e-30f, -1e-30f, 0.0f, -0.0f}) {
      vectors_.emplace_back(static_cast<std::size_t>(dim), 1.0f)[kPlace] = value;
    }
    collection_.reset(schema_.create({}));
  }

  void upsert(std::int64_t first, std::int64_t count, std::size_t (*vector)(std::int64_t)) {
    std::vector<Id> ids;
    std::vector<Row> rows;
    for (std::int64_t i = first; i < first + count; ++i) {
      ids.push_back({i, ""});
      rows.push_back({vector(i), {}});
    }
    const IdArrays list(schema_, ids);
    const RowArrays arrays(schema_, vectors_, rows);
    ASSERT_EQ(view_ == nullptr
                  ? qx_collection_upsert(collection_.get(), list.get(), arrays.vectors(), nullptr)
                  : qx_view_upsert(view_.get(), list.get(), arrays.vectors(), nullptr),
              QX_OK);
    model_.upsert(ids, rows);
  }

  void remove(std::int64_t first, std::int64_t count, std::int64_t step) {
    std::vector<Id> ids;
    for (std::int64_t i = first; i < first + count; i += step) ids.push_back({i, ""});
    const IdArrays list(schema_, ids);
    ASSERT_EQ(view_ == nullptr ? qx_collection_remove(collection_.get(), list.get(), nullptr)
                               : qx_view_remove(view_.get(), list.get(), nullptr),
              QX_OK);
    model_.remove(ids);
  }

  void take_view() {
    QxView* view = nullptr;
    ASSERT_EQ(qx_view_new(collection_.get(), &view), QX_OK);
    view_.reset(view);
  }

  void train(std::int64_t lists) {
    ASSERT_EQ(qx_collection_train(collection_.get(), lists, nullptr, nullptr), QX_OK);
  }

  // Queries of this value in the one component, or of a zero. The others are zeros of either sign,
  // or differ from zero where queries are dense.
  void compare(float value, std::int64_t queries, std::int64_t k, std::int32_t probes = 0) const {
    const auto dim = static_cast<std::size_t>(schema_.dim);
    Floats all;
    std::vector<std::vector<Hit>> expected;
    for (std::int64_t q = 0; q < queries; ++q) {
      Floats query(dim, q % 2 == 0 ? 0.0f : -0.0f);
      query[kPlace] = q % 3 == 2 ? query[0] : value;
      for (std::size_t j = 0; is_dense_ && j < dim; ++j) {
        if (j != kPlace) query[j] = static_cast<float>(j % 3) - 1.375f;
      }
      all.insert(all.end(), query.begin(), query.end());
      Floats scores;
      for (const Floats& vector : vectors_)
        scores.push_back(score_of(schema_.metric, vector, query));
      expected.push_back(model_.search(scores, k, [](const Id&, const Row&) { return true; }));
    }
    for (const std::int32_t threads : {1, 2, 3}) {
      QxSearch search = {};
      search.threads = threads;
      search.probes = probes;
      QxHits* hits = nullptr;
      ASSERT_EQ(qx_collection_search(collection_.get(), view_.get(), all.data(), queries, k,
                                     &search, &hits),
                QX_OK);
      expect_hits(*Owned<QxHits>(hits), expected);
    }
  }

  void compare_all() const {
    for (const float value : {1.0f, -1.0f, 1e-30f, -1e-30f, 3e38f}) {
      for (const std::int64_t k : {1, 10, 300, 2000}) {
        SCOPED_TRACE(testing::Message() << "component " << value << ", k " << k);
        compare(value, 1, k);
        compare(value, 9, k);
        if (testing::Test::HasFailure()) return;
      }
    }
  }

 private:
  Schema schema_;
  bool is_dense_;
  std::vector<Floats> vectors_;
  Owned<QxCollection> collection_;
  Owned<QxView> view_;
  Model model_;
};

// The vector of a row, by its number in a segment of all rows.
struct Pattern {
  const char* name;
  std::size_t (*vector)(std::int64_t);
};
std::size_t index_of(std::int64_t i) { return static_cast<std::size_t>(i); }
const Pattern kPatterns[] = {
    {"Equal", [](std::int64_t) { return index_of(0); }},
    {"BestAtBorders", [](std::int64_t i) { return index_of((i + 1) % 1024 < 2 ? 1 : 0); }},
    {"RisingByGroup", [](std::int64_t i) { return index_of(i / 1024 % 5); }},
    {"FallingByGroup", [](std::int64_t i) { return index_of(4 - i / 1024 % 5); }},
    {"Underflowing", [](std::int64_t i) { return index_of(5 + i % 2); }},
    {"UnderflowingByGroup", [](std::int64_t i) { return index_of(5 + i / 1024 % 4); }},
    {"Mixed", [](std::int64_t i) { return index_of(i * i % 9); }},
};

void PrintTo(const Pattern& pattern, std::ostream* out) { *out << pattern.name; }

class SparseTies : public testing::TestWithParam<Pattern> {};

TEST_P(SparseTies, AreBrokenByIds) {
  for (const std::int32_t dim : {8, 16, 128}) {
    SCOPED_TRACE(dim);
    Place place(dim);
    place.upsert(0, kRows, GetParam().vector);
    place.compare_all();
    place.remove(0, kRows, 7);
    place.remove(1000, 1100, 1);
    place.compare_all();
    place.upsert(500, 1200, GetParam().vector);
    place.upsert(-50, 20, [](std::int64_t) { return index_of(0); });
    place.compare_all();
    place.take_view();
    place.remove(0, 1030, 2);
    place.upsert(2040, 20, [](std::int64_t) { return index_of(1); });
    place.compare_all();
  }
}

INSTANTIATE_TEST_SUITE_P(Of, SparseTies, testing::ValuesIn(kPatterns),
                         [](const auto& pattern) { return pattern.param.name; });

// Groups are asked for after the first ones of a scan: here there are 20.
class DenseTies : public testing::TestWithParam<std::tuple<Metric, Pattern>> {};

TEST_P(DenseTies, AreBrokenByIds) {
  const auto& [metric, pattern] = GetParam();
  Place place(128, metric, true);
  place.upsert(0, std::int64_t{20} * 1024, pattern.vector);
  const auto compare = [&](std::int32_t probes) {
    for (const std::int64_t k : {1, 10, 700}) {
      SCOPED_TRACE(testing::Message() << "k " << k << ", probes " << probes);
      for (const std::int64_t queries : {1, 9}) place.compare(0.75f, queries, k, probes);
    }
  };
  compare(0);
  place.remove(0, std::int64_t{20} * 1024, 3);
  place.remove(7000, 3000, 1);
  place.upsert(30000, 2500, pattern.vector);
  compare(0);
  if (pattern.name != std::string("Equal")) return;
  place.train(30);  // equal rows are all in the first list, which is the nearest to each query
  compare(1);
}

std::string name_of(const testing::TestParamInfo<std::tuple<Metric, Pattern>>& info) {
  const bool is_distance = std::get<0>(info.param) == Metric::kEuclidean;
  return std::string(is_distance ? "Distance" : "Product") + std::get<1>(info.param).name;
}
INSTANTIATE_TEST_SUITE_P(Of, DenseTies,
                         testing::Combine(testing::Values(Metric::kInnerProduct,
                                                          Metric::kEuclidean),
                                          testing::ValuesIn(kPatterns)),
                         name_of);

// A listed row behind the last of a range is of the next one.
TEST(Selection, WritesNoMoreWordsThanTheRangeHas) {
  const Schema schema = {1};
  const Owned<QxCollection> collection(schema.create());
  std::vector<std::int64_t> ids(200);
  std::iota(ids.begin(), ids.end(), 0);
  const Floats vectors(ids.size());
  const QxIds all = {200, ids.data(), nullptr};
  ASSERT_EQ(qx_collection_upsert(collection.get(), all, vectors.data(), nullptr), QX_OK);
  QxSearch search = {};
  search.among = &all;
  const auto state = collection->collection.state();
  const qx::collection::Restriction restriction(collection->collection.shape(), &search);
  const qx::collection::Selection selection(*state, restriction);
  constexpr std::uint64_t kOthers = 12344;
  std::uint64_t words[] = {kOthers, kOthers, kOthers};
  EXPECT_EQ(selection.select(0, 64, 64, words), 64);
  EXPECT_TRUE(words[0] == ~std::uint64_t{0} && words[1] == kOthers);
  EXPECT_EQ(selection.select(0, 0, 128, words), 128);
  EXPECT_TRUE(words[1] == ~std::uint64_t{0} && words[2] == kOthers);
}

// The first rows that a batch scans, for its thresholds, are about four times k.
TEST(Search, FindsNoRemovedRowBehindTheFirstOnesOfABatch) {
  Random random(1);
  const Schema schema = {64};
  std::vector<Floats> vectors;
  std::vector<Id> ids;
  std::vector<Row> rows;
  for (std::int64_t i = 0; i < 6000; ++i) {
    vectors.push_back(draw_floats(random, Values::kSmooth, schema.dim));
    ids.push_back({i, ""});
    rows.push_back({index_of(i), {}});
  }
  const Owned<QxCollection> collection(schema.create({}));
  const IdArrays list(schema, ids);
  const RowArrays arrays(schema, vectors, rows);
  ASSERT_EQ(qx_collection_upsert(collection.get(), list.get(), arrays.vectors(), nullptr), QX_OK);
  Model model;
  model.upsert(ids, rows);
  std::vector<Id> some;
  for (std::int64_t i = 0; i < 6000; i += random.between(2, 40)) some.push_back({i, ""});
  const IdArrays removed(schema, some);
  ASSERT_EQ(qx_collection_remove(collection.get(), removed.get(), nullptr), QX_OK);
  model.remove(some);
  for (const std::int64_t k : {256, 264, 300, 333, 370}) {
    Floats queries;
    std::vector<std::vector<Hit>> expected;
    for (int q = 0; q < 12; ++q) {
      const Floats& query = vectors[static_cast<std::size_t>(random.between(0, 5999))];
      queries.insert(queries.end(), query.begin(), query.end());
      Floats scores;
      for (const Floats& vector : vectors)
        scores.push_back(score_of(Metric::kInnerProduct, vector, query));
      expected.push_back(model.search(scores, k, [](const Id&, const Row&) { return true; }));
    }
    QxHits* hits = nullptr;
    ASSERT_EQ(
        qx_collection_search(collection.get(), nullptr, queries.data(), 12, k, nullptr, &hits),
        QX_OK);
    expect_hits(*Owned<QxHits>(hits), expected);
  }
}

// A collection of many rows is searched before the codes of its rows are there, while they are
// made, and after: with the bits of one that has had them from the start.
TEST(Codes, AreMadeWhileRowsAreSearched) {
  constexpr std::int64_t kBuilt = 70'000, kCodedDim = 64, kQueries = 8, kBestRows = 10;
  Random random(1);
  Floats vectors(kBuilt * kCodedDim);
  for (float& component : vectors) component = static_cast<float>(random.between(-99, 99));
  std::vector<std::int64_t> ids(kBuilt);
  std::iota(ids.begin(), ids.end(), 5);
  const auto fill = [](void* from, std::int64_t first, std::int64_t count, float* to) {
    const float* const rows = static_cast<const Floats*>(from)->data();
    std::copy_n(rows + first * kCodedDim, count * kCodedDim, to + first * kCodedDim);
    return std::int32_t{0};
  };
  for (const std::int32_t metric : {QX_INNER_PRODUCT, QX_EUCLIDEAN}) {
    const auto build = [&](bool is_manual) {
      QxOptions options = {};
      options.dim = kCodedDim;
      options.manual = is_manual;
      options.metric = metric;
      QxCollection* made = nullptr;
      EXPECT_EQ(qx_collection_build(&options, {kBuilt, ids.data(), nullptr}, nullptr, nullptr, fill,
                                    &vectors, &made),
                QX_OK);
      return Owned<QxCollection>(made);
    };
    const auto hits_of = [&](const Owned<QxCollection>& of) {
      QxHits* hits = nullptr;
      EXPECT_EQ(qx_collection_search(of.get(), nullptr, vectors.data() + 77 * kCodedDim, kQueries,
                                     kBestRows, nullptr, &hits),
                QX_OK);
      const Owned<QxHits> owned(hits);
      return std::pair(std::vector(hits->ids, hits->ids + kQueries * kBestRows),
                       std::vector(hits->scores, hits->scores + kQueries * kBestRows));
    };
    const auto segment_of = [](const Owned<QxCollection>& of) {
      return of->collection.state()->parts.front().segment;
    };
    const auto coded = build(true), later = build(false), released = build(false);
    EXPECT_FALSE(segment_of(coded)->lacks_codes());
    const auto expected = hits_of(coded);
    do {
      EXPECT_EQ(hits_of(later), expected);
    } while (segment_of(later)->lacks_codes());
    const QxIndex& index = segment_of(later)->index();
    EXPECT_EQ(index.base_codes.rows, segment_of(coded)->index().base_codes.rows);
    EXPECT_TRUE(qx::codes_are_valid(index.base_codes, index.base_vectors));
    EXPECT_EQ(hits_of(later), expected);
  }
}

}  // namespace
}  // namespace qx_test
