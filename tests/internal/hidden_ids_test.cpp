// The set of hidden ids against a standard one: never a wrong no, and no wrong yes where it is
// exact.
#include "hidden_ids.h"

#include <gtest/gtest.h>

#include <memory>
#include <unordered_set>
#include <vector>

#include "histories/random.h"

namespace {

using qx::HiddenIds;
using qx_test::Random;

struct Answers {
  std::int64_t wrong_no = 0;
  std::int64_t wrong_maybe = 0;
};

Answers ask_about_random_ids(std::int64_t max_id, std::int64_t added) {
  Random random(21);
  const auto set = std::make_unique<HiddenIds>(max_id);
  std::unordered_set<std::int64_t> model;
  std::vector<std::int64_t> asked = {0, max_id};
  for (std::int64_t i = 0; i < added; ++i) {
    const std::int64_t id = random.between(0, max_id);
    set->add(id, i % 2 == 0);
    if (i % 2 == 0) model.insert(id);
    asked.push_back(id);
    asked.push_back(random.between(0, max_id));
  }
  for (const std::int64_t outside : {std::int64_t{-1}, INT64_MIN, max_id + 1, INT64_MAX}) {
    set->add(outside, true);
  }
  Answers answers;
  for (const std::int64_t id : asked) {
    const bool maybe = set->ask(&id, 1) != 0 && (set->exact() || set->ask_again(id));
    const bool added_before = model.count(id) != 0;
    answers.wrong_no += !maybe && added_before ? 1 : 0;
    answers.wrong_maybe += maybe && !added_before ? 1 : 0;
  }
  return answers;
}

TEST(HiddenIds, IsExactWhereEveryIdHasABit) {
  for (const std::int64_t max_id : {0LL, 1LL, 31LL, 32LL, 1000LL, HiddenIds::kMostBits - 1LL}) {
    const Answers answers = ask_about_random_ids(max_id, 5000);
    EXPECT_EQ(answers.wrong_no, 0) << max_id;
    EXPECT_EQ(answers.wrong_maybe, 0) << max_id;
  }
}

TEST(HiddenIds, NeverForgetsAnIdAndSeldomInventsOne) {
  for (const std::int64_t max_id : {HiddenIds::kMostBits + 0LL, 5000000LL, (1LL << 40) - 1}) {
    const Answers answers = ask_about_random_ids(max_id, 20000);
    EXPECT_EQ(answers.wrong_no, 0) << max_id;
    EXPECT_LT(answers.wrong_maybe, 100) << max_id;
  }
}

TEST(HiddenIds, PaysOnlyForEnoughQuestions) {
  EXPECT_TRUE(HiddenIds::pays(100, 1000000, 999999));
  EXPECT_TRUE(HiddenIds::pays(100, 1000000, 5000000));
  EXPECT_FALSE(HiddenIds::pays(1, 10, 999999));
  EXPECT_FALSE(HiddenIds::pays(1000, 999, 9999));
  EXPECT_FALSE(HiddenIds::pays(600000, 1000000, 5000000));
}

}  // namespace
