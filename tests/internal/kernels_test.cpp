// Every kernel against the numeric contract, written out as a plain loop: every dimension and block
// size, contiguous and scattered rows, ordinary and special values, on guarded memory.
#include "kernels/kernels.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "internal/every_kernel.h"
#include "internal/sums.h"
#include "support/guarded.h"
#include "support/random.h"

namespace {

using qx_test::contract_score;
using qx_test::Edge;
using qx_test::Guarded;
using qx_test::listed_kernels;
using qx_test::Random;
using qx_test::Values;
using Floats = std::vector<float>;

constexpr std::int64_t kMostDims = 300;

// Row counts around every multiple of a group of rows that a kernel may use.
const std::vector<std::int64_t> kCounts = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  11, 12, 13, 15,
                                           16, 17, 23, 24, 25, 31, 32, 33, 47, 48, 49, 63, 64, 65};

// The same bits, or two NaNs, whose payload is the only thing that a kernel may choose.
bool same_score(float a, float b) {
  return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b) ||
         (std::isnan(a) && std::isnan(b));
}

class EveryKernel : public qx_test::OfAKernel {
 protected:
  // Compares the scores of rows that start at row(i).
  template <typename RowOf>
  static void expect_scores(const Guarded<float>& scores, std::int64_t dim,
                            const Guarded<float>& query, RowOf row) {
    for (std::size_t i = 0; i < scores.size(); ++i) {
      const float expected = contract_score(row(i), query.data(), dim);
      ASSERT_TRUE(same_score(scores[i], expected))
          << "dim " << dim << ", row " << i << " of " << scores.size() << ": " << scores[i]
          << " instead of " << expected;
    }
    ASSERT_TRUE(scores.margins_intact());
  }
};

TEST_P(EveryKernel, ScoresContiguousRowsByTheContract) {
  Random random(11);
  Guarded<float> rows;
  Guarded<float> query;
  Guarded<float> scores;
  for (std::int64_t dim = 0; dim <= kMostDims; ++dim) {
    const auto kind = static_cast<Values>(dim % 5);
    query.assign(draw_floats(random, kind, dim));
    for (const std::int64_t count : kCounts) {
      rows.assign(draw_floats(random, kind, count * dim),
                  random.percent(50) ? Edge::kEnd : Edge::kStart);
      for (const qx::CacheLevel level : qx_test::kLevels) {
        scores.assign(Floats(static_cast<std::size_t>(count), 7.0f));
        GetParam()->score_contiguous(rows.data(), count, dim, query.data(), level, scores.data());
        expect_scores(scores, dim, query, [&](std::size_t i) {
          return rows.data() + static_cast<std::int64_t>(i) * dim;
        });
      }
    }
  }
}

TEST_P(EveryKernel, ScoresScatteredRowsByTheContract) {
  constexpr std::size_t kPlaces = 8;  // rows that each end, or start, at an unmapped page
  Random random(12);
  Guarded<float> places[kPlaces];
  Guarded<const float*> rows;
  Guarded<float> query;
  Guarded<float> scores;
  for (std::int64_t dim = 0; dim <= kMostDims; ++dim) {
    const auto kind = static_cast<Values>(dim % 5);
    query.assign(draw_floats(random, kind, dim));
    for (Guarded<float>& place : places) {
      place.assign(draw_floats(random, kind, dim), random.percent(50) ? Edge::kEnd : Edge::kStart);
    }
    for (const std::int64_t count : kCounts) {
      std::vector<const float*> drawn;
      for (std::int64_t i = 0; i < count; ++i) {
        drawn.push_back(places[random.between(0, kPlaces - 1)].data());
      }
      rows.assign(drawn, random.percent(50) ? Edge::kEnd : Edge::kStart);
      scores.assign(Floats(static_cast<std::size_t>(count), 7.0f));
      GetParam()->score_scattered(rows.data(), count, dim, query.data(), scores.data());
      expect_scores(scores, dim, query, [&](std::size_t i) { return rows[i]; });
    }
  }
}

TEST_P(EveryKernel, ScoresAVectorOfNoElementsAsPositiveZero) {
  Guarded<float> scores(5, -7.0f);
  GetParam()->score_contiguous(nullptr, 5, 0, nullptr, qx::CacheLevel::kL2, scores.data());
  for (const float score : scores.values()) EXPECT_EQ(std::bit_cast<std::uint32_t>(score), 0u);
}

// Enough rows for every group of rows that a kernel scores side by side; a base of them has no
// storage. The undefined-behaviour sanitizer of clang sees arithmetic on the null pointer.
TEST_P(EveryKernel, ComputesNoAddressFromRowsOfNoElements) {
  const std::vector<const float*> addresses(200, nullptr);
  Floats scores(200, -7.0f);
  for (const qx::CacheLevel level : qx_test::kLevels) {
    GetParam()->score_contiguous(nullptr, 200, 0, nullptr, level, scores.data());
    EXPECT_EQ(scores, Floats(200, 0.0f));
    scores.assign(200, -7.0f);
    GetParam()->estimate_contiguous(nullptr, 200, 0, nullptr, level, scores.data());
    EXPECT_EQ(scores, Floats(200, 0.0f));
    scores.assign(200, -7.0f);
  }
  GetParam()->score_scattered(addresses.data(), 200, 0, nullptr, scores.data());
  EXPECT_EQ(scores, Floats(200, 0.0f));
  scores.assign(200, -7.0f);
  GetParam()->estimate_scattered(addresses.data(), 200, 0, nullptr, scores.data());
  EXPECT_EQ(scores, Floats(200, 0.0f));
}

TEST_P(EveryKernel, RoundsOnceInEachStep) {
  // 1 + 2^-12, squared, minus its own rounding: only a fused step keeps the last bit.
  const float a = 1.0f + 0x1p-12f;
  const Floats row = {-(1.0f + 0x1p-11f), a};
  const Floats query = {1.0f, a};
  float score = 0.0f;
  GetParam()->score_contiguous(row.data(), 1, 2, query.data(), qx::CacheLevel::kL2, &score);
  EXPECT_EQ(score, 0x1p-24f);
}

TEST_P(EveryKernel, CompressesTheSelectedNumbersAndTouchesNoOther) {
  Random random(13);
  Guarded<std::int64_t> numbers;
  for (int round = 0; round < 3000; ++round) {
    const std::int64_t count = random.between(0, 64);
    const int percent = random.between32(0, 100);
    std::vector<std::int64_t> drawn;
    std::vector<std::int64_t> expected;
    std::uint64_t mask = 0;
    for (std::int64_t i = 0; i < count; ++i) {
      drawn.push_back(static_cast<std::int64_t>(random.bits()));
      // The last one is selected: no number follows it.
      if (i + 1 < count && !random.percent(percent)) continue;
      mask |= std::uint64_t{1} << i;
      expected.push_back(drawn.back());
    }
    numbers.assign(drawn, random.percent(50) ? Edge::kEnd : Edge::kStart);
    Guarded<std::int64_t> out(expected.size(), -7);
    GetParam()->compress(numbers.data(), mask, std::ssize(expected), out.data());
    ASSERT_EQ(out.values(), expected) << "mask " << mask;
    ASSERT_TRUE(out.margins_intact()) << "mask " << mask;
  }
}

INSTANTIATE_TEST_SUITE_P(Kernels, EveryKernel, testing::ValuesIn(listed_kernels()),
                         qx_test::kernel_name);

TEST(Dispatch, EndsItsListWithThePortableKernelWhichRunsEverywhere) {
  EXPECT_STREQ(listed_kernels().back()->name, "portable");
  EXPECT_TRUE(listed_kernels().back()->supported());
}

TEST(Dispatch, ListsCompleteTables) {
  for (const qx::Kernels* kernel : listed_kernels()) {
    EXPECT_NE(kernel->score_contiguous, nullptr) << kernel->name;
    EXPECT_NE(kernel->score_scattered, nullptr) << kernel->name;
    EXPECT_NE(kernel->estimate_contiguous, nullptr) << kernel->name;
    EXPECT_NE(kernel->estimate_scattered, nullptr) << kernel->name;
    EXPECT_NE(kernel->mask_not_less, nullptr) << kernel->name;
    EXPECT_NE(kernel->compress, nullptr) << kernel->name;
  }
}

TEST(Dispatch, ChoosesTheFirstKernelOfTheListThatRunsHere) {
  ASSERT_TRUE(qx::force_kernels(nullptr));
  for (const qx::Kernels* kernel : listed_kernels()) {
    if (!kernel->supported()) continue;
    EXPECT_EQ(&qx::kernels(), kernel);
    break;
  }
}

TEST(Dispatch, ForcesAKernelByNameAndRefusesAnUnknownName) {
  ASSERT_TRUE(qx::force_kernels("portable"));
  EXPECT_EQ(&qx::kernels(), listed_kernels().back());
  EXPECT_FALSE(qx::force_kernels("abacus"));
  EXPECT_FALSE(qx::force_kernels(""));
  EXPECT_EQ(&qx::kernels(), listed_kernels().back());
  ASSERT_TRUE(qx::force_kernels(nullptr));
}

TEST(Dispatch, RefusesAKernelThatDoesNotRunHere) {
  for (const qx::Kernels* kernel : listed_kernels()) {
    EXPECT_EQ(qx::force_kernels(kernel->name), kernel->supported()) << kernel->name;
  }
  ASSERT_TRUE(qx::force_kernels(nullptr));
}

}  // namespace
