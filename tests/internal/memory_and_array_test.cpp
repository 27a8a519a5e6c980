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

TEST(Memory, ThatACallerCanDoWithoutIsNullWhereThereIsNone) {
  for (const std::int64_t bytes : {std::int64_t{0}, std::int64_t{-1}, INT64_MIN, INT64_MAX}) {
    EXPECT_EQ(qx::try_allocate(bytes), nullptr) << bytes;
  }
}

TEST(Memory, ThatACallerCanDoWithoutIsAlignedToALineOrALargePage) {
  for (const std::int64_t mebibytes : {1, 3, 4, 5}) {
    auto* const block = static_cast<std::uint8_t*>(qx::try_allocate(mebibytes << 20));
    const std::uintptr_t alignment = mebibytes < 4 ? 64 : 2 << 20;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignment, 0u) << mebibytes;
    block[(mebibytes << 20) - 1] = 7;
    qx::release(block);
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
