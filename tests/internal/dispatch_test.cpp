// The choice of kernels on CPUs that lack an instruction set which this one has.
#include <gtest/gtest.h>

#include "internal/every_kernel.h"
#include "kernels/tables.h"

// What __builtin_cpu_supports() reads, as both compilers declare it: once filled, it stays.
#if defined(__x86_64__)
extern "C" __attribute__((visibility("hidden"))) struct {
  unsigned vendor, type, subtype, features[1];
} __cpu_model;  // NOLINT(readability-identifier-naming): the compilers' own name
extern "C" __attribute__((visibility(
    "hidden"))) unsigned __cpu_features2[1];  // NOLINT(readability-identifier-naming): the same

namespace qx_test {
namespace {

// Numbers of bits in the features.
constexpr unsigned kPopcnt = 2, kAvx2 = 10, kFma = 14, kAvx512f = 15, kAvx512vl = 20,
                   kAvx512bw = 21, kAvx512dq = 22, kAvx512vnni = 34;

class WithoutAFeature : public testing::TestWithParam<unsigned> {
 protected:
  void SetUp() override {
    __builtin_cpu_init();
    if (!qx::avx512vnni::supported()) GTEST_SKIP() << "avx512vnni does not run on this CPU";
    kept_ = features();
    features() &= ~(1u << GetParam() % 32);
    qx::force_kernels(nullptr);
  }
  void TearDown() override {
    if (IsSkipped()) return;
    features() = kept_;
    qx::force_kernels(nullptr);
  }

 private:
  static unsigned& features() {
    return GetParam() < 32 ? __cpu_model.features[0] : __cpu_features2[0];
  }
  unsigned kept_ = 0;
};

TEST_P(WithoutAFeature, KernelsThatNeedItAreNeitherChosenNorForced) {
  const bool needs_vnni =
      GetParam() == kAvx512vl || GetParam() == kAvx512bw || GetParam() == kAvx512vnni;
  const bool needs_avx512 = GetParam() == kAvx512f || GetParam() == kAvx512dq;
  EXPECT_FALSE(qx::avx512vnni::supported());
  EXPECT_FALSE(qx::force_kernels("avx512vnni"));
  EXPECT_EQ(qx::avx512::supported(), needs_vnni);
  EXPECT_EQ(qx::force_kernels("avx512"), needs_vnni);
  EXPECT_EQ(qx::avx2::supported(), needs_vnni || needs_avx512);
  EXPECT_EQ(qx::force_kernels("avx2"), needs_vnni || needs_avx512);
  qx::force_kernels(nullptr);
  EXPECT_STREQ(qx::kernels().name, needs_vnni ? "avx512" : needs_avx512 ? "avx2" : "portable");
}

INSTANTIATE_TEST_SUITE_P(Kernels, WithoutAFeature,
                         testing::Values(kPopcnt, kAvx2, kFma, kAvx512f, kAvx512vl, kAvx512bw,
                                         kAvx512dq, kAvx512vnni));

void expect_same_functions(const qx::Kernels& one, const qx::Kernels& other) {
  EXPECT_EQ(one.score_contiguous, other.score_contiguous);
  EXPECT_EQ(one.score_scattered, other.score_scattered);
  EXPECT_EQ(one.estimate_contiguous, other.estimate_contiguous);
  EXPECT_EQ(one.estimate_scattered, other.estimate_scattered);
  EXPECT_EQ(one.mask_not_less, other.mask_not_less);
  EXPECT_EQ(one.compress, other.compress);
  EXPECT_EQ(one.code_rows, other.code_rows);
  EXPECT_EQ(one.bound_contiguous, other.bound_contiguous);
  EXPECT_EQ(one.bound_scattered, other.bound_scattered);
}

TEST(Dispatch, FillsWhatAKernelLeavesEmptyFromTheNextOneAndNothingElse) {
  const std::vector<const qx::Kernels*> listed = listed_kernels();
  ASSERT_EQ(listed.size(), 4u);
  const qx::Kernels& last = *listed[3];
  EXPECT_EQ(qx::avx512vnni::kEntries.code_rows, nullptr);
  EXPECT_EQ(qx::avx512::kEntries.score_scattered, nullptr);
  expect_same_functions(*listed[0], qx::inherit(qx::avx512vnni::kEntries, *listed[1]));
  expect_same_functions(*listed[1], qx::inherit(qx::avx512::kEntries, *listed[2]));
  expect_same_functions(*listed[2], qx::avx2::kEntries);
  expect_same_functions(last, qx::portable::kEntries);
  expect_same_functions(qx::inherit(qx::avx2::kEntries, last), qx::avx2::kEntries);
  for (const qx::Kernels* const kernel : listed) {
    EXPECT_GT(kernel->min_bounded_floats, 0) << kernel->name;
    EXPECT_GE(kernel->min_bounded_dim, qx::tuning::kMinCodedDim) << kernel->name;
  }
  const qx::Kernels named = {.name = "own", .supported = qx::avx2::supported};
  const qx::Kernels completed = qx::inherit(named, last);
  expect_same_functions(completed, last);
  EXPECT_STREQ(completed.name, "own");
  EXPECT_EQ(completed.supported, qx::avx2::supported);
}

}  // namespace
}  // namespace qx_test
#endif
