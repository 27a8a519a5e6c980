// Metrics by their rooms: what is kept of vectors, the chain of a distance, and that no bound rules
// out a row that is near enough, each rounding of the proof where it is as large as it can be.
#include "metric/metric.h"

#include "collection/host.h"
#include "internal/every_kernel.h"
#include "read/pruner.h"
#include "support/heap.h"
#include "support/random.h"

namespace qx_test {
namespace {

using Kept = qx::collection::Metric;

Floats kept_by_library(const Floats& vector) {
  Floats to(vector.size());
  qx::collection::keep_vector(Kept::kCosine, vector.data(), std::ssize(vector), to.data());
  return to;
}

bool same_floats(const Floats& a, const Floats& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

Floats finite_floats(Random& random, Values kind, std::int64_t count) {
  Floats floats = draw_floats(random, kind, count);
  for (float& x : floats) x = std::isfinite(x) ? x : 1.0f;
  return floats;
}

// ---- Cosine ----

TEST(Cosine, KeepsVectorsOfNormOneAsTheyAre) {
  Random random(1);
  int drifting = 0;  // that are not what dividing once more gives
  for (int i = 0; i < 300000; ++i) {
    const auto kind = random.any_of<Values>(
        {Values::kSmooth, Values::kSpecial, Values::kMixed, Values::kBits, Values::kTies});
    const Floats vector = finite_floats(random, kind, random.between(1, i % 1000 == 0 ? 2000 : 9));
    const Floats once = kept_by_library(vector);
    ASSERT_TRUE(same_floats(once, kept(Metric::kCosine, vector)));
    ASSERT_TRUE(same_floats(once, kept_by_library(once)));
    ASSERT_TRUE(qx::collection::is_kept(Kept::kCosine, once.data(), std::ssize(once)));
    double square = 0;
    for (const float x : once) square += double{x} * double{x};
    for (const float x : once) {
      if (static_cast<float>(double{x} / std::sqrt(square)) == x) continue;
      ++drifting;
      break;
    }
  }
  EXPECT_GT(drifting, 1000);
}

// Three quotients that are rounded by half a unit in the last place of 0.5, all the same way.
TEST(Cosine, KeepsVectorsWhoseRoundingsAddUp) {
  double furthest = 0;
  for (int i = 1; i < 2000; ++i) {
    const auto component = static_cast<float>(0x1p+20 * (0.5 + 0x1p-25 - i * 0x1p-46));
    const auto rest = static_cast<float>(0x1p+20 * (0.5 - 3 * 0x1p-25 + i * 0x1p-44));
    const Floats once = kept_by_library({component, component, component, rest});
    double square = 0;
    for (const float x : once) square += double{x} * double{x};
    furthest = std::max(furthest, std::abs(square - 1));
    ASSERT_TRUE(same_floats(once, kept_by_library(once)));
  }
  EXPECT_LE(furthest, 0x1p-23);
}

TEST(Cosine, KeepsZeroVectorsAndTheirSigns) {
  const Floats zeros = {0.0f, -0.0f, 0.0f};
  EXPECT_TRUE(same_floats(kept_by_library(zeros), zeros));
}

TEST(Cosine, DividesTheSmallestAndTheLargestVectors) {
  constexpr float kMost = std::numeric_limits<float>::max();
  EXPECT_TRUE(same_floats(kept_by_library({0x1p-149f, 0}), {1, 0}));
  EXPECT_TRUE(same_floats(kept_by_library({0, -kMost}), {0, -1}));
  EXPECT_TRUE(same_floats(kept_by_library({3 * 0x1p-140f, 4 * 0x1p-140f}), {0.6f, 0.8f}));
  EXPECT_TRUE(same_floats(kept_by_library(Floats(4, -kMost)), Floats(4, -0.5f)));
}

TEST(Cosine, IsRefusedWhereThereIsNoMemoryForQueries) {
  const Owned<QxCollection> collection(Schema{2, false, {}, {}, Metric::kCosine}.create());
  const std::int64_t id = 3;
  const float vector[] = {3, 4};
  ASSERT_EQ(qx_collection_upsert(collection.get(), {1, &id, nullptr}, vector, nullptr), QX_OK);
  QxSearch search = {};
  search.threads = 1;
  for (std::int64_t number = 1, status = QX_OUT_OF_MEMORY; status != QX_OK; ++number) {
    QxHits* hits = nullptr;
    with_failing_allocation(number, false, [&] {
      status = qx_collection_search(collection.get(), nullptr, vector, 1, 1, &search, &hits);
    });
    const Owned<QxHits> owned(hits);
    ASSERT_TRUE(status == QX_OK || (status == QX_OUT_OF_MEMORY && hits == nullptr));
    ASSERT_TRUE(status != QX_OUT_OF_MEMORY || number < 100);
    if (status != QX_OK) continue;
    EXPECT_EQ(hits->scores[0], std::fma(0.8f, 0.8f, 0.6f * 0.6f));
  }
}

// ---- The chain of a distance ----

class Distances : public UnderAKernel {};

TEST_P(Distances, AreTheChainOfTheContract) {
  Random random(2);
  for (const std::int64_t dim : {1, 2, 3, 8, 63, 64, 65, 127, 128, 129, 200, 768}) {
    for (const Values kind : {Values::kTies, Values::kSmooth, Values::kSpecial, Values::kBits,
                              Values::kMixed, Values::kCancelling}) {
      for (const std::int64_t count : {1, 7, 64}) {
        const Floats query = finite_floats(random, kind, dim);
        std::vector<Floats> rows;
        const float* pointers[64];
        for (std::int64_t i = 0; i < count; ++i) {
          rows.push_back(i == 3 ? query : finite_floats(random, kind, dim));
        }
        for (std::size_t i = 0; i < rows.size(); ++i) pointers[i] = rows[i].data();
        Floats scores(64);
        qx::collection::score_rows(Kept::kEuclidean, pointers, count, dim, query.data(),
                                   scores.data());
        for (std::size_t i = 0; i < rows.size(); ++i) {
          const float given = qx::collection::score_given_out(Kept::kEuclidean, scores[i]);
          ASSERT_TRUE(same_bits(given, score_of(Metric::kEuclidean, rows[i], query)))
              << "dim " << dim << ", row " << i;
        }
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(OfEveryKernel, Distances, testing::ValuesIn(listed_kernels()),
                         kernel_name);

// ---- Bounds ----

// Exact, where components are small multiples of 2^-26.
long double exact_half_norm(const Floats& vector) {
  long double sum = 0;
  for (const float x : vector) sum += static_cast<long double>(x) * static_cast<long double>(x);
  return sum / 2;
}

TEST(AHalfNorm, IsBelowTheExactOneByALittle) {
  Random random(3);
  for (int i = 0; i < 100000; ++i) {
    const Floats row = finite_floats(random, Values::kSmooth, random.between(1, 40));
    const auto half =
        static_cast<long double>(qx::collection::half_norm_below(row.data(), std::ssize(row)));
    const long double exact = exact_half_norm(row);
    ASSERT_LE(half, exact);
    ASSERT_GE(half, exact * (1 - 0x1.1p-23L));
  }
}

TEST(AHalfNorm, OfLargeComponentsIsTheLargestFloat) {
  const Floats row(3, std::numeric_limits<float>::max());
  EXPECT_EQ(qx::collection::half_norm_below(row.data(), 3), std::numeric_limits<float>::max());
}

// As the scan does. `bound` is the exact inner product.
bool is_ruled_out(const Floats& row, const Floats& query, float bound, float distance) {
  const std::int64_t dim = std::ssize(row);
  const qx::collection::DistanceLimit limit(query.data(), dim);
  return bound - qx::collection::half_norm_below(row.data(), dim) < limit.of(-distance);
}

// The first difference loses 2^-24, its square as much again, and so does each square of 2^-12 when
// it is added: the exact distance is longer by d + 2 times as much.
TEST(ADistanceLimit, HoldsWhereEveryRoundingShortensTheDistance) {
  for (const std::size_t dim : {1u, 2u, 8u, 64u, 1000u, 8192u}) {
    Floats row(dim, 0.0f);
    Floats query(dim, 0x1p-12f);
    row[0] = -0x1p-24f;
    query[0] = 1 + 0x1p-12f;
    const float distance = 1 + 0x1p-11f;
    const float bound = row[0] * query[0];
    ASSERT_EQ(score_of(Metric::kEuclidean, row, query), distance);
    EXPECT_FALSE(is_ruled_out(row, query, bound, distance)) << dim;
    EXPECT_TRUE(is_ruled_out(row, query, bound, distance - 0x1p-20f)) << dim;
  }
}

// Queries a little longer than the row: the difference of bound and norm is rounded, and far larger
// than the distance.
TEST(ADistanceLimit, HoldsWhereTheBoundIsRounded) {
  Random random(5);
  for (int i = 0; i < 200000; ++i) {
    const Floats row = finite_floats(random, Values::kSmooth, random.between(1, 3));
    Floats query;
    const float longer = 1 + 0x1p-10f * static_cast<float>(random.between(1, 200));
    long double product = 0;
    for (const float x : row) {
      query.push_back(longer * x);
      product += static_cast<long double>(x) * static_cast<long double>(query.back());
    }
    auto bound = static_cast<float>(product);
    if (bound < product) bound = std::nextafter(bound, 1e30f);
    ASSERT_FALSE(is_ruled_out(row, query, bound, score_of(Metric::kEuclidean, row, query)));
  }
}

// Squares below the least subnormal are lost: the distance of all of them is 0.
TEST(ADistanceLimit, HoldsWhereSquaresUnderflow) {
  const Floats row(1000, 0x1p-75f);
  const Floats query(1000, 0.0f);
  ASSERT_EQ(score_of(Metric::kEuclidean, row, query), 0.0f);
  EXPECT_FALSE(is_ruled_out(row, query, 0.0f, 0.0f));
}

// Half of the squared norm, as it is kept, is 2^24 + 3, midway between two floats, and the distance
// is too small to change a double of that size.
TEST(ADistanceLimit, IsRoundedDown) {
  const Floats query = {0x1p-14f, 0x1p-3f, 0x1p-3f, 1, 1, 2, 4096, 4096, 0x1p-14f};
  const qx::collection::DistanceLimit limit(query.data(), 9);
  EXPECT_EQ(limit.of(-0x1p-40f), 0x1p24f + 2);
}

TEST(ADistanceLimit, RulesNothingOutByALargeThresholdOrANaN) {
  const Floats row = {1e10f, 1e10f};
  const Floats query = {-1e10f, -1e10f};
  EXPECT_FALSE(is_ruled_out(row, query, -2e20f, std::numeric_limits<float>::max()));
  EXPECT_FALSE(is_ruled_out(row, query, std::numeric_limits<float>::quiet_NaN(), 0.0f));
}

// Of a corner that is there, so that groups beside the results are ruled out.
TEST(ABoxOfRows, HasTheScoreOfItsBestCorner) {
  const float least[] = {-1, -1, 2}, largest[] = {1, 1, 3}, query[] = {2, -0.5f, -4};
  std::vector<float> space;
  const auto bound = [&](qx::collection::Metric metric) {
    return qx::collection::score_bound(metric, least, largest, 3, query, space);
  };
  EXPECT_EQ(bound(qx::collection::Metric::kInnerProduct), 2 * 1 + -0.5f * -1 + -4 * 2);
  EXPECT_EQ(bound(qx::collection::Metric::kEuclidean), -(1.0f + 0 + 36));
}

// ---- Searches ----

struct Data {
  const char* name;
  float offset;  // of every component
  float spread;
  Values kind;
  bool has_ties;
};
void PrintTo(const Data& data, std::ostream* out) { *out << data.name; }

// By a judge, or null: chosen. Rows that pass a filter are dense in places and few in others.
class EveryDistance : public testing::TestWithParam<std::tuple<Data, const char*>> {
 protected:
  void TearDown() override { qx::force_judge(nullptr); }
};

TEST_P(EveryDistance, IsFoundAsIfAllRowsWereScored) {
  const auto& [data, judge] = GetParam();
  Random random(4);
  for (const std::int32_t dim : {16, 64, 129}) {
    const Schema schema = {dim, false, {"x"}, {QX_INTEGER}, Metric::kEuclidean};
    const Owned<QxCollection> collection(schema.create());
    std::vector<Floats> vectors;
    std::vector<Id> ids;
    std::vector<Row> rows;
    for (std::int64_t i = 0; i < 9000; ++i) {
      if (data.has_ties && i % 2 == 1 && i > 150) {
        vectors.push_back(Floats(vectors[static_cast<std::size_t>(i - 150)]));
      } else {
        vectors.push_back(finite_floats(random, data.kind, dim));
        for (float& x : vectors.back()) x = data.offset + data.spread * x;
      }
      ids.push_back({i, ""});
      rows.push_back({static_cast<std::size_t>(i), {i / 300 % 2 == 1 ? 3 : i % 10}});
    }
    const IdArrays list(schema, ids);
    const RowArrays arrays(schema, vectors, rows);
    ASSERT_EQ(qx_collection_upsert(collection.get(), list.get(), arrays.vectors(), arrays.values()),
              QX_OK);
    Model model;
    model.is_distance = true;
    model.upsert(ids, rows);
    ASSERT_TRUE(qx::force_judge(judge));
    for (int q = 0; q < 6; ++q) {
      Floats query = vectors[static_cast<std::size_t>(random.between(0, 8999))];
      if (q % 2 == 1) query = finite_floats(random, Values::kSmooth, dim);
      Floats scores;
      for (const Floats& vector : vectors) {
        scores.push_back(score_of(Metric::kEuclidean, vector, query));
      }
      for (const auto& [filter, most] : {std::pair{"x >= 0", 9}, {"x <= 6", 6}, {"x = 3", 3}}) {
        QxSearch search = {};
        search.filter = filter;
        search.threads = 1 + q % 2;
        for (const std::int64_t k : {1, 10, 300, 3000}) {
          const auto passes = [f = filter, m = most](const Id&, const Row& row) {
            const auto x = std::get<std::int64_t>(row.values[0]);
            return f[2] == '=' ? x == m : x <= m;
          };
          QxHits* hits = nullptr;
          ASSERT_EQ(
              qx_collection_search(collection.get(), nullptr, query.data(), 1, k, &search, &hits),
              QX_OK);
          expect_hits(*Owned<QxHits>(hits), {model.search(scores, k, passes)});
          if (HasFatalFailure()) return;
        }
      }
    }
  }
}

const Data kData[] = {{"Near", 0, 1, Values::kSmooth, false},
                      {"WithTies", 0, 1, Values::kSmooth, true},
                      {"FarFromZero", 1e4f, 1, Values::kSmooth, false},
                      {"AlmostEqual", 3, 0x1p-18f, Values::kSmooth, true},
                      {"Small", 0, 0x1p-60f, Values::kSmooth, false},
                      {"Special", 0, 1, Values::kSpecial, false},
                      {"Large", 0, 1e14f, Values::kSmooth, false}};
INSTANTIATE_TEST_SUITE_P(OfAnyData, EveryDistance,
                         testing::Combine(testing::ValuesIn(kData),
                                          testing::Values(nullptr, "four bits", "eight bits",
                                                          "scores")),
                         [](const auto& test) {
                           const char* const judge = std::get<1>(test.param);
                           std::string name = std::string(std::get<0>(test.param).name) + "By" +
                                              (judge == nullptr ? "Choice" : judge);
                           std::erase(name, ' ');
                           return name;
                         });

}  // namespace
}  // namespace qx_test
