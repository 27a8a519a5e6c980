// The heap functions and the checked array, in cases that no call of the interface reaches.
#include <gtest/gtest.h>

#include "support/array.h"
#include "support/child.h"
#include "support/memory.h"

namespace qx_test {
namespace {

TEST(Memory, NoElementsOwnNoBlock) {
  EXPECT_EQ(qx::allocate(0, 8), nullptr);
  EXPECT_EQ(qx::allocate_cache_aligned(0, 8), nullptr);
}

TEST(Memory, ASizeThatNoAddressSpaceHoldsEndsTheProcess) {
  for (const std::int64_t count : {std::int64_t{-1}, std::int64_t{1} << 61}) {
    const ChildEnd end = run_in_child([&] { qx::allocate(count, 8); });
    EXPECT_TRUE(end.trapped);
    EXPECT_TRUE(is_allocation_line(end.standard_error)) << end.standard_error;
  }
}

TEST(Array, AnElementOutsideOfItEndsTheProcess) {
  const int elements[] = {4, 5, 6};
  auto array = qx::Array<int>::copy_of(elements, 3);
  EXPECT_EQ(array.at(0), 4);
  EXPECT_EQ(array.at(2), 6);
  for (const std::int64_t index : {-1, 3}) {
    const ChildEnd end = run_in_child([&] { array.at(index) = 7; });
    EXPECT_TRUE(end.trapped);
    EXPECT_TRUE(is_bounds_line(end.standard_error, index, 3)) << end.standard_error;
  }
}

TEST(Array, NoElementsAreNeitherReadNorCounted) {
  const int element = 4;
  auto array = qx::Array<int>::copy_of(&element, 1);
  for (const std::int64_t count : {std::int64_t{0}, std::int64_t{-1}, INT64_MIN}) {
    array.append(&element, count);
    EXPECT_EQ(array.length, 1);
    EXPECT_EQ(qx::Array<int>::copy_of(&element, count).data, nullptr);
  }
  EXPECT_EQ(array.at(0), 4);
}

}  // namespace
}  // namespace qx_test
