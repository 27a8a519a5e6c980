// The map against std::unordered_map: ordinary keys, patterned keys, and keys made to collide.
#include "support/int64_map.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "internal/colliding_keys.h"
#include "support/random.h"

namespace {

using qx::Int64Map;
using WideMap = qx::BasicInt64Map<4>;  // wide table slots from 32 of them on
using qx_test::Random;
using Keys = std::vector<std::int64_t>;

Keys colliding_keys() {
  Keys keys;
  for (std::uint64_t i = 0; i < 200; ++i) keys.push_back(qx_test::colliding_key(i));
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

template <typename Map>
void expect_equal(const Map& map, const std::unordered_map<std::int64_t, std::int64_t>& model,
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

// Twice as many assignments as keys; half of them are to any of the keys.
template <typename Map>
void expect_the_last_values(const Keys& keys) {
  Map map;
  std::unordered_map<std::int64_t, std::int64_t> model;
  Random random(9);
  for (const std::int64_t key : keys) {
    const std::int64_t again = random.any_of(keys);
    for (const std::int64_t assigned : {key, again}) {
      const auto value = static_cast<std::int64_t>(random.bits());
      map.assign(assigned, value);
      model[assigned] = value;
    }
  }
  Keys near;
  for (const std::int64_t key : keys) {
    near.push_back(key ^ 1);
    near.push_back(key ^ INT64_MIN);
  }
  expect_equal(map, model, near);
  map.release();
}

TEST_P(MapWithKeys, HoldsTheLastValueOfEveryKeyAndNoOther) {
  expect_the_last_values<Int64Map>(GetParam().keys);
  expect_the_last_values<WideMap>(GetParam().keys);
}

// Looks up all the keys in batches of any size; get() must give the same values.
template <typename Map>
void expect_batches_equal_single_gets(const Map& map, const Keys& keys, Random& random) {
  typename Map::Cursor cursor;
  for (std::int64_t first = 0; first < std::ssize(keys);) {
    const std::int64_t most = std::min<std::int64_t>(Map::kBatch, std::ssize(keys) - first);
    const std::int64_t count = random.percent(70) ? most : random.between(0, most);
    std::int64_t values[Map::kBatch];
    map.get_batch(keys.data() + first, count, -7, values, cursor);
    for (std::int64_t i = 0; i < count; ++i) {
      const std::int64_t key = keys[static_cast<std::size_t>(first + i)];
      ASSERT_EQ(values[i], map.get(key, -7)) << "key " << key;
    }
    first += count;
  }
}

// The keys in their order, with some omitted, with absent ones inserted, and in any order.
template <typename Map>
void expect_batches_in_any_order(const Keys& keys) {
  Map map;
  Random random(10);
  expect_batches_equal_single_gets(map, keys, random);
  map.assign_batch(keys.data(), std::ssize(keys), [](std::int64_t i) { return 3 * i; });
  expect_batches_equal_single_gets(map, keys, random);
  for (const int percent_absent : {0, 5, 50, 100}) {
    Keys asked;
    for (const std::int64_t key : keys) {
      if (random.percent(95)) asked.push_back(key);
      if (random.percent(percent_absent)) asked.push_back(~key);
    }
    expect_batches_equal_single_gets(map, asked, random);
    for (std::int64_t& key : asked) std::swap(key, asked[random.bits() % asked.size()]);
    expect_batches_equal_single_gets(map, asked, random);
  }
  map.release();
}

TEST_P(MapWithKeys, AnswersBatchesLikeSingleQuestions) {
  expect_batches_in_any_order<Int64Map>(GetParam().keys);
  expect_batches_in_any_order<WideMap>(GetParam().keys);
}

TEST_P(MapWithKeys, KeepsTheOrderOfFirstInsertion) {
  Int64Map map;
  for (int round = 0; round < 2; ++round) {
    map.assign_batch(GetParam().keys.data(), std::ssize(GetParam().keys),
                     [&](std::int64_t i) { return i + round; });
  }
  Keys order;
  for (const auto& entry : map) order.push_back(entry.key);
  EXPECT_EQ(order, GetParam().keys);
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

// Inserts 2048 multiples of a stride into a table of 4096 slots. Returns the number of slots that
// the longest search reads.
std::int64_t longest_search(std::uint64_t stride) {
  constexpr int kBits = 12;
  constexpr std::uint64_t kSlots = std::uint64_t{1} << kBits;
  std::vector<bool> taken(kSlots);
  std::int64_t longest = 0;
  for (std::uint64_t i = 0; i < kSlots / 2; ++i) {
    const auto key = static_cast<std::int64_t>(i * stride);
    std::uint64_t at = qx::Int64Map::hash(key) >> (64 - kBits);
    std::int64_t read = 1;
    for (; taken[at]; at = (at + 1) % kSlots) ++read;
    taken[at] = true;
    longest = std::max(longest, read);
  }
  return longest;
}

TEST(Map, SpreadsKeysOfEveryStride) {
  for (int shift = 0; shift < 53; ++shift) {
    const std::uint64_t power = std::uint64_t{1} << shift;
    for (const std::uint64_t stride : {power, power + 1, power - 1}) {
      if (stride == 0) continue;
      EXPECT_LE(longest_search(stride), 50) << "stride " << stride;
    }
  }
}

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
  map.assign(-8, 1);
  *map.find(-8) = 2;
  EXPECT_EQ(map.get(-8, 0), 2);
  EXPECT_EQ(map.size(), 1);
  map.release();
}

}  // namespace
