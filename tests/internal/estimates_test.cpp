// The estimates of every kernel against the exact sum: never further away than kernels.h states,
// for rows that make sums lose as much as they can; a NaN for a row with a NaN; on guarded memory.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "internal/every_kernel.h"
#include "internal/sums.h"
#include "kernels/kernels.h"
#include "support/guarded.h"
#include "support/random.h"

namespace {

using qx_test::contract_score;
using qx_test::Edge;
using qx_test::ExactSum;
using qx_test::Guarded;
using qx_test::listed_kernels;
using qx_test::Random;
using Floats = std::vector<float>;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kMax = std::numeric_limits<float>::max();
constexpr std::int64_t kMostRows = 192;

// Every dimension up to 300, and those around which a kernel may choose another function.
std::vector<std::int64_t> dims() {
  std::vector<std::int64_t> listed;
  for (std::int64_t dim = 0; dim <= 300; ++dim) listed.push_back(dim);
  listed.insert(listed.end(),
                {511, 512, 513, 639, 640, 641, 768, 1000, 1024, 1536, 2047, 2048, 2049, 4096});
  return listed;
}

std::vector<std::int64_t> row_counts() {
  std::vector<std::int64_t> listed;
  for (std::int64_t count = 0; count <= 20; ++count) listed.push_back(count);
  listed.push_back(kMostRows);
  return listed;
}

// A number of either sign with a random mantissa and an exponent from low to high.
float scaled(Random& random, int low, int high) {
  const float mantissa = 1.0f + static_cast<float>(random.between(0, (1 << 23) - 1)) * 0x1p-23f;
  const float value = std::ldexp(mantissa, static_cast<int>(random.between(low, high)));
  return random.percent(50) ? value : -value;
}

constexpr int kQueryKinds = 6;
float draw_query_float(Random& random, int kind) {
  switch (kind) {
    case 0:
      return 1.0f;
    case 1:
      return scaled(random, -100, 50);
    case 2:
      return scaled(random, -149, -127);
    case 3:
      return scaled(random, 0, 0);
    case 4:
      return random.percent(30) ? (random.percent(50) ? 0.0f : -0.0f) : scaled(random, -3, 3);
    default:
      return std::abs(scaled(random, -1, 0));
  }
}

// Rows that are hard on sums; twice the sum of their products' magnitudes is finite.
constexpr int kRowKinds = 7;
void draw_row(Random& random, int kind, const Floats& query, float* row) {
  const std::int64_t dim = std::ssize(query);
  float large = 0;
  for (std::int64_t j = 0; j < dim; ++j) {
    const float q = query[static_cast<std::size_t>(j)];
    switch (kind) {
      case 0:
        row[j] = scaled(random, -140, 60);
        break;
      case 1:
        row[j] = scaled(random, -149, -120);
        break;
      case 2:
        row[j] = std::copysign(scaled(random, 0, 0), q);  // no product is below 0
        break;
      case 3:  // products in pairs that nearly cancel
        if (j % 2 == 0) large = scaled(random, 0, 20);
        row[j] = (j % 2 == 0 ? large : -large) / (std::abs(q) < 0x1p-40f ? 1.0f : q);
        break;
      case 4:  // a large product, to which half a unit in the last place is added again and again
        row[j] = j == 0 ? 0x1p+24f : 1.0f;
        break;
      case 5:  // two large products that cancel, beside which small ones are rounded away
        row[j] = j == 0 ? 0x1p+30f : j == dim - 1 ? -0x1p+30f : scaled(random, -2, 6);
        break;
      default:
        row[j] = random.percent(70) ? (random.percent(50) ? 0.0f : -0.0f) : scaled(random, -149, 0);
        break;
    }
  }
}

class EveryEstimate : public qx_test::OfAKernel {
 protected:
  // How near to the bound the sums came.
  double widest_estimate_ = 0;
  double widest_score_ = 0;

  void expect_within(float value, const ExactSum& exact, double* widest) const {
    const double distance = exact.distance(value);
    ASSERT_LE(distance, exact.bound()) << "value " << value;
    if (exact.magnitudes() > 0x1p-80) *widest = std::max(*widest, distance / exact.bound());
  }

  void expect_estimate(float estimate, const ExactSum& exact) {
    expect_within(estimate, exact, &widest_estimate_);
  }
};

TEST_P(EveryEstimate, OfContiguousRowsIsWithinTheBound) {
  Random random(21);
  Guarded<float> guarded_rows;
  Guarded<float> guarded_query;
  Guarded<float> estimates;
  for (const std::int64_t dim : dims()) {
    const int kind = static_cast<int>(dim % kQueryKinds);
    Floats query;
    for (std::int64_t j = 0; j < dim; ++j) query.push_back(draw_query_float(random, kind));
    guarded_query.assign(query, random.percent(50) ? Edge::kEnd : Edge::kStart);
    Floats rows(static_cast<std::size_t>(kMostRows * dim));
    std::vector<ExactSum> exact;
    for (std::int64_t i = 0; i < kMostRows; ++i) {
      float* const row = rows.data() + i * dim;
      draw_row(random, static_cast<int>(i % kRowKinds), query, row);
      exact.emplace_back(row, query.data(), dim);
      ASSERT_LT(2 * exact.back().magnitudes(), double{kMax});
      expect_within(contract_score(row, query.data(), dim), exact.back(), &widest_score_);
    }
    for (const std::int64_t count : row_counts()) {
      guarded_rows.assign(Floats(rows.begin(), rows.begin() + count * dim),
                          random.percent(50) ? Edge::kEnd : Edge::kStart);
      for (const qx::CacheLevel level : qx_test::kLevels) {
        estimates.assign(Floats(static_cast<std::size_t>(count), 7.0f));
        GetParam()->estimate_contiguous(guarded_rows.data(), count, dim, guarded_query.data(),
                                        level, estimates.data());
        for (std::size_t i = 0; i < estimates.size(); ++i) {
          ASSERT_NO_FATAL_FAILURE(expect_estimate(estimates[i], exact[i]))
              << "dim " << dim << ", row " << i << " of " << count;
        }
        ASSERT_TRUE(estimates.margins_intact());
      }
    }
  }
  // The rows are as hard as meant: a score loses nearly all that the bound grants, and an estimate,
  // which has a share of the additions in each chain, a share of it.
  EXPECT_GT(widest_score_, 0.95);
  EXPECT_GT(widest_estimate_, 0.05);
}

TEST_P(EveryEstimate, OfScatteredRowsIsWithinTheBound) {
  // Rows that each end, or start, at an unmapped page.
  constexpr std::size_t kPlaces = std::size_t{2} * kRowKinds;
  Random random(22);
  Guarded<float> places[kPlaces];
  Guarded<const float*> addresses;
  Guarded<float> guarded_query;
  Guarded<float> estimates;
  for (const std::int64_t dim : dims()) {
    const int kind = static_cast<int>(dim % kQueryKinds);
    Floats query;
    for (std::int64_t j = 0; j < dim; ++j) query.push_back(draw_query_float(random, kind));
    guarded_query.assign(query, random.percent(50) ? Edge::kEnd : Edge::kStart);
    std::vector<ExactSum> exact;
    for (std::size_t place = 0; place < kPlaces; ++place) {
      Floats row(static_cast<std::size_t>(dim));
      draw_row(random, static_cast<int>(place % kRowKinds), query, row.data());
      places[place].assign(row, place < kRowKinds ? Edge::kEnd : Edge::kStart);
      exact.emplace_back(row.data(), query.data(), dim);
    }
    for (const std::int64_t count : row_counts()) {
      std::vector<const float*> rows;
      std::vector<std::size_t> placed;
      for (std::int64_t i = 0; i < count; ++i) {
        placed.push_back(static_cast<std::size_t>(random.between(0, kPlaces - 1)));
        rows.push_back(places[placed.back()].data());
      }
      estimates.assign(Floats(static_cast<std::size_t>(count), 7.0f));
      addresses.assign(rows, random.percent(50) ? Edge::kEnd : Edge::kStart);
      GetParam()->estimate_scattered(addresses.data(), count, dim, guarded_query.data(),
                                     estimates.data());
      for (std::size_t i = 0; i < estimates.size(); ++i) {
        ASSERT_NO_FATAL_FAILURE(expect_estimate(estimates[i], exact[placed[i]]))
            << "dim " << dim << ", row " << i << " of " << count;
      }
      ASSERT_TRUE(estimates.margins_intact());
    }
  }
  EXPECT_GT(widest_estimate_, 0.05);
}

// Where a NaN may stand: everywhere in a short row, around the ends and multiples of a long one.
std::vector<std::int64_t> nan_positions(std::int64_t dim) {
  std::vector<std::int64_t> positions;
  for (std::int64_t at = 0; at < dim; ++at) {
    if (dim <= 80 || at < 3 || at >= dim - 18 || at % 61 == 0) positions.push_back(at);
  }
  return positions;
}

TEST_P(EveryEstimate, OfARowWithANaNIsANaNWhereverItStands) {
  Random random(23);
  Guarded<float> guarded_rows;
  Guarded<float> estimates;
  for (const std::int64_t dim : dims()) {
    if (dim > 80 && dim % 7 != 0 && dim % 64 > 1) continue;
    constexpr std::int64_t kRows = 13;
    const Floats query = draw_floats(random, qx_test::Values::kTies, dim);  // many zeros
    Floats rows = draw_floats(random, qx_test::Values::kSmooth, kRows * dim);
    for (const std::int64_t at : nan_positions(dim)) {
      const std::int64_t spoiled = random.between(0, kRows - 1);
      float& component = rows[static_cast<std::size_t>(spoiled * dim + at)];
      const float whole = component;
      component = random.percent(50) ? kNaN : -kNaN;
      guarded_rows.assign(rows);
      std::vector<const float*> scattered;
      for (std::int64_t i = 0; i < kRows; ++i) scattered.push_back(guarded_rows.data() + i * dim);
      const auto expect_one_nan = [&](const char* way) {
        for (std::int64_t i = 0; i < kRows; ++i) {
          ASSERT_EQ(std::isnan(estimates[static_cast<std::size_t>(i)]), i == spoiled)
              << way << ", dim " << dim << ", position " << at << ", row " << i;
        }
      };
      for (const qx::CacheLevel level : qx_test::kLevels) {
        estimates.assign(Floats(kRows, 7.0f));
        GetParam()->estimate_contiguous(guarded_rows.data(), kRows, dim, query.data(), level,
                                        estimates.data());
        ASSERT_NO_FATAL_FAILURE(expect_one_nan("contiguous"));
      }
      estimates.assign(Floats(kRows, 7.0f));
      GetParam()->estimate_scattered(scattered.data(), kRows, dim, query.data(), estimates.data());
      ASSERT_NO_FATAL_FAILURE(expect_one_nan("scattered"));
      component = whole;
    }
  }
}

TEST_P(EveryEstimate, OfAVectorOfNoElementsIsZero) {
  Guarded<float> estimates(5, -7.0f);
  GetParam()->estimate_contiguous(nullptr, 5, 0, nullptr, qx::CacheLevel::kL2, estimates.data());
  for (const float estimate : estimates.values()) EXPECT_EQ(estimate, 0.0f);
}

class EveryComparison : public EveryEstimate {
 protected:
  void expect_mask(const Floats& values, float limit) {
    std::uint64_t expected = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
      if (!(values[i] < limit)) expected |= std::uint64_t{1} << i;
    }
    numbers_.assign(values, values.size() % 2 == 0 ? Edge::kEnd : Edge::kStart);
    const auto count = static_cast<std::int64_t>(values.size());
    ASSERT_EQ(GetParam()->mask_not_less(numbers_.data(), count, limit), expected)
        << count << " numbers, limit " << limit;
  }

 private:
  Guarded<float> numbers_;
};

TEST_P(EveryComparison, MarksTheNumbersThatAreNotLess) {
  Random random(24);
  const Floats limits = {
      0.0f,  -0.0f, 1.0f,       -1.0f,     kMax,
      -kMax, kNaN,  -kInfinity, kInfinity, std::numeric_limits<float>::denorm_min()};
  for (const float limit : limits) {
    const Floats choices = {limit,
                            std::nextafter(limit, kInfinity),
                            std::nextafter(limit, -kInfinity),
                            0.0f,
                            -0.0f,
                            kNaN,
                            -kNaN,
                            kInfinity,
                            -kInfinity,
                            -kMax,
                            static_cast<float>(random.between(-3, 3))};
    for (std::int64_t count = 0; count <= 64; ++count) {
      for (int draw = 0; draw < 8; ++draw) {
        Floats values;
        for (std::int64_t i = 0; i < count; ++i) values.push_back(random.any_of(choices));
        ASSERT_NO_FATAL_FAILURE(expect_mask(values, limit));
      }
    }
  }
}

TEST_P(EveryComparison, FindsTheOneNumberThatIsNotLessAtEveryPosition) {
  for (std::size_t count = 1; count <= 64; ++count) {
    for (std::size_t at = 0; at < count; ++at) {
      for (const float found : {2.0f, kNaN, kInfinity}) {
        Floats values(count, std::nextafter(2.0f, 0.0f));
        values[at] = found;
        ASSERT_NO_FATAL_FAILURE(expect_mask(values, 2.0f));
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Kernels, EveryEstimate, testing::ValuesIn(listed_kernels()),
                         qx_test::kernel_name);
INSTANTIATE_TEST_SUITE_P(Kernels, EveryComparison, testing::ValuesIn(listed_kernels()),
                         qx_test::kernel_name);

}  // namespace
