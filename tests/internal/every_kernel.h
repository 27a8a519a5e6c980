// The kernels of this build, as parameters of tests.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kernels/kernels.h"

namespace qx_test {

inline constexpr qx::CacheLevel kLevels[] = {qx::CacheLevel::kL2, qx::CacheLevel::kL3,
                                             qx::CacheLevel::kMemory};

// Complete tables: the entries that a kernel leaves empty are those that it inherits.
inline std::vector<const qx::Kernels*> listed_kernels() {
  std::vector<const qx::Kernels*> listed;
  for (const qx::Kernels* const* next = qx::all_kernels(); *next != nullptr; ++next) {
    listed.push_back(*next);
  }
  return listed;
}

inline std::string kernel_name(const testing::TestParamInfo<const qx::Kernels*>& kernel) {
  return kernel.param->name;
}

// A test of the functions of one table.
class OfAKernel : public testing::TestWithParam<const qx::Kernels*> {
 protected:
  void SetUp() override {
    if (!GetParam()->supported()) GTEST_SKIP() << GetParam()->name << " does not run on this CPU";
  }
};

// A test of code that calls qx::kernels(), which is the one under test until the test ends.
class UnderAKernel : public OfAKernel {
 protected:
  void SetUp() override {
    OfAKernel::SetUp();
    if (!IsSkipped()) {
      ASSERT_TRUE(qx::force_kernels(GetParam()->name));
    }
  }
  void TearDown() override { qx::force_kernels(nullptr); }
};

}  // namespace qx_test
