// The heap functions and the array where there are no elements.
#include <gtest/gtest.h>

#include "support/array.h"
#include "support/memory.h"

namespace qx_test {
namespace {

TEST(Memory, NoElementsOwnNoBlock) {
  EXPECT_EQ(qx::allocate(0, 8), nullptr);
  EXPECT_EQ(qx::allocate_cache_aligned(0, 8), nullptr);
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
