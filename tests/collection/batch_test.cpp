// Batches by tiles: the same rows are left as by each query's own bounds, on guarded memory.
#include "batch/batch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <set>

#include "internal/coded_rows.h"
#include "read/coded_query.h"

namespace qx_test {
namespace {

using qx::collection::CodedBatch;
using qx::collection::Pair;
using qx::collection::TileKernel;
using Kept = std::set<std::pair<std::int32_t, std::int32_t>>;

std::vector<float> normal(std::size_t count, std::uint32_t seed) {
  std::mt19937 random(seed);
  std::normal_distribution<float> numbers;
  std::vector<float> floats(count);
  for (float& number : floats) number = numbers(random);
  return floats;
}

// By the kernel that judges one query: bounds from all eight bits that are not below the limit.
Kept expected(const Coded& rows, const std::vector<float>& queries,
              const std::vector<float>& limits, std::int64_t first, std::int64_t count) {
  Kept kept;
  for (std::size_t q = 0; q < limits.size(); ++q) {
    const auto coded = std::make_unique<qx::CodedQuery>();
    EXPECT_TRUE(
        qx::code_query(queries.data() + q * static_cast<std::size_t>(rows.dim), rows.dim, *coded));
    std::vector<float> bounds(static_cast<std::size_t>(count));
    qx::kernels().bound_contiguous(rows.view(), first, count, *coded, qx::CodeBits::kEight,
                                   bounds.data());
    for (std::size_t i = 0; i < bounds.size(); ++i) {
      if (!(bounds[i] < limits[q])) {
        kept.emplace(static_cast<std::int32_t>(q), static_cast<std::int32_t>(i));
      }
    }
  }
  return kept;
}

void compare(const Coded& rows, std::int64_t queries, std::int64_t first, std::int64_t count) {
  const auto n = static_cast<std::size_t>(queries);
  const auto floats = normal(n * static_cast<std::size_t>(rows.dim), 7);
  CodedBatch batch(rows.dim);
  for (std::size_t q = 0; q < n; ++q) {
    ASSERT_TRUE(batch.add(floats.data() + q * static_cast<std::size_t>(rows.dim)));
  }
  std::vector<float> limits = normal(n, 8);
  for (float& limit : limits) limit *= std::sqrt(static_cast<float>(rows.dim));
  Guarded<float> guarded_limits(limits);
  Guarded<Pair> pairs(static_cast<std::size_t>(queries * count));
  std::vector<std::uint8_t> space;
  const std::int64_t found = TileKernel::find()->judge(rows.view(), first, count, batch,
                                                       guarded_limits.data(), space, pairs.data());
  Kept kept;
  for (std::int64_t i = 0; i < found; ++i) kept.emplace(pairs.data()[i].query, pairs.data()[i].row);
  EXPECT_EQ(std::ssize(kept), found) << "a pair twice";
  EXPECT_EQ(kept, expected(rows, floats, limits, first, count))
      << "dim " << rows.dim << ", " << queries << " queries, rows from " << first << ", " << count;
  EXPECT_TRUE(rows.margins_intact());
}

class Batch : public testing::Test {
 protected:
  void SetUp() override {
    if (TileKernel::find() == nullptr) GTEST_SKIP() << "this CPU has no tiles";
  }
};

TEST_F(Batch, LeavesTheRowsThatBoundsLeave) {
  for (const std::int64_t dim : {8, 63, 64, 65, 127, 128, 129, 300, 768, 8192}) {
    const Coded rows(qx::kernels(), normal(static_cast<std::size_t>(100 * dim), 1), dim);
    for (const std::int64_t queries : {1, 15, 16, 17, 32, 33, 70}) {
      compare(rows, queries, 0, 100);
      compare(rows, queries, 32, 33);
      compare(rows, queries, 96, 1);
    }
  }
}

TEST_F(Batch, JudgesAsManyRowsAsItPromises) {
  const Coded rows(qx::kernels(), normal(static_cast<std::size_t>(300 * 100), 1), 100);
  compare(rows, 40, 32, TileKernel::kMostRows);
}

// A row that is not coded has a NaN for a bound, and is left to be scored.
TEST_F(Batch, LeavesRowsWithoutACode) {
  auto floats = normal(std::size_t{64} * 100, 1);
  floats[5 * 100 + 3] = 0x1p+60f;
  const Coded rows(qx::kernels(), floats, 100);
  CodedBatch batch(100);
  ASSERT_TRUE(batch.add(floats.data()));
  const float limit = std::numeric_limits<float>::infinity();
  std::vector<std::uint8_t> space;
  std::vector<Pair> pairs(64);
  ASSERT_EQ(TileKernel::find()->judge(rows.view(), 0, 64, batch, &limit, space, pairs.data()), 1);
  EXPECT_EQ(pairs[0].row, 5);
}

TEST(ACodedBatch, RefusesAQueryWithoutACode) {
  CodedBatch batch(2);
  const float small[] = {0x1p-60f, 0};
  EXPECT_FALSE(batch.add(small));
  EXPECT_EQ(batch.size(), 0);
}

}  // namespace
}  // namespace qx_test
