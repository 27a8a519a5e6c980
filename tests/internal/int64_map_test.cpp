// The map against std::unordered_map: ordinary keys, patterned keys, and keys made to collide.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "internal/checked_map.h"
#include "support/random.h"

namespace qx_test {
namespace {

struct NamedKeys {
  std::string name;
  Keys keys;
};

template <typename KeyOf>
NamedKeys keys_by(std::string name, std::uint64_t count, KeyOf key_of) {
  NamedKeys named{std::move(name), {}};
  for (std::uint64_t i = 0; i < count; ++i) {
    named.keys.push_back(static_cast<std::int64_t>(key_of(i)));
  }
  return named;
}

std::vector<NamedKeys> patterns() {
  Random random(5);
  std::vector<NamedKeys> all = {
      keys_by("Ascending", 20000, [](std::uint64_t i) { return i; }),
      keys_by("Descending", 20000, [](std::uint64_t i) { return 0 - i; }),
      keys_by("MultiplesOfTwoTo56", 256, [](std::uint64_t i) { return i << 56; }),
      keys_by("Random", 20000, [&](std::uint64_t) { return random.bits(); }),
      keys_by("Colliding", 200, colliding_key),
      {"Extremes", {0, -1, 1, INT64_MIN, INT64_MAX, INT64_MIN + 1}}};
  for (const int shift : {16, 20, 32}) {
    all.push_back(keys_by("MultiplesOfTwoTo" + std::to_string(shift), 20000,
                          [&](std::uint64_t i) { return i << shift; }));
  }
  return all;
}

void require(bool holds, const char* what) { ASSERT_TRUE(holds) << what; }

class MapWithKeys : public testing::TestWithParam<NamedKeys> {};

// Twice as many assignments as keys; half of them are to any of the keys.
template <typename Map>
void expect_the_last_values(const Keys& keys) {
  CheckedMap<Map> map(require);
  Random random(9);
  for (const std::int64_t key : keys) {
    const std::int64_t again = random.any_of(keys);
    map.assign(key, static_cast<std::int64_t>(random.bits()));
    map.assign(again, static_cast<std::int64_t>(random.bits()));
  }
  map.compare_all();
  for (const std::int64_t key : keys) {
    map.ask(key ^ 1);
    map.ask(key ^ INT64_MIN);
    map.assign_through_the_found_value(key, 3);
    map.find_or_insert(key, 4);
  }
  map.compare_all();
}

TEST_P(MapWithKeys, HoldsTheLastValueOfEveryKeyAndNoOther) {
  expect_the_last_values<qx::Int64Map>(GetParam().keys);
  expect_the_last_values<WideMap>(GetParam().keys);
}

// Asks for keys in batches of any size.
template <typename Map>
void ask_in_batches(const CheckedMap<Map>& map, const Keys& keys, Random& random) {
  typename Map::Cursor cursor;
  for (auto first = keys.begin(); first != keys.end();) {
    const std::int64_t most = std::min<std::int64_t>(Map::kBatch, keys.end() - first);
    const std::int64_t count = random.percent(70) ? most : random.between(0, most);
    map.ask_batch(Keys(first, first + count), cursor);
    first += count;
  }
}

// The keys in their order, with some omitted, with absent ones inserted, and in any order.
template <typename Map>
void expect_batches_in_any_order(const Keys& keys) {
  CheckedMap<Map> map(require);
  Random random(10);
  ask_in_batches(map, keys, random);
  map.assign_batch(keys, 0);
  map.assign_batch(keys, 1);
  map.compare_all();
  EXPECT_EQ(map.order(), keys);
  ask_in_batches(map, keys, random);
  for (const int percent_absent : {0, 5, 50, 100}) {
    Keys asked;
    for (const std::int64_t key : keys) {
      if (random.percent(95)) asked.push_back(key);
      if (random.percent(percent_absent)) asked.push_back(~key);
    }
    ask_in_batches(map, asked, random);
    for (std::int64_t& key : asked) std::swap(key, asked[random.bits() % asked.size()]);
    ask_in_batches(map, asked, random);
  }
}

TEST_P(MapWithKeys, AnswersBatchesAndKeepsTheOrderOfFirstInsertion) {
  expect_batches_in_any_order<qx::Int64Map>(GetParam().keys);
  expect_batches_in_any_order<WideMap>(GetParam().keys);
}

INSTANTIATE_TEST_SUITE_P(Patterns, MapWithKeys, testing::ValuesIn(patterns()),
                         [](const auto& pattern) { return pattern.param.name; });

// Inserts 2048 multiples of a stride into a table of 4096 slots. Returns the number of slots that
// the longest search reads.
std::int64_t longest_search(std::uint64_t stride) {
  constexpr int kBits = 12;
  constexpr std::uint64_t kSlots = std::uint64_t{1} << kBits;
  std::vector<bool> taken(kSlots);
  std::int64_t longest = 0;
  for (std::uint64_t i = 0; i < kSlots / 2; ++i) {
    std::uint64_t at = qx::Int64Map::hash(static_cast<std::int64_t>(i * stride)) >> (64 - kBits);
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
      EXPECT_LE(stride == 0 ? 0 : longest_search(stride), 50) << "stride " << stride;
    }
  }
}

TEST(Map, IsEmptyBeforeItsFirstKeyAndOnceReleased) {
  qx::Int64Map map;
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(map.size(), 0);
    EXPECT_EQ(map.find(3), nullptr);
    EXPECT_EQ(map.get(3, 17), 17);
    EXPECT_FALSE(map.contains(3));
    map.release();
    map.assign(3, 4);
    EXPECT_EQ(map.get(3, 17), 4);
    map.release();
  }
}

}  // namespace
}  // namespace qx_test
