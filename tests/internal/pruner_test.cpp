// The pruner: when it is worthwhile, how far below a threshold its own is, and rows whose roundings
// all go the wrong way, which no smaller distance would keep.
#include "read/pruner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <utility>
#include <vector>

#include "internal/every_kernel.h"
#include "internal/scan_rows.h"
#include "internal/sums.h"
#include "support/random.h"

namespace qx_test {
namespace {

using qx::Pruner;
using Floats = std::vector<float>;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kMax = std::numeric_limits<float>::max();
constexpr std::int64_t kRows = 1000;

struct OpenPruner : Pruner {
  OpenPruner(const Floats& query, float magnitude, std::int64_t rows, std::int64_t k) : Pruner(k) {
    open(query.data(), std::ssize(query), magnitude, rows, false);
  }
};

bool pays(const Floats& query, float magnitude, std::int64_t rows = kRows, std::int64_t k = 1) {
  return OpenPruner(query, magnitude, rows, k).is_worthwhile();
}

// By how much the score and the estimate of a row may differ, as kernels.h states: each is within
// a bound of the exact sum.
double largest_difference(const Floats& query, float magnitude) {
  const Floats row(query.size(), magnitude);
  return 2 * ExactSum(row.data(), query.data(), std::ssize(query)).bound();
}

Floats draw_query(Random& random, std::int64_t width) {
  return draw_floats(random, Values::kSmooth, width);
}

TEST(APruner, PaysForRowsOfEightToAMillionComponents) {
  EXPECT_FALSE(pays(Floats(7, 1.0f), 1));
  EXPECT_TRUE(pays(Floats(8, 1.0f), 1));
  EXPECT_TRUE(pays(Floats(1025, 1.0f), 1));
  EXPECT_TRUE(pays(Floats(std::size_t{1} << 20, 1.0f), 1));
  EXPECT_FALSE(pays(Floats((std::size_t{1} << 20) + 1, 1.0f), 1));
}

TEST(APruner, PaysWhereFourTimesAsManyRowsAreScannedAsKept) {
  const Floats query(16, 1.0f);
  EXPECT_TRUE(pays(query, 1, 400, 100));
  EXPECT_FALSE(pays(query, 1, 399, 100));
  EXPECT_FALSE(pays(query, 1, 0, 1));
  EXPECT_FALSE(pays(query, 1, -5, 1));
}

// Where sums overflow, an estimate may be anything.
TEST(APruner, KnowsNothingOfInfinitiesNaNsAndSumsNearTheLargestFloat) {
  EXPECT_FALSE(pays(Floats(16, 1.0f), kInfinity));
  EXPECT_FALSE(pays(Floats(16, 0.0f), kInfinity));
  for (const float spoiled : {kNaN, -kNaN, kInfinity, -kInfinity}) {
    for (std::size_t at = 0; at < 40; ++at) {
      Floats other(40, 1.0f);
      other[at] = spoiled;
      EXPECT_FALSE(pays(other, 1) || pays(other, 0)) << "position " << at;
    }
  }
  EXPECT_FALSE(pays(Floats(16, 1.0f), kMax));
  EXPECT_FALSE(pays(Floats(16, kMax), 1));
  EXPECT_FALSE(pays(Floats(16, kMax), 1e-3f));
  EXPECT_FALSE(pays(Floats(16, 0x1p+70f), 0x1p+54f));
  EXPECT_TRUE(pays(Floats(16, 0x1p+30f), 0x1p+60f));
}

// As a difference of doubles: nothing here may be rounded the wrong way.
void expect_far_enough(const Pruner& pruner, const Floats& query, float magnitude,
                       float threshold) {
  const float limit = pruner.pruning_threshold(threshold);
  if (!(limit > -kMax)) return;
  ASSERT_LE(double{limit}, double{threshold} - largest_difference(query, magnitude))
      << "width " << query.size() << ", magnitude " << magnitude << ", threshold " << threshold;
}

TEST(APruner, StaysBelowTheThresholdByTheWholeError) {
  Random random(41);
  for (std::int64_t width = 8; width <= 2500; width += width < 100 ? 1 : 173) {
    const Floats query = draw_query(random, width);
    for (const float magnitude : {0.0f, 1e-45f, 1e-30f, 1e-6f, 1.0f, 3.7f, 1e5f, 1e30f}) {
      const OpenPruner pruner(query, magnitude, kRows, 49);
      ASSERT_TRUE(pruner.is_worthwhile());
      for (int draw = 0; draw < 20; ++draw) {
        const float threshold = std::ldexp(draw_float(random, Values::kSmooth),
                                           static_cast<int>(random.between(-140, 110)));
        ASSERT_NO_FATAL_FAILURE(expect_far_enough(pruner, query, magnitude, threshold));
      }
      ASSERT_NO_FATAL_FAILURE(expect_far_enough(pruner, query, magnitude, 0));
    }
  }
}

// The sum of a query's magnitudes may lose small ones beside a large one, but not more than the
// pruner allows for.
TEST(APruner, AllowsForWhatItsOwnSumsLose) {
  Floats query(std::size_t{1} << 20, 1.0f);
  for (std::size_t lane = 0; lane < 16; ++lane) query[lane] = 0x1p+24f;
  const OpenPruner pruner(query, 1, kRows, 1);
  ASSERT_TRUE(pruner.is_worthwhile());
  ASSERT_NO_FATAL_FAILURE(expect_far_enough(pruner, query, 1, 0));
}

TEST(APruner, StaysBelowTheThresholdByLittleMoreThanTheError) {
  const Floats query(64, 1.0f);
  const double difference = largest_difference(query, 1);
  EXPECT_GT(double{OpenPruner(query, 1, kRows, 1).pruning_threshold(10)},
            10 - 1.1 * difference - 1e-4);
}

TEST(APruner, PrunesNothingThatAnEmptySlotWouldTake) {
  const Floats query(64, 1.0f);
  for (const std::int64_t k : {1, 48, 49}) {
    const float limit = OpenPruner(query, 1, kRows, k).pruning_threshold(qx::kEmptyScore);
    EXPECT_LT(limit, qx::kEmptyScore);
    EXPECT_GE(limit, -kMax);
  }
}

// A score exceeds a bound by the sum of subnormal roundings at most, and a row of the seed has the
// score of the seed: the limit of bounds is below both, by little more than a rounding.
TEST(APruner, StaysBelowTheThresholdAndTheSeedWithBounds) {
  Random random(43);
  for (const std::int64_t width : {8, 100, 8192}) {
    const Floats query(static_cast<std::size_t>(width), 1.0f);
    const double lost = static_cast<double>(width) * 0x1p-126;
    OpenPruner pruner(query, 1, kRows, 10);
    EXPECT_FALSE(pruner.has_threshold(qx::kEmptyScore));
    EXPECT_EQ(pruner.bound_limit(-kMax), -kMax);
    for (int draw = 0; draw < 1000; ++draw) {
      const float threshold = draw == 0 ? 0
                                        : std::ldexp(draw_float(random, Values::kSmooth),
                                                     static_cast<int>(random.between(-140, 90)));
      const double limit = double{pruner.bound_limit(threshold)};
      ASSERT_LE(limit + lost, double{threshold});
      ASSERT_GE(limit, double{threshold} - std::abs(double{threshold}) * 0x1p-22 -
                           static_cast<double>(width + 1) * 0x1p-119);
    }
    pruner.seed(-3);
    pruner.seed(2);
    pruner.seed(1);
    EXPECT_TRUE(pruner.has_threshold(qx::kEmptyScore));
    EXPECT_EQ(pruner.bound_limit(1), pruner.bound_limit(2));
    EXPECT_LT(pruner.bound_limit(qx::kEmptyScore), 2.0f);
  }
}

// A threshold of infinity is that of rows whose scores are infinite.
TEST(APruner, HasALimitForEveryThreshold) {
  const Floats query(64, 1.0f);
  EXPECT_EQ(OpenPruner(query, 1e34f, kRows, 49).pruning_threshold(-kMax), -kMax);
  const float limit = OpenPruner(query, 1, kRows, 1).pruning_threshold(kInfinity);
  EXPECT_FALSE(1.0f < limit && std::isfinite(limit));
}

// The k best estimates give a threshold of their own: twice the error below the k-th of them.
TEST(APruner, LearnsAThresholdFromTheBestEstimates) {
  Random random(42);
  for (const std::int64_t k : {1, 2, 10, 47, 48}) {
    const Floats query = draw_query(random, 50);
    OpenPruner pruner(query, 3, kRows, k);
    Floats known;
    for (int block = 0; block < 6; ++block) {
      Floats estimates = draw_floats(random, Values::kSmooth, random.between(1, 192));
      estimates.front() = kNaN;
      pruner.observe(estimates.data(), std::ssize(estimates));
      known.insert(known.end(), estimates.begin() + 1, estimates.end());
      std::sort(known.begin(), known.end(), std::greater<>());
      const float limit = pruner.pruning_threshold(qx::kEmptyScore);
      if (std::ssize(known) < k) {
        ASSERT_LT(limit, qx::kEmptyScore);
        continue;
      }
      const double best = double{known[static_cast<std::size_t>(k - 1)]};
      const double difference = largest_difference(query, 3);
      ASSERT_LE(double{limit}, best - 2 * difference);
      ASSERT_GT(double{limit}, best - 2.2 * difference - 1e-5);
    }
  }
}

TEST(APruner, LearnsNothingForALargeK) {
  const Floats query(50, 1.0f);
  OpenPruner pruner(query, 3, kRows, 49);
  const Floats estimates(192, 5.0f);
  pruner.observe(estimates.data(), std::ssize(estimates));
  EXPECT_LT(pruner.pruning_threshold(qx::kEmptyScore), qx::kEmptyScore);
}

// Rows that come as near to the bound as kernels allow. A sum starts at about 2^24, where floats
// are 2 apart, and every component is an odd number of halves of that: a tie, which goes to the
// even neighbour, or as good as one. The factors let ties go one way in the score, and the other
// way in the chain of an estimate that takes every eighth component.
class OneSided : public UnderAKernel {
 protected:
  static constexpr std::int64_t kWidth = 512;
  static constexpr std::int64_t kBlock = 192;

  static Floats query() {
    Floats factors;
    for (std::int64_t j = 0; j < kWidth; ++j) {
      factors.push_back(j % 8 == 0 ? 3.0f : j % 8 == 7 ? 3 - 0x1p-10f : 1.0f);
    }
    factors[0] = 0x1p+24f;
    return factors;
  }

  // A row whose sum starts at 2^24 + start, a multiple of 4; its other components are `rest`.
  static Floats row(float start, float rest) {
    Floats components(kWidth, rest);
    components[0] = 1 + start * 0x1p-24f;
    return components;
  }

  // The score of `good` is high and its estimate low; `bad` is worse, its score low and its
  // estimate high.
  const Floats good_ = row(3.0f * kWidth, -1);
  const Floats bad_ = row(2.0f * kWidth, 1);
  const Floats nothing_ = Floats(kWidth, 0.0f);
  const Floats query_ = query();

  float score(const Floats& of) const { return contract_score(of.data(), query_.data(), kWidth); }

  // Scans rows, all contiguous or all by themselves, and expects the best ones first.
  void expect_best(const std::vector<const Floats*>& rows, std::size_t k) const {
    Floats vectors;
    std::vector<std::pair<float, std::int64_t>> best;
    for (const Floats* next : rows) {
      best.emplace_back(-score(*next), std::ssize(best));
      vectors.insert(vectors.end(), next->begin(), next->end());
    }
    std::stable_sort(best.begin(), best.end());
    Result expected;
    for (std::size_t slot = 0; slot < k; ++slot) {
      expected.ids.push_back(best[slot].second);
      expected.scores.push_back(-best[slot].first);
    }
    for (const bool contiguous : {true, false}) {
      ASSERT_EQ(scan_base(vectors, query_, std::ssize(expected.ids), contiguous), expected)
          << "contiguous " << contiguous;
    }
  }
};

TEST_P(OneSided, RowsAreAsHardAsMeant) {
  EXPECT_EQ(score(good_), score(bad_) + 4);
  for (const Floats* const row : {&good_, &bad_}) {
    float estimates[4];
    const float* const rows[4] = {row->data(), row->data(), row->data(), row->data()};
    GetParam()->estimate_scattered(rows, 4, kWidth, query_.data(), estimates);
    const float missed = row == &good_ ? score(*row) - estimates[0] : estimates[0] - score(*row);
    EXPECT_GT(missed, 0.9f * kWidth);
    EXPECT_LE(double{missed}, largest_difference(query_, row->front()));
  }
}

TEST_P(OneSided, RowsAreKeptInAScanThatKnowsBestEstimates) {
  for (const std::size_t at : {0u, 1u, 5u, 100u, 191u, 192u, 250u, 399u}) {
    std::vector<const Floats*> rows(400, &nothing_);
    rows[at] = &good_;
    rows[at == 0 ? 7 : 0] = &bad_;
    ASSERT_NO_FATAL_FAILURE(expect_best(rows, 1));
  }
}

// For k above 48 only the results give a threshold. The first block fills them and the second
// is scored at once, so the good rows of the third meet an estimate.
TEST_P(OneSided, RowsAreKeptInAScanThatKnowsOnlyItsResults) {
  constexpr std::size_t kMany = 64;
  std::vector<const Floats*> rows(4 * kBlock, &nothing_);
  for (std::int64_t i = 0; i < kBlock; ++i) rows[static_cast<std::size_t>(i)] = &bad_;
  for (const std::int64_t at : {2 * kBlock, 2 * kBlock + 77, 4 * kBlock - 1}) {
    rows[static_cast<std::size_t>(at)] = &good_;
  }
  ASSERT_NO_FATAL_FAILURE(expect_best(rows, kMany));
}

INSTANTIATE_TEST_SUITE_P(Kernels, OneSided, testing::ValuesIn(listed_kernels()), kernel_name);

}  // namespace
}  // namespace qx_test
