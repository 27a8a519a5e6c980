// Metamorphic tests: over indexes too large for the model, each states a relation between two
// answers that must be equal bit for bit, because both ask for the same in different ways.
//
// The indexes have 200,000 rows of 16 floats, once of values that hardly ever make two scores
// equal, once of so few values that thousands of rows share a score. Every relation is tested under
// every kernel. To show that it can fail, each is also tested with a reference in which one planted
// difference must be found.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "internal/every_kernel.h"
#include "support/host.h"
#include "support/random.h"

namespace qx_test {
namespace {

constexpr std::int64_t kRows = 200000;
constexpr std::int32_t kDim = 16;
constexpr std::int32_t kMost = 1000;  // the largest k
constexpr int kQueries = 3;

const float* vector_of(const Rows& rows, std::int64_t row) {
  return rows.vectors.data() + row * kDim;
}
void add(Rows& rows, const float* vector, std::int64_t id) {
  rows.vectors.insert(rows.vectors.end(), vector, vector + kDim);
  rows.ids.push_back(id);
}
void add(Rows& rows, const Rows& from, std::int64_t row) {
  add(rows, vector_of(from, row), from.ids.data()[row]);
}

// An index of rows, in two partitions that share a third of them.
struct Base : Index {
  explicit Base(Rows sealed) : Index(kDim), rows(std::move(sealed)) {
    const auto part = static_cast<std::int32_t>(rows.ids.size() / 3);
    seal(*this, kDim, rows.ids, rows.vectors, {{5, 6}, {0, part}, {2 * part, part}});
  }

  Found full(const Floats& query, std::int32_t k = kMost) const {
    return search_full(*this, query, k);
  }
  Found visible(const Floats& query) const {
    return search_filtered(*this, kEveryId, query, kMost);
  }
  Ids partition_ids(std::int64_t key) const {
    const std::ptrdiff_t part = std::ssize(rows.ids) / 3;
    const auto begin = rows.ids.begin();
    return key == 5 ? Ids(begin, begin + 2 * part) : Ids(begin + part, begin + 2 * part);
  }

  const Rows rows;
};

// True for equal scores slot by slot, and the same set of ids for each score except the last:
// further rows with the last score may exist that did not fit.
bool equal_up_to_ties(const Found& a, const Found& b) {
  std::map<std::uint32_t, std::multiset<std::int64_t>> of_a, of_b;
  if (a.slots.size() != b.slots.size()) return false;
  for (std::size_t i = 0; i < a.slots.size(); ++i) {
    const std::uint32_t score = bits_of(a.slots[i].score);
    if (score != bits_of(b.slots[i].score)) return false;
    if (score == bits_of(a.slots.back().score)) continue;
    of_a[score].insert(a.slots[i].id);
    of_b[score].insert(b.slots[i].id);
  }
  return of_a == of_b;
}

enum class Data { kFewTies, kManyTies };

struct World {
  std::vector<Floats> queries;
  Rows rows;
  Rows altered;  // the best row of each query is twice as good
  Ids best;      // the ids of these rows

  explicit World(Data data) {
    Random random(data == Data::kFewTies ? 1 : 2);
    const auto draw = [&] {
      return data == Data::kFewTies ? draw_float(random, Values::kSmooth)
                                    : static_cast<float>(random.between(-1, 1));
    };
    rows.ids.resize(kRows);
    std::iota(rows.ids.begin(), rows.ids.end(), 0);
    random.shuffle(rows.ids);
    rows.vectors.resize(kRows * kDim);
    std::generate(rows.vectors.begin(), rows.vectors.end(), draw);
    altered = rows;
    const Base index(rows);
    for (int q = 0; q < kQueries; ++q) {
      Floats query(kDim, q % 2 == 0 ? 1.0f : -1.0f);
      if (data == Data::kFewTies) std::generate(query.begin(), query.end(), draw);
      if (q == 2) query[3] = -query[3];
      best.push_back(index.full(query, 1).slots[0].id);
      queries.push_back(query);
      const auto row = std::find(rows.ids.begin(), rows.ids.end(), best.back()) - rows.ids.begin();
      float* const vector = altered.vectors.data() + row * kDim;
      for (std::int32_t j = 0; j < kDim; ++j) vector[j] = 2 * vector_of(rows, row)[j];
    }
  }
};

const World& world_of(Data data) {
  static const World few(Data::kFewTies);
  static const World many(Data::kManyTies);
  return data == Data::kFewTies ? few : many;
}

class Metamorphic : public testing::TestWithParam<std::tuple<const qx::Kernels*, Data>> {
 protected:
  void SetUp() override {
    const qx::Kernels* const kernels = std::get<0>(GetParam());
    if (!qx::force_kernels(kernels->name)) GTEST_SKIP() << kernels->name << " does not run here";
  }
  void TearDown() override { qx::force_kernels(nullptr); }

  const World& world() const { return world_of(std::get<1>(GetParam())); }

  // A relation compares an answer of `index` with the same answer computed from `other` in a
  // different way. It must hold if both have the same rows, and fail if `other` has the altered
  // ones.
  template <typename Relation>
  void expect_relation(Relation holds) {
    const Base index(world().rows);
    const Base altered(world().altered);
    for (const Floats& query : world().queries) {
      ASSERT_EQ(index.full(query).returned, kMost);
      EXPECT_TRUE(holds(index, index, query));
      EXPECT_FALSE(holds(index, altered, query)) << "the planted difference is not found";
    }
  }

  // Hides, replaces and adds rows, once, but leaves the best ones.
  void change(const Base& index) const {
    if (qx_index_mutated(index) != 0) return;
    Rows inserted;
    Ids deleted;
    for (std::int64_t i = 0; i < 2000; ++i) {
      const std::int64_t replaced = i * 97 % kRows;
      const std::int64_t hidden = i * 89 % kRows;
      const float* const vector = vector_of(world().rows, i);
      if (!is_best(replaced)) add(inserted, vector, i % 2 == 0 ? replaced : kRows + i);
      if (!is_best(hidden)) deleted.push_back(hidden);
    }
    insert(index, inserted.ids, inserted.vectors);
    delete_ids(index, deleted);
  }

  bool is_best(std::int64_t id) const {
    return std::find(world().best.begin(), world().best.end(), id) != world().best.end();
  }
};

TEST_P(Metamorphic, FewResultsArePrefixOfMany) {
  expect_relation([](const Base& index, const Base& other, const Floats& query) {
    const Found many = other.full(query);
    bool holds = true;
    for (const std::int32_t k : {1, 2, 10, 48, 49, 100, 999}) {
      holds &= index.full(query, k) == found({many.slots.begin(), many.slots.begin() + k});
    }
    return holds;
  });
}

TEST_P(Metamorphic, BestOfShardsMergedAreBestOfAll) {
  expect_relation([](const Base& index, const Base& other, const Floats& query) {
    constexpr std::int64_t kShards = 4;
    std::vector<Hit> all;
    for (std::int64_t s = 0; s < kShards; ++s) {
      Rows part;
      const std::int64_t end = (s + 1) * kRows / kShards;
      for (std::int64_t row = s * kRows / kShards; row < end; ++row) add(part, other.rows, row);
      const Found hits = Base(part).full(query);
      all.insert(all.end(), hits.slots.begin(), hits.slots.end());
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const Hit& a, const Hit& b) { return a.score > b.score; });
    all.resize(kMost, kEmptySlot);
    return index.full(query) == found(all);
  });
}

TEST_P(Metamorphic, RebuiltFromItsBaseAnIndexAnswersAlike) {
  expect_relation([](const Base& index, const Base& other, const Floats& query) {
    return index.full(query) == Base(export_base(other)).full(query);
  });
}

TEST_P(Metamorphic, RebuiltFromWhatIsVisibleAnIndexAnswersAlike) {
  expect_relation([this](const Base& index, const Base& other, const Floats& query) {
    change(index);
    change(other);
    const Base rebuilt(export_visible(other));
    const Found hits = index.visible(query);
    return hits == rebuilt.full(query) && hits == rebuilt.visible(query);
  });
}

TEST_P(Metamorphic, APartitionIsTheListOfItsIds) {
  // One of the two partitions has the best row of a query; the rows after both are in no partition.
  const Base index(world().rows);
  for (const std::int64_t key : {5, 6}) {
    const Ids ids = index.partition_ids(key);
    for (const Floats& query : world().queries) {
      const Found hits = search_partition(index, key, query, kMost);
      ASSERT_EQ(hits.returned, kMost);
      EXPECT_TRUE(hits == scatter(index, ids, query, kMost));
      // The planted difference: a list without the best row.
      Ids fewer = ids;
      fewer.erase(std::find(fewer.begin(), fewer.end(), hits.slots[0].id));
      EXPECT_FALSE(hits == scatter(index, fewer, query, kMost));
    }
  }
}

TEST_P(Metamorphic, WhereAllPassAFilteredSearchScansAllThatIsVisible) {
  expect_relation([](const Base& index, const Base& other, const Floats& query) {
    return index.visible(query) == other.full(query);
  });
  expect_relation([this](const Base& index, const Base& other, const Floats& query) {
    change(index);
    change(other);
    return index.visible(query) == search_mvcc(other, visible_ids(other), query, kMost);
  });
}

TEST_P(Metamorphic, WithEveryListProbedIvfIsExactUpToTies) {
  expect_relation([](const Base& index, const Base& other, const Floats& query) {
    constexpr std::int32_t kLists = 64;
    Ivf ivf{kLists, kLists, {}, {}, {0}};
    for (std::int64_t list = 0; list < kLists; ++list) {
      for (std::int64_t row = list; row < kRows; row += kLists) {
        ivf.list_ids.push_back(index.rows.ids.data()[row]);
      }
      ivf.list_offsets.push_back(static_cast<std::int32_t>(ivf.list_ids.size()));
      const float* const centroid = vector_of(index.rows, list);
      ivf.centroids.insert(ivf.centroids.end(), centroid, centroid + kDim);
    }
    set_ivf(index, 1, ivf);
    return equal_up_to_ties(search_ivf(index, 1, query, kMost), other.full(query));
  });
}

TEST_P(Metamorphic, RowsInAnotherOrderPermuteOnlyTies) {
  expect_relation([](const Base& index, const Base& other, const Floats& query) {
    std::vector<std::int64_t> order(kRows);
    std::iota(order.begin(), order.end(), 0);
    Random(3).shuffle(order);
    Rows permuted;
    for (const std::int64_t row : order) add(permuted, other.rows, row);
    return equal_up_to_ties(index.full(query), Base(permuted).full(query));
  });
}

// Checks the test data: the number of distinct scores.
TEST(MetamorphicData, HasManyTiesOrFew) {
  for (const Data data : {Data::kFewTies, Data::kManyTies}) {
    const Base index(world_of(data).rows);
    for (const Floats& query : world_of(data).queries) {
      std::set<std::uint32_t> distinct;
      for (const Hit& hit : index.full(query).slots) distinct.insert(bits_of(hit.score));
      EXPECT_GT(distinct.size(), data == Data::kFewTies ? 990u : 2u);
      EXPECT_LT(distinct.size(), data == Data::kFewTies ? 1001u : 20u);
    }
  }
}

std::string name_of(const testing::TestParamInfo<Metamorphic::ParamType>& parameters) {
  const auto& [kernels, data] = parameters.param;
  return std::string(kernels->name) + (data == Data::kFewTies ? "_few_ties" : "_many_ties");
}

INSTANTIATE_TEST_SUITE_P(Kernels, Metamorphic,
                         testing::Combine(testing::ValuesIn(listed_kernels()),
                                          testing::Values(Data::kFewTies, Data::kManyTies)),
                         name_of);

}  // namespace
}  // namespace qx_test
