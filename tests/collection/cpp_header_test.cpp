// The C++ header of collections: what it converts, what it refuses by itself, how callbacks throw,
// and who owns what. That the calls do what they should is shown of the C interface.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <optional>
#include <ranges>
#include <string>

#include "qx_collection.hpp"
#include "qx_runtime.hpp"  // both in one program

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;
using Numbers = std::vector<std::int64_t>;
using Floats = std::vector<float>;
using Bytes = std::vector<std::uint8_t>;
using qx::Collection;
using qx::TextCollection;
using qx::Value;

const Floats kThree = {1, 0, 0, 1, 1, 1};  // the rows of most tests, in two dimensions
const Floats kQuery = {2, 1};

qx::CollectionOptions two_dimensions(std::vector<QxColumn> columns = {}) {
  return {.dim = 2, .columns = std::move(columns)};
}

Collection three_numbers() {
  Collection collection(two_dimensions({{"year", QX_INTEGER}}));
  collection.upsert({7, 8, 9}, kThree, {Numbers{2001, 2002, 2003}});
  return collection;
}

template <typename Results>
Numbers ids_of(const Results& results) {
  Numbers ids;
  for (const auto& item : results) ids.push_back(item.id);
  return ids;
}

TEST(CollectionHeader, GivesHitsAsRanges) {
  using Hits = std::vector<Collection::Hit>;
  const Collection collection = three_numbers();
  Collection::Hits hits = collection.search(kQuery, 2);
  EXPECT_EQ(Hits(hits.begin(), hits.end()), (Hits{{9, 3}, {7, 2}}));
  EXPECT_EQ(hits.front(), hits[0]);
  EXPECT_EQ(hits.back(), hits[1]);
  float sum = 0;
  for (const auto& [id, score] : collection.search(kQuery, 3)) sum += score;
  EXPECT_EQ(sum, 6);
  Collection::Hits others = collection.search(kQuery, 3);
  std::swap(hits, others);
  EXPECT_EQ(hits.size(), 3u);
  EXPECT_EQ(std::ranges::max(others, {}, &Collection::Hit::score).id, 9);
  EXPECT_TRUE(collection.search(kQuery, 0).empty());
}

TEST(CollectionHeader, GivesARangeForEachQuery) {
  const Collection collection = three_numbers();
  const Floats queries = {2, 1, -1, 0, 0, 1};
  const Collection::HitsOfEach each = collection.search_each(queries, 2);
  ASSERT_EQ(each.size(), 3u);
  EXPECT_EQ(ids_of(each[0]), (Numbers{9, 7}));
  EXPECT_EQ(ids_of(each[1]), (Numbers{8, 7}));
  EXPECT_EQ(each[2].front(), (Collection::Hit{8, 1}));
  const Collection::HitsOfEach none = collection.search_each(queries, 5, {.filter = "year = 2002"});
  EXPECT_EQ(ids_of(none[2]), (Numbers{8}));
  EXPECT_TRUE(collection.search_each({}, 2).empty());
}

TEST(CollectionHeader, ResultsAreStandardRanges) {
  using std::ranges::contiguous_range;
  static_assert(contiguous_range<Collection::Hits> && contiguous_range<Collection::HitsOfEach>);
  static_assert(contiguous_range<TextCollection::Rows>);
  static_assert(std::is_nothrow_swappable_v<Collection::Hits>);
  static_assert(std::is_nothrow_swappable_v<Collection> && std::is_nothrow_swappable_v<qx::View>);
  static_assert(std::is_nothrow_move_constructible_v<Collection::Rows>);
  static_assert(!std::is_copy_constructible_v<Collection> && !std::is_copy_assignable_v<qx::View>);
}

TEST(CollectionHeader, TakesAndGivesTextIds) {
  TextCollection collection(two_dimensions());
  const std::string zero("a\0b", 3);
  const std::vector<std::string> ids = {"", zero, "über"};
  collection.upsert(ids, kThree);
  TextCollection::Hits hits = collection.search(kQuery, 3);
  const TextCollection::Hits moved = std::move(hits);
  EXPECT_EQ(collection.remove(std::vector<std::string_view>{"über"}), 1u);
  using Hits = std::vector<TextCollection::Hit>;
  EXPECT_EQ(Hits(moved.begin(), moved.end()), (Hits{{"über", 3}, {"", 2}, {zero, 1}}));
  EXPECT_EQ(collection.remove({"über", ""}), 1u);
  EXPECT_EQ(collection.get({zero})[0].id, zero);
  const auto accept = [&](std::string_view id) { return id != zero; };
  EXPECT_TRUE(collection.search(kQuery, 3, {.accept = accept}).empty());
}

TEST(CollectionHeader, KnowsTheMetric) {
  const Floats vectors = {3, 4, 0, 1};
  const auto best = [&](qx::Metric metric) {
    Collection collection({.dim = 2, .metric = metric});
    collection.upsert({7, 8}, vectors);
    EXPECT_EQ(collection.metric(), metric);
    EXPECT_EQ(collection.view().metric(), metric);
    return collection.search(Floats{0, 2}, 1)[0];
  };
  EXPECT_EQ(best(qx::Metric::kInnerProduct), (Collection::Hit{7, 8}));
  EXPECT_EQ(best(qx::Metric::kCosine), (Collection::Hit{8, 1}));
  EXPECT_EQ(best(qx::Metric::kEuclidean), (Collection::Hit{8, 1}));
  EXPECT_EQ(Collection(two_dimensions()).metric(), qx::Metric::kInnerProduct);
}

TEST(CollectionHeader, TrainsAndTunesLists) {
  Collection collection = three_numbers();
  EXPECT_THROW(collection.train(4), Collection::InvalidArgument);
  collection.train(2);
  EXPECT_EQ(collection.stats().lists, 2);
  const QxTuning tuning = collection.tune(1, 1.0, kQuery);
  EXPECT_EQ(tuning.n_queries, 1);
  EXPECT_EQ(tuning.recall, 1.0);
  EXPECT_EQ(collection.search(kQuery, 1, {.probes = tuning.probes})[0].id, 9);
  EXPECT_EQ(collection.tune(1, 1.0).n_queries, 3);
  EXPECT_THROW(collection.tune(1, 1.0, Floats(3)), Collection::InvalidArgument);
}

TEST(CollectionHeader, BuildsWithValuesAndLists) {
  Collection trained = three_numbers();
  trained.train(2);
  const Numbers ids = {7, 8, 9};
  const Numbers years = {2001, 2002, 2003};
  const auto copy = [](std::span<float> to) { std::ranges::copy(kThree, to.begin()); };
  const auto options = two_dimensions({{"year", QX_INTEGER}});
  const Collection built =
      Collection::build(options, ids, copy, std::array{qx::Values(years)}, trained.lists(ids));
  EXPECT_EQ(built.stats().lists, 2);
  EXPECT_EQ(built.lists({7, 9, 5}).of_rows, trained.lists({7, 9, 5}).of_rows);
  EXPECT_EQ(ids_of(built.search(kQuery, 3, {.filter = "year > 2001"})), (Numbers{9, 8}));
  EXPECT_TRUE(Collection::build(options, {}, nullptr).empty());
  const auto fail = [](std::span<float>) { throw std::length_error("no vectors"); };
  EXPECT_THROW(Collection::build(options, ids, fail), std::length_error);
  EXPECT_THROW(Collection::build(options, {9, 8}, copy), Collection::InvalidArgument);
  EXPECT_THROW(
      Collection::build(options, ids, copy, std::array{qx::Values(std::vector<double>(3))}),
      Collection::InvalidArgument);
  EXPECT_THROW(Collection::build(options, {7}, copy, {}, trained.lists(ids)),
               Collection::InvalidArgument);
  EXPECT_THROW(three_numbers().lists(ids), Collection::InvalidArgument);
}

TEST(CollectionHeader, TakesAndGivesValuesOfEachType) {
  Collection collection(two_dimensions(
      {{"i", QX_INTEGER}, {"r", QX_REAL}, {"b", QX_BOOLEAN}, {"t", QX_TEXT}, {"none", QX_TEXT}}));
  const Numbers integers = {1, -2, 3};
  const std::vector<double> reals = {0.5, -0.0, 1e300};
  const Bytes booleans = {0, 2, 1};
  const std::vector<std::string> texts = {"x", "", "longer than a short string may be"};
  const Bytes nulls = {0, 0, 1};
  collection.upsert({7, 8, 9}, kThree, {integers, reals, {booleans, nulls}, texts, {}});
  const Collection::Rows rows = collection.get({9, 5, 8});
  ASSERT_EQ(rows.size(), 3u);
  using Row = std::vector<Value>;
  EXPECT_EQ(rows[0].values, (Row{std::int64_t{3}, 1e300, {}, std::string_view(texts[2]), {}}));
  EXPECT_EQ(rows[2].values, (Row{std::int64_t{-2}, -0.0, true, ""sv, {}}));
  EXPECT_TRUE(std::signbit(std::get<double>(rows[2].values[1])));
  EXPECT_TRUE(rows[0].found);
  EXPECT_FALSE(rows[1].found);
  EXPECT_EQ(rows[1].values, Row(5));
  EXPECT_EQ(Floats(rows[0].vector.begin(), rows[0].vector.end()), (Floats{1, 1}));
}

TEST(CollectionHeader, SearchesByWhatIsGiven) {
  const Collection collection = three_numbers();
  const auto found = [&](const Collection::Search& search) {
    return ids_of(collection.search(kQuery, 3, search));
  };
  EXPECT_EQ(found({}), (Numbers{9, 7, 8}));
  EXPECT_EQ(found({.filter = "year > 2001", .threads = 1}), (Numbers{9, 8}));
  EXPECT_EQ(found({.among = Collection::Ids{7, 8, 5}}), (Numbers{7, 8}));
  EXPECT_EQ(found({.among = Collection::Ids()}), Numbers());
  EXPECT_EQ(found({.accept = [](std::int64_t id) { return id != 9; }}), (Numbers{7, 8}));
  EXPECT_EQ(found({.limit = 2.0f}), (Numbers{9, 7}));
  EXPECT_NE(collection.explain({.filter = "year > 2001"}).find("2 pass"), std::string::npos);
}

TEST(CollectionHeader, ListsAndCounts) {
  const Collection collection = three_numbers();
  EXPECT_EQ(ids_of(collection.list()), (Numbers{7, 8, 9}));
  EXPECT_EQ(ids_of(collection.list("year <> 2002", {7}, 5)), (Numbers{9}));
  EXPECT_EQ(ids_of(collection.list("", {}, 2)), (Numbers{7, 8}));
  EXPECT_EQ(collection.contains({9, 10}), (Bytes{1, 0}));
  EXPECT_EQ(collection.size(), 3u);
  EXPECT_FALSE(collection.empty());
  EXPECT_EQ(collection.dim(), 2);
  EXPECT_EQ(collection.columns()[0].name, "year"sv);
  EXPECT_EQ(collection.stats().rows, 3);
}

TEST(CollectionHeader, RefusesWhatDoesNotFitAndSaysWhat) {
  Collection collection = three_numbers();
  const Floats five(5);
  const auto refused = [](auto call) {
    try {
      call();
    } catch (const Collection::InvalidArgument& error) {
      return error.status() == QX_INVALID && *error.what() != 0;
    }
    return false;
  };
  const auto upsert = [&](const Floats& vectors, std::initializer_list<qx::Values> values) {
    return refused([&] { collection.upsert({1, 2}, vectors, values); });
  };
  const Floats two_rows(4);
  const Numbers two = {1, 2};
  const Bytes one_null = {1};
  EXPECT_TRUE(upsert(five, {two}));
  EXPECT_TRUE(upsert(kThree, {two}));
  EXPECT_TRUE(upsert(two_rows, {two, two}));
  EXPECT_TRUE(upsert(two_rows, {std::vector<double>{1, 2}}));
  EXPECT_TRUE(upsert(two_rows, {Numbers{1, 2, 3}}));
  EXPECT_TRUE(upsert(two_rows, {{two, one_null}}));
  EXPECT_TRUE(refused([&] { collection.search_each(five, 1); }));
  EXPECT_TRUE(refused([&] { collection.search(two_rows, 1); }));
  EXPECT_TRUE(refused([&] { collection.search(kQuery, -1); }));
  EXPECT_TRUE(refused([&] { collection.search(kQuery, 1, {.filter = "year ="}); }));
  EXPECT_TRUE(refused([&] { collection.list("year = 1\0"s); }));
  EXPECT_TRUE(refused([] { Collection({.dim = 0}); }));
  EXPECT_EQ(collection.size(), 3u);
  EXPECT_FALSE(upsert(two_rows, {two}));
  EXPECT_THROW(Collection::load("no/such/file"), Collection::IoError);
}

TEST(CollectionHeader, SaysThatThereIsNoMemory) {
  Collection collection({.dim = 1000, .memory_limit = 100'000});
  const Floats vectors(1'000'000);
  EXPECT_THROW(collection.upsert(Numbers(1000), vectors), std::bad_alloc);
  EXPECT_TRUE(collection.empty());
}

struct Thrown {
  int number;
};

template <typename Call>
int thrown_by(Call call) {
  try {
    call();
  } catch (const Thrown& thrown) {
    return thrown.number;
  }
  return 0;
}

TEST(CollectionHeader, ThrowsWhatACallbackThrows) {
  Collection collection({.dim = 2, .manual = true});
  Numbers ids(20000);
  for (std::size_t i = 0; i < ids.size(); ++i) ids[i] = static_cast<std::int64_t>(i);
  collection.upsert(ids, Floats(40000, 1));
  const qx::ProgressCallback progress = [](std::int64_t, std::int64_t) -> bool { throw Thrown{4}; };
  std::atomic<int> number = 0;
  const qx::AcceptCallback<std::int64_t> accept = [&](std::int64_t) -> bool {
    throw Thrown{++number};
  };
  const auto search = [&](const Collection::Search& s) {
    return thrown_by([&] { collection.search(kQuery, 5, s); });
  };
  EXPECT_GE(search({.accept = accept}), 1);
  EXPECT_GE(search({.accept = accept, .threads = 1}), 1);
  EXPECT_EQ(search({.progress = progress}), 4);
  EXPECT_EQ(thrown_by([&] { collection.compact(progress); }), 4);
  const std::string path = testing::TempDir() + "qx_collection_header_test";
  EXPECT_EQ(thrown_by([&] { collection.save(path, progress); }), 4);
  EXPECT_EQ(collection.size(), 20000u);
}

TEST(CollectionHeader, CancelsIfAProgressCallbackReturnsTrue) {
  Collection collection = three_numbers();
  const qx::ProgressCallback cancel = [](std::int64_t, std::int64_t) { return true; };
  const qx::ProgressCallback go_on = [](std::int64_t, std::int64_t) { return false; };
  EXPECT_THROW(collection.search(kQuery, 1, {.progress = cancel}), Collection::Cancelled);
  EXPECT_EQ(collection.search(kQuery, 1, {.progress = go_on}).size(), 1u);
}

TEST(CollectionHeader, SavesAndLoads) {
  const std::string path = testing::TempDir() + "qx_collection_header_test";
  three_numbers().save(path);
  const Collection loaded = Collection::load(path, {.threads = 1});
  EXPECT_EQ(ids_of(loaded.list("year >= 2002")), (Numbers{8, 9}));
  EXPECT_THROW(TextCollection::load(path), Collection::InvalidArgument);
  std::FILE* const file = std::fopen(path.c_str(), "wb");
  std::fputs("no collection", file);
  std::fclose(file);
  EXPECT_THROW(Collection::load(path), Collection::CorruptFile);
  std::remove(path.c_str());
}

TEST(CollectionHeader, ViewsSeeTheirRowsAndKeepTheCollection) {
  std::optional<Collection> collection(three_numbers());
  qx::View view = collection->view();
  collection->remove({7});
  view.remove({8});
  view.upsert({1}, Floats{0, 0}, {Numbers{1}});
  EXPECT_EQ(ids_of(view.list()), (Numbers{1, 7, 9}));
  EXPECT_EQ(ids_of(collection->list()), (Numbers{8, 9}));
  collection.reset();
  EXPECT_EQ(ids_of(view.search(kQuery, 2)), (Numbers{9, 7}));
  view = three_numbers().view();
  EXPECT_EQ(view.size(), 3u);
}

TEST(CollectionHeader, MovedOnesAreRefusedAndCanBeAssigned) {
  Collection collection = three_numbers();
  const Collection moved = std::move(collection);
  // NOLINTNEXTLINE(bugprone-use-after-move,clang-analyzer-cplusplus.Move): that is tested
  EXPECT_THROW(collection.size(), Collection::InvalidArgument);
  EXPECT_THROW(collection.search(kQuery, 1), Collection::InvalidArgument);
  EXPECT_THROW(collection.view(), Collection::InvalidArgument);
  collection = three_numbers();
  EXPECT_EQ(collection.size(), moved.size());
}

TEST(CollectionHeader, StandsBesideTheHeaderOfTheEngine) {
  qx::Index index(2);
  index.build(kThree, Numbers{7, 8, 9});
  const qx::Hits by_engine = index.search_full(kQuery, 3);
  const Collection::Hits by_collection = three_numbers().search(kQuery, 3);
  EXPECT_EQ(by_engine.ids, ids_of(by_collection));
}

}  // namespace
