// The top-k buffer, compared with a stable sort of all candidates: every algorithm of the buffer,
// by its size, with ties, special values, and scores that rise, fall or stay equal.
#include "read/topk.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <string>
#include <vector>

#include "support/random.h"

namespace qx_test {
namespace {

struct Hit {
  std::int64_t id;
  float score;
};

// The k best that may enter; a stable sort keeps equal scores in order of arrival.
std::vector<Hit> sorted_best(const std::vector<float>& scores, std::int64_t k) {
  std::vector<Hit> hits;
  for (std::size_t i = 0; i < scores.size(); ++i) {
    if (scores[i] > -1e30f) hits.push_back({static_cast<std::int64_t>(i), scores[i]});
  }
  std::stable_sort(hits.begin(), hits.end(),
                   [](const Hit& a, const Hit& b) { return a.score > b.score; });
  hits.resize(static_cast<std::size_t>(k), Hit{-1, -1e30f});
  return hits;
}

constexpr std::int64_t kSingly = 0;

// Offers the scores in blocks of this many, or one by one.
void expect_best(const std::vector<float>& scores, std::int64_t k, std::int64_t block) {
  std::vector<std::int64_t> ids(static_cast<std::size_t>(k));
  std::vector<float> kept(static_cast<std::size_t>(k));
  std::vector<std::int64_t> numbers;
  for (std::int64_t i = 0; i < std::ssize(scores); ++i) numbers.push_back(i);
  qx::TopK topk(ids.data(), kept.data(), k);
  for (std::int64_t i = 0; block == kSingly && i < std::ssize(scores); ++i) {
    topk.offer(scores[static_cast<std::size_t>(i)], i);
  }
  for (std::int64_t first = 0; block != kSingly && first < std::ssize(scores); first += block) {
    const std::int64_t count = std::min(block, static_cast<std::int64_t>(scores.size()) - first);
    topk.offer(scores.data() + first, numbers.data() + first, count);
  }
  topk.finish();
  const std::vector<Hit> best = sorted_best(scores, k);
  for (std::size_t slot = 0; slot < best.size(); ++slot) {
    ASSERT_EQ(ids[slot], best[slot].id) << "slot " << slot << " of " << k;
    ASSERT_EQ(std::bit_cast<std::uint32_t>(kept[slot]),
              std::bit_cast<std::uint32_t>(best[slot].score));
  }
}

class TopKOfSize : public testing::TestWithParam<std::int64_t> {};

TEST_P(TopKOfSize, KeepsTheBestOfEveryKindOfScores) {
  Random random(3);
  for (const Values kind : {Values::kTies, Values::kSmooth, Values::kSpecial, Values::kBits}) {
    for (const std::int64_t count : {1, 31, 32, 33, 700, 20000}) {
      expect_best(draw_floats(random, kind, count), GetParam(), random.between(1, 192));
    }
    expect_best(draw_floats(random, kind, 3000), GetParam(), kSingly);
  }
}

TEST_P(TopKOfSize, KeepsTheBestOfRisingFallingAndEqualScores) {
  std::vector<float> rising;
  for (int pair = 0; pair < 7500; ++pair) rising.insert(rising.end(), 2, static_cast<float>(pair));
  expect_best(rising, GetParam(), 192);
  expect_best(std::vector<float>(rising.rbegin(), rising.rend()), GetParam(), 192);
  expect_best(std::vector<float>(5000, -0.0f), GetParam(), 192);
}

TEST_P(TopKOfSize, KeepsTheBestOfScoresThatRiseAmongUnusableOnes) {
  Random random(5);
  std::vector<float> scores;
  for (int i = 0; i < 15000; ++i) {
    const int rising = i / 3 - 2500;
    scores.push_back(random.percent(20) ? special_float(random) : static_cast<float>(rising));
  }
  for (const std::int64_t block : {20, 32, 100, 192}) expect_best(scores, GetParam(), block);
}

INSTANTIATE_TEST_SUITE_P(Sizes, TopKOfSize,
                         testing::Values(1, 2, 10, 15, 16, 17, 48, 100, 255, 256, 1000, 4096,
                                         10000),
                         [](const auto& size) { return std::to_string(size.param); });

}  // namespace
}  // namespace qx_test
