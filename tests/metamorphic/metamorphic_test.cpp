// Metamorphic tests: over indexes too large for the model, each states a relation between two
// answers that must be equal bit for bit, because both ask for the same in different ways.
//
// The indexes have 200,000 rows of 16 floats, once of values that hardly ever make two scores
// equal, once of so few values that thousands of rows share a score. Every relation is tested under
// every kernel. To show that it can fail, each is also tested with a reference in which one planted
// difference must be found.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <map>
#include <numeric>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "internal/every_kernel.h"
#include "qx_runtime.h"
#include "support/call.h"
#include "support/random.h"

namespace qx_test {
namespace {

using Ids = std::vector<std::int64_t>;
using Floats = std::vector<float>;
using Ints = std::vector<std::int32_t>;

constexpr std::int64_t kRows = 200000;
constexpr std::int32_t kDim = 16;
constexpr std::int32_t kMost = 1000;  // the largest k
constexpr int kQueries = 3;

struct Rows {
  Floats vectors;
  Ids ids;

  std::int64_t count() const { return std::ssize(ids); }
  const float* at(std::int64_t row) const { return vectors.data() + row * kDim; }
  void add(const float* vector, std::int64_t id) {
    vectors.insert(vectors.end(), vector, vector + kDim);
    ids.push_back(id);
  }
  void add(const Rows& rows, std::int64_t row) { add(rows.at(row), rows.ids.data()[row]); }
};

struct Hits {
  Ids ids;
  Floats scores;  // finite, so equal values of nonzero scores are equal bits

  explicit Hits(std::int64_t slots = 0)
      : ids(static_cast<std::size_t>(slots), -7), scores(static_cast<std::size_t>(slots), -7.0f) {}

  Hits first(std::int64_t count) const {
    Hits hits(count);
    std::copy_n(ids.begin(), count, hits.ids.begin());
    std::copy_n(scores.begin(), count, hits.scores.begin());
    return hits;
  }
  std::vector<std::uint32_t> score_bits() const {
    std::vector<std::uint32_t> bits;
    for (const float score : scores) bits.push_back(std::bit_cast<std::uint32_t>(score));
    return bits;
  }
  friend bool operator==(const Hits& a, const Hits& b) {
    return a.ids == b.ids && a.score_bits() == b.score_bits();
  }
};

// Equal scores slot by slot, and the same set of ids for each score except the last: further rows
// with the last score may exist that did not fit.
bool equal_up_to_ties(const Hits& a, const Hits& b) {
  if (a.score_bits() != b.score_bits()) return false;
  std::map<std::uint32_t, std::multiset<std::int64_t>> of_a;
  std::map<std::uint32_t, std::multiset<std::int64_t>> of_b;
  for (std::size_t i = 0; i < a.ids.size(); ++i) {
    if (a.scores[i] == a.scores.back()) break;
    of_a[a.score_bits()[i]].insert(a.ids[i]);
    of_b[b.score_bits()[i]].insert(b.ids[i]);
  }
  return of_a == of_b;
}

// An index, with its rows in base order.
class Index {
 public:
  explicit Index(const Rows& rows) : rows_(rows), index_(qx_index_new(kDim, 0)) {
    const auto part = static_cast<std::int32_t>(rows.count() / 3);
    const Ids keys = {5, 6};
    const Ints starts = {0, part};
    const Ints sizes = {2 * part, part};
    EXPECT_EQ(qx_index_build(index_, rows.vectors.data(), rows.count(), kDim, rows.ids.data(),
                             keys.data(), starts.data(), sizes.data(), 2),
              0);
  }
  ~Index() { qx_index_free(index_); }
  Index(const Index&) = delete;
  Index& operator=(const Index&) = delete;

  const Rows& rows() const { return rows_; }
  QxIndex* get() const { return index_; }
  Ids partition_ids(std::int64_t key) const {
    const auto part = static_cast<std::ptrdiff_t>(rows_.count() / 3);
    const auto begin = rows_.ids.begin();
    return key == 5 ? Ids(begin, begin + 2 * part) : Ids(begin + part, begin + 2 * part);
  }

  Hits full(const Floats& query, std::int32_t k) const {
    return best(k, qx_index_search_full, query.data());
  }
  Hits partition(std::int64_t key, const Floats& query, std::int32_t k) const {
    return best(k, qx_index_search_partition, key, query.data());
  }
  Hits candidates(const Ids& ids, const Floats& query, std::int32_t k) const {
    return best(k, qx_index_scatter_topk, ids.data(), std::ssize(ids), query.data());
  }
  Hits visible(const Floats& query, std::int32_t k) const {
    return best(k, qx_index_search_filtered, QX_FILTER_ALL, 0, 0, query.data());
  }
  Hits as_they_are_now(const Ids& ids, const Floats& query, std::int32_t k) const {
    return best(k, qx_index_search_mvcc, ids.data(), std::ssize(ids), query.data());
  }
  Hits ivf(const Floats& query, std::int32_t k) const {
    return best(k, qx_index_search_ivf, 1, query.data());
  }

  Ids visible_ids() const {
    Ids ids(static_cast<std::size_t>(qx_index_visible_count(index_)));
    EXPECT_EQ(qx_index_visible_ids(index_, ids.data()), std::ssize(ids));
    return ids;
  }
  Rows exported(bool visible) const {
    const auto count =
        static_cast<std::size_t>(visible ? qx_index_visible_count(index_) : rows_.count());
    Rows rows{Floats(count * kDim), Ids(count)};
    EXPECT_EQ(visible ? qx_index_export_visible(index_, rows.vectors.data(), rows.ids.data())
                      : qx_index_export_base(index_, rows.vectors.data(), rows.ids.data()),
              rows.count());
    return rows;
  }

 private:
  // The k best by a search, which takes these arguments before k.
  template <typename Search, typename... Arguments>
  Hits best(std::int32_t k, Search search, Arguments... arguments) const {
    Hits hits(k);
    EXPECT_EQ(call_c(search, index_, arguments..., k, hits.ids.data(), hits.scores.data()), k);
    return hits;
  }

  Rows rows_;
  QxIndex* index_;
};

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
    Ids ids(kRows);
    std::iota(ids.begin(), ids.end(), 0);
    random.shuffle(ids);
    for (const std::int64_t id : ids) {
      Floats vector(kDim);
      for (float& component : vector) component = draw();
      rows.add(vector.data(), id);
    }
    altered = rows;
    const Index index(rows);
    for (int q = 0; q < kQueries; ++q) {
      Floats query(kDim);
      for (float& factor : query)
        factor = data == Data::kFewTies ? draw() : (q % 2 == 0 ? 1.0f : -1.0f);
      if (q == 2) query[3] = -query[3];
      best.push_back(index.full(query, 1).ids[0]);
      queries.push_back(query);
      const auto row = std::find(rows.ids.begin(), rows.ids.end(), best.back()) - rows.ids.begin();
      for (std::int32_t j = 0; j < kDim; ++j) {
        altered.vectors[static_cast<std::size_t>(row * kDim + j)] = 2 * rows.at(row)[j];
      }
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
    const Index index(world().rows);
    const Index altered(world().altered);
    for (const Floats& query : world().queries) {
      EXPECT_TRUE(holds(index, index, query));
      EXPECT_FALSE(holds(index, altered, query)) << "the planted difference is not found";
    }
  }

  // Hides, replaces and adds rows, once, but leaves the best ones.
  void change(const Index& index) const {
    if (qx_index_mutated(index.get()) != 0) return;
    Rows inserted;
    Ids deleted;
    for (std::int64_t i = 0; i < 2000; ++i) {
      const std::int64_t replaced = i * 97 % kRows;
      const std::int64_t hidden = i * 89 % kRows;
      if (!is_best(replaced)) inserted.add(world().rows.at(i), i % 2 == 0 ? replaced : kRows + i);
      if (!is_best(hidden)) deleted.push_back(hidden);
    }
    qx_index_insert(index.get(), inserted.vectors.data(), inserted.ids.data(),
                    static_cast<std::int32_t>(inserted.ids.size()));
    qx_index_delete(index.get(), deleted.data(), static_cast<std::int32_t>(deleted.size()));
  }

  bool is_best(std::int64_t id) const {
    return std::find(world().best.begin(), world().best.end(), id) != world().best.end();
  }
};

TEST_P(Metamorphic, FewResultsArePrefixOfMany) {
  expect_relation([](const Index& index, const Index& other, const Floats& query) {
    const Hits many = other.full(query, kMost);
    bool holds = true;
    for (const std::int32_t k : {1, 2, 10, 48, 49, 100, 999}) {
      holds &= index.full(query, k) == many.first(k);
    }
    return holds;
  });
}

TEST_P(Metamorphic, BestOfShardsMergedAreBestOfAll) {
  expect_relation([](const Index& index, const Index& other, const Floats& query) {
    constexpr std::int64_t kShards = 4;
    std::vector<std::pair<float, std::int64_t>> all;
    for (std::int64_t s = 0; s < kShards; ++s) {
      Rows part;
      const std::int64_t end = (s + 1) * kRows / kShards;
      for (std::int64_t row = s * kRows / kShards; row < end; ++row) {
        part.add(other.rows(), row);
      }
      const Hits hits = Index(part).full(query, kMost);
      for (std::size_t i = 0; i < kMost; ++i) all.emplace_back(hits.scores[i], hits.ids[i]);
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const auto& a, const auto& b) { return a.first > b.first; });
    Hits merged(kMost);
    for (std::size_t i = 0; i < kMost; ++i) std::tie(merged.scores[i], merged.ids[i]) = all[i];
    return index.full(query, kMost) == merged;
  });
}

TEST_P(Metamorphic, RebuiltFromItsBaseAnIndexAnswersAlike) {
  expect_relation([](const Index& index, const Index& other, const Floats& query) {
    return index.full(query, kMost) == Index(other.exported(false)).full(query, kMost);
  });
}

TEST_P(Metamorphic, RebuiltFromWhatIsVisibleAnIndexAnswersAlike) {
  expect_relation([this](const Index& index, const Index& other, const Floats& query) {
    change(index);
    change(other);
    const Index rebuilt(other.exported(true));
    const Hits hits = index.visible(query, kMost);
    return hits == rebuilt.full(query, kMost) && hits == rebuilt.visible(query, kMost);
  });
}

TEST_P(Metamorphic, APartitionIsTheListOfItsIds) {
  // One of the two partitions has the best row of a query; the rows after both are in no partition.
  const Index index(world().rows);
  for (const std::int64_t key : {5, 6}) {
    const Ids ids = index.partition_ids(key);
    for (const Floats& query : world().queries) {
      const Hits hits = index.partition(key, query, kMost);
      EXPECT_TRUE(hits == index.candidates(ids, query, kMost));
      // The planted difference: a list without the best row.
      Ids fewer = ids;
      fewer.erase(std::find(fewer.begin(), fewer.end(), hits.ids[0]));
      EXPECT_FALSE(hits == index.candidates(fewer, query, kMost));
    }
  }
}

TEST_P(Metamorphic, WhereAllPassAFilteredSearchScansAllThatIsVisible) {
  expect_relation([](const Index& index, const Index& other, const Floats& query) {
    return index.visible(query, kMost) == other.full(query, kMost);
  });
  expect_relation([this](const Index& index, const Index& other, const Floats& query) {
    change(index);
    change(other);
    return index.visible(query, kMost) == other.as_they_are_now(other.visible_ids(), query, kMost);
  });
}

TEST_P(Metamorphic, WithEveryListProbedIvfIsExactUpToTies) {
  expect_relation([](const Index& index, const Index& other, const Floats& query) {
    constexpr std::int32_t kLists = 64;
    Ids ids;
    Ints offsets = {0};
    Floats centroids;
    for (std::int64_t list = 0; list < kLists; ++list) {
      for (std::int64_t row = list; row < kRows; row += kLists) {
        ids.push_back(index.rows().ids[static_cast<std::size_t>(row)]);
      }
      offsets.push_back(static_cast<std::int32_t>(ids.size()));
      centroids.insert(centroids.end(), index.rows().at(list), index.rows().at(list) + kDim);
    }
    qx_index_set_ivf(index.get(), 1, kLists, kLists, centroids.data(), ids.data(), offsets.data(),
                     static_cast<std::int32_t>(ids.size()));
    return equal_up_to_ties(index.ivf(query, kMost), other.full(query, kMost));
  });
}

TEST_P(Metamorphic, RowsInAnotherOrderPermuteOnlyTies) {
  expect_relation([](const Index& index, const Index& other, const Floats& query) {
    std::vector<std::int64_t> order(kRows);
    std::iota(order.begin(), order.end(), 0);
    Random(3).shuffle(order);
    Rows permuted;
    for (const std::int64_t row : order) {
      permuted.add(other.rows(), row);
    }
    return equal_up_to_ties(index.full(query, kMost), Index(permuted).full(query, kMost));
  });
}

TEST_P(Metamorphic, RowsDeletedAndInsertedAgainPermuteOnlyTies) {
  expect_relation([](const Index& index, const Index& other, const Floats& query) {
    const Index again(other.rows());
    Rows moved;
    for (std::int64_t row = 0; row < kRows; row += 20) {
      moved.add(other.rows(), row);
    }
    const auto count = static_cast<std::int32_t>(moved.count());
    qx_index_delete(again.get(), moved.ids.data(), count);
    EXPECT_EQ(qx_index_visible_count(again.get()), kRows - count);
    qx_index_insert(again.get(), moved.vectors.data(), moved.ids.data(), count);
    EXPECT_EQ(qx_index_visible_count(again.get()), kRows);
    return equal_up_to_ties(index.visible(query, kMost), again.visible(query, kMost));
  });
}

// Checks the test data: the number of distinct scores.
TEST(MetamorphicData, HasManyTiesOrFew) {
  for (const Data data : {Data::kFewTies, Data::kManyTies}) {
    const Index index(world_of(data).rows);
    for (const Floats& query : world_of(data).queries) {
      const std::vector<std::uint32_t> bits = index.full(query, kMost).score_bits();
      const std::set<std::uint32_t> distinct(bits.begin(), bits.end());
      EXPECT_GT(distinct.size(), data == Data::kFewTies ? 990u : 2u);
      EXPECT_LT(distinct.size(), data == Data::kFewTies ? 1001u : 20u);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Kernels, Metamorphic,
                         testing::Combine(testing::ValuesIn(listed_kernels()),
                                          testing::Values(Data::kFewTies, Data::kManyTies)),
                         [](const auto& parameters) {
                           return std::string(std::get<0>(parameters.param)->name) +
                                  (std::get<1>(parameters.param) == Data::kFewTies ? "_few_ties"
                                                                                   : "_many_ties");
                         });

}  // namespace
}  // namespace qx_test
