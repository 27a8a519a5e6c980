// The choice of kernels on CPUs that lack an instruction set which this one has.
#include <gtest/gtest.h>

#include "internal/every_kernel.h"

// What __builtin_cpu_supports() reads, as both compilers declare it: once filled, it stays.
#if defined(__x86_64__)
extern "C" __attribute__((visibility("hidden"))) struct {
  unsigned vendor, type, subtype, features[1];
} __cpu_model;  // NOLINT(readability-identifier-naming): the compilers' own name

namespace qx_test {
namespace {

// Places of bits in the features.
constexpr unsigned kPopcnt = 2, kAvx2 = 10, kFma = 14, kAvx512f = 15, kAvx512dq = 22;

class WithoutAFeature : public testing::TestWithParam<unsigned> {
 protected:
  void SetUp() override {
    __builtin_cpu_init();
    for (const qx::Kernels* kernel : {&qx::kAvx2Kernels, &qx::kAvx512Kernels}) {
      if (!kernel->supported()) GTEST_SKIP() << kernel->name << " does not run on this CPU";
    }
    features_ = __cpu_model.features[0];
    __cpu_model.features[0] &= ~(1u << GetParam());
    qx::force_kernels(nullptr);
  }
  void TearDown() override {
    if (IsSkipped()) return;
    __cpu_model.features[0] = features_;
    qx::force_kernels(nullptr);
  }

 private:
  unsigned features_ = 0;
};

TEST_P(WithoutAFeature, KernelsThatNeedItAreNeitherChosenNorForced) {
  const bool needs_avx512 = GetParam() == kAvx512f || GetParam() == kAvx512dq;
  EXPECT_FALSE(qx::kAvx512Kernels.supported());
  EXPECT_FALSE(qx::force_kernels("avx512"));
  EXPECT_EQ(qx::kAvx2Kernels.supported(), needs_avx512);
  EXPECT_EQ(qx::force_kernels("avx2"), needs_avx512);
  qx::force_kernels(nullptr);
  EXPECT_STREQ(qx::kernels().name, needs_avx512 ? "avx2" : "portable");
}

INSTANTIATE_TEST_SUITE_P(Kernels, WithoutAFeature,
                         testing::Values(kPopcnt, kAvx2, kFma, kAvx512f, kAvx512dq));

}  // namespace
}  // namespace qx_test
#endif
