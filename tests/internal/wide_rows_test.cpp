// Rows of dimensions at which the kernels or the scan choose another function: the scores and the
// results stay the same.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "internal/every_kernel.h"
#include "read/scan.h"
#include "support/random.h"

namespace qx_test {
namespace {

std::vector<float> small_numbers(std::size_t count) {
  Random random(31);
  std::vector<float> numbers(count);
  for (float& number : numbers) number = static_cast<float>(random.between(-9, 9));
  return numbers;
}

class WideRows : public UnderAKernel {};

TEST_P(WideRows, ScoreAsThePortableKernelScoresThem) {
  constexpr std::int64_t kRows = 43;
  for (const std::int64_t dim : {510, 512, 1024, 1536, 2048}) {
    std::vector<float> rows = small_numbers(static_cast<std::size_t>(kRows * dim));
    std::vector<float> scores(kRows), expected(kRows);
    for (const qx::CacheLevel level : kLevels) {
      GetParam()->score_contiguous(rows.data(), kRows, dim, rows.data(), level, scores.data());
      listed_kernels().back()->score_contiguous(rows.data(), kRows, dim, rows.data(), level,
                                                expected.data());
      EXPECT_EQ(scores, expected) << dim;
    }
  }
}

TEST_P(WideRows, AreScannedWithTheHostsOwnQueryToo) {
  constexpr std::int64_t kRows = 250;
  for (const std::int64_t dim : {2047, 2048, 2049, 2051}) {
    std::vector<float> rows = small_numbers(static_cast<std::size_t>(kRows * dim));
    std::vector<std::int64_t> row_ids(kRows);
    for (std::int64_t i = 0; i < kRows; ++i) row_ids[static_cast<std::size_t>(i)] = i;
    std::vector<float> all(kRows);
    GetParam()->score_contiguous(rows.data(), kRows, dim, rows.data(), qx::CacheLevel::kL2,
                                 all.data());
    std::int64_t id = -1;
    float score = 0;
    QxIndex index;
    index.dim = static_cast<std::uint32_t>(dim);
    index.base_vectors = rows.data();
    index.base_magnitude = 9;
    qx::Scan scan(index, rows.data(), {1, &id, &score}, kRows);
    scan.add_base_rows(0, kRows, row_ids.data());
    scan.finish();
    const auto best = std::max_element(all.begin(), all.end());
    EXPECT_EQ(id, best - all.begin());
    EXPECT_EQ(score, *best);
  }
}

INSTANTIATE_TEST_SUITE_P(Kernels, WideRows, testing::ValuesIn(listed_kernels()), kernel_name);

}  // namespace
}  // namespace qx_test
