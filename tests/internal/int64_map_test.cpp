// The map against std::unordered_map: ordinary keys, patterned keys, and keys made to collide.
#include "support/int64_map.h"

#include <gtest/gtest.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "histories/random.h"

namespace {

using qx::Int64Map;
using qx_test::Random;
using Keys = std::vector<std::int64_t>;

// The key that the map's hash takes to `hash`: both multiplications are by odd numbers and the fold
// is its own inverse, so the hash can be walked backwards.
std::int64_t key_of_hash(std::uint64_t hash) {
  const auto inverse = [](std::uint64_t odd) {
    std::uint64_t x = odd;  // right in the low 3 bits; each round doubles that
    for (int round = 0; round < 5; ++round) x *= 2 - odd * x;
    return x;
  };
  hash *= inverse(0xD6E8FEB86659FD93u);
  hash ^= hash >> 32;
  return static_cast<std::int64_t>(hash * inverse(0x9E3779B97F4A7C15u));
}

// Keys that all start at the same slot of any table up to 2^20 slots and carry the same tag.
Keys colliding_keys() {
  Keys keys;
  for (std::uint64_t i = 0; i < 200; ++i) {
    keys.push_back(key_of_hash((std::uint64_t{0xABCDE} << 44) | (i << 24) | 0x123456u));
  }
  return keys;
}

Keys multiples_of(std::int64_t step, std::int64_t count) {
  Keys keys;
  for (std::int64_t i = 0; i < count; ++i) {
    keys.push_back(static_cast<std::int64_t>(static_cast<std::uint64_t>(i) *
                                             static_cast<std::uint64_t>(step)));
  }
  return keys;
}

Keys random_keys(std::int64_t count) {
  Random random(5);
  Keys keys;
  for (std::int64_t i = 0; i < count; ++i) keys.push_back(static_cast<std::int64_t>(random.bits()));
  return keys;
}

void expect_equal(const Int64Map& map, const std::unordered_map<std::int64_t, std::int64_t>& model,
                  const Keys& absent) {
  ASSERT_EQ(map.size(), static_cast<std::int64_t>(model.size()));
  for (const auto& [key, value] : model) {
    const std::int64_t* const found = map.find(key);
    ASSERT_NE(found, nullptr) << key;
    ASSERT_EQ(*found, value) << key;
  }
  for (const std::int64_t key : absent) {
    ASSERT_EQ(map.contains(key), model.count(key) != 0) << key;
  }
}

struct NamedKeys {
  std::string name;
  Keys keys;
};

class MapWithKeys : public testing::TestWithParam<NamedKeys> {};

TEST_P(MapWithKeys, HoldsTheLastValueOfEveryKeyAndNoOther) {
  Int64Map map;
  std::unordered_map<std::int64_t, std::int64_t> model;
  Random random(9);
  for (const std::int64_t key : GetParam().keys) {
    const std::int64_t again = random.any_of(GetParam().keys);
    for (const std::int64_t assigned : {key, again}) {
      const auto value = static_cast<std::int64_t>(random.bits());
      map.assign(assigned, value);
      model[assigned] = value;
    }
  }
  Keys near;
  for (const std::int64_t key : GetParam().keys) {
    near.push_back(key ^ 1);
    near.push_back(key ^ INT64_MIN);
  }
  expect_equal(map, model, near);
  map.release();
}

INSTANTIATE_TEST_SUITE_P(
    Patterns, MapWithKeys,
    testing::Values(NamedKeys{"Ascending", multiples_of(1, 20000)},
                    NamedKeys{"Descending", multiples_of(-1, 20000)},
                    NamedKeys{"MultiplesOfTwoTo16", multiples_of(1 << 16, 20000)},
                    NamedKeys{"MultiplesOfTwoTo20", multiples_of(1 << 20, 20000)},
                    NamedKeys{"MultiplesOfTwoTo32", multiples_of(1LL << 32, 20000)},
                    NamedKeys{"MultiplesOfTwoTo56", multiples_of(1LL << 56, 256)},
                    NamedKeys{"Random", random_keys(20000)},
                    NamedKeys{"Extremes", {0, -1, 1, INT64_MIN, INT64_MAX, INT64_MIN + 1}},
                    NamedKeys{"Colliding", colliding_keys()}),
    [](const auto& pattern) { return pattern.param.name; });

TEST(Map, OwnsNoStorageUntilItsFirstKey) {
  Int64Map map;
  EXPECT_EQ(map.size(), 0);
  EXPECT_EQ(map.find(0), nullptr);
  EXPECT_EQ(map.get(0, 17), 17);
  EXPECT_FALSE(map.contains(INT64_MIN));
  map.release();
  map.assign(3, 4);
  EXPECT_EQ(map.get(3, 17), 4);
  map.release();
  EXPECT_EQ(map.size(), 0);
  EXPECT_FALSE(map.contains(3));
}

TEST(Map, AssignsThroughTheFoundValue) {
  Int64Map map;
  map.insert_new(-8, 1);
  *map.find(-8) = 2;
  EXPECT_EQ(map.get(-8, 0), 2);
  EXPECT_EQ(map.size(), 1);
  map.release();
}

}  // namespace
