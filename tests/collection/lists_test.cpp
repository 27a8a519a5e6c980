// Lists: which centroid is nearest, by a naive computation of scores; that the same rows give the
// same lists, however they came and by any number of threads; and that tuning says what searches
// then find. Histories (history_test.cpp) compare searches of lists with the model.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <set>
#include <thread>

#include "collection/host.h"
#include "interface/handles.h"
#include "search/probes.h"
#include "support/random.h"

namespace qx_test {
namespace {

using qx::collection::ListNumber;
using qx::collection::Lists;
using qx::collection::Members;
using qx::collection::Nearness;

std::shared_ptr<qx::collection::Budget> no_limit() {
  return std::make_shared<qx::collection::Budget>(0);
}

// All lists, by falling score and ascending number.
std::vector<ListNumber> naive_order(const std::vector<Floats>& centroids, const Floats& query,
                                    Nearness nearness) {
  std::vector<std::pair<float, ListNumber>> order;
  for (const Floats& centroid : centroids) {
    Floats extended = centroid;
    Floats vector = query;
    if (nearness == Nearness::kDistance) {
      double squares = 0;
      for (const float component : centroid) squares += double{component} * component;
      extended.push_back(static_cast<float>(-squares / 2));
      vector.push_back(1);
    }
    order.emplace_back(-score_of(Metric::kInnerProduct, extended, vector),
                       static_cast<ListNumber>(order.size()));
  }
  std::sort(order.begin(), order.end());
  std::vector<ListNumber> lists;
  lists.reserve(order.size());
  for (const auto& [score, list] : order) lists.push_back(list);
  return lists;
}

TEST(Lists, AreNearByScoreThenByNumber) {
  Random random(1);
  for (int round = 0; round < 300; ++round) {
    const auto nearness = random.any_of<Nearness>({Nearness::kInnerProduct, Nearness::kDistance});
    const auto values = random.any_of<Values>({Values::kTies, Values::kSmooth});
    const auto dim = random.between32(1, 40);
    std::vector<Floats> centroids;
    Floats matrix;
    for (std::int64_t list = random.between(1, random.percent(20) ? 3000 : 20); list > 0; --list) {
      centroids.push_back(draw_floats(random, values, dim));
      matrix.insert(matrix.end(), centroids.back().begin(), centroids.back().end());
    }
    const Lists lists(matrix.data(), std::ssize(centroids), dim, nearness, no_limit());
    const Floats query = draw_floats(random, values, dim);
    std::vector<ListNumber> expected = naive_order(centroids, query, nearness);
    expected.resize(static_cast<std::size_t>(random.between(1, std::ssize(expected))));
    std::vector<ListNumber> nearest(expected.size());
    lists.find_nearest(query.data(), nearest);
    ASSERT_EQ(nearest, expected) << "round " << round;
    std::vector<float> space;
    ASSERT_EQ(lists.list_of(query.data(), space), expected[0]);
  }
}

// Norms beyond the range of float give scores that are no numbers.
TEST(Lists, WithoutAScoreComeLast) {
  const Floats centroids = {3e38f, 0, 1, 0, -1e38f, 1e38f, 2, 0};
  const Lists lists(centroids.data(), 4, 2, Nearness::kDistance, no_limit());
  const Floats query = {3, 0};
  std::vector<ListNumber> nearest(4);
  lists.find_nearest(query.data(), nearest);
  EXPECT_EQ(nearest, (std::vector<ListNumber>{3, 1, 0, 2}));
}

TEST(Members, GiveTheRowsOfListsAndTheListsOfRows) {
  const std::vector<ListNumber> lists = {4, 0, 4, 1, 0, 4};
  const Members members(lists, 6, no_limit());
  const std::vector<std::vector<std::uint32_t>> rows = {{1, 4}, {3}, {}, {}, {0, 2, 5}, {}};
  for (ListNumber list = 0; list < 6; ++list) {
    const auto of = members.rows_of(list);
    EXPECT_EQ(std::vector<std::uint32_t>(of.begin(), of.end()), rows[list]) << list;
  }
  EXPECT_EQ(members.lists(), lists);
}

// Rows about some directions, which are far apart.
struct Clusters {
  static constexpr std::int32_t kDim = 24;
  static constexpr std::int64_t kRows = 6000;
  static constexpr std::int64_t kClusters = 12;

  explicit Clusters(std::uint64_t seed) {
    Random random(seed);
    for (std::int64_t i = 0; i < kRows; ++i) {
      ids.push_back(7 * i - 9000);
      for (std::int32_t j = 0; j < kDim; ++j) {
        const bool is_own = j / 2 == i % kClusters;
        const float noise = 0.03125f * static_cast<float>(random.between(-8, 8));
        vectors.push_back((is_own ? 4.0f : 0.0f) + noise);
      }
    }
  }

  Owned<QxCollection> create(QxOptions options = {}) const {
    return Owned<QxCollection>(Schema{kDim}.create(options));
  }
  void upsert(QxCollection* collection, std::int64_t first, std::int64_t count) const {
    ASSERT_EQ(qx_collection_upsert(collection, {count, ids.data() + first, nullptr},
                                   vectors.data() + first * kDim, nullptr),
              QX_OK);
  }

  std::vector<std::int64_t> ids;
  Floats vectors;
};

void train(QxCollection* collection, std::int64_t lists) {
  ASSERT_EQ(qx_collection_train(collection, lists, nullptr, nullptr), QX_OK)
      << qx_collection_message();
}

// The centroids, and the list of each row by ascending id.
std::pair<Floats, std::vector<ListNumber>> lists_of(const QxCollection& collection) {
  const auto state = collection.collection.state();
  Floats centroids;
  for (std::int64_t list = 0; list < state->lists->count(); ++list) {
    const float* const centroid = state->lists->centroid(list);
    centroids.insert(centroids.end(), centroid, centroid + state->lists->dim());
  }
  const qx::collection::RowLists of_rows(*state);
  std::vector<ListNumber> lists;
  qx::collection::Cursor cursor(*state, nullptr);
  for (qx::collection::Location at; cursor.next(&at);) {
    lists.push_back(of_rows.of(at));
  }
  return {centroids, lists};
}

TEST(Training, GivesTheSameListsHoweverTheRowsCameAndByAnyThreads) {
  const Clusters clusters(3);
  const auto reference = clusters.create();
  clusters.upsert(reference.get(), 0, Clusters::kRows);
  train(reference.get(), 40);
  const auto expected = lists_of(*reference);
  EXPECT_EQ(std::ssize(expected.second), Clusters::kRows);
  for (const std::int32_t threads : {1, 2, 3, 8}) {
    QxOptions options = {};
    options.threads = threads;
    options.manual = threads % 2;
    const auto collection = clusters.create(options);
    for (std::int64_t first = Clusters::kRows; first > 0; first -= std::int64_t{500} * threads) {
      const std::int64_t start = std::max<std::int64_t>(0, first - std::int64_t{500} * threads);
      clusters.upsert(collection.get(), start, first - start);
    }
    clusters.upsert(collection.get(), 100, 300);
    train(collection.get(), 40);
    EXPECT_TRUE(lists_of(*collection) == expected) << threads << " threads";
    ASSERT_EQ(qx_collection_compact(collection.get(), nullptr, nullptr), QX_OK);
    EXPECT_TRUE(lists_of(*collection) == expected) << threads << " threads, compacted";
  }
}

// Each row is in the list of its nearest centroid, whether it was there before or came later.
TEST(Training, DividesRowsByTheirNearestCentroid) {
  const Clusters clusters(5);
  const auto collection = clusters.create();
  clusters.upsert(collection.get(), 0, 3000);
  train(collection.get(), Clusters::kClusters);
  clusters.upsert(collection.get(), 3000, 2900);
  clusters.upsert(collection.get(), 5900, 100);
  const auto [matrix, lists] = lists_of(*collection);
  std::vector<Floats> centroids;
  for (std::int64_t list = 0; list < Clusters::kClusters; ++list) {
    const auto first = matrix.begin() + list * Clusters::kDim;
    centroids.emplace_back(first, first + Clusters::kDim);
  }
  std::set<ListNumber> used;
  for (std::size_t row = 0; row < lists.size(); ++row) {
    const float* const vector = clusters.vectors.data() + row * Clusters::kDim;
    const Floats floats(vector, vector + Clusters::kDim);
    ASSERT_EQ(lists[row], naive_order(centroids, floats, Nearness::kInnerProduct)[0]) << row;
    used.insert(lists[row]);
  }
  EXPECT_GT(used.size(), 6u);  // k-means may put two clusters into one list, but not most of them
}

TEST(Training, FindsDirectionsOrMeans) {
  const Floats vectors = {2, 0, 4, 0, 0, 3, 0, 1};
  const std::int64_t ids[] = {1, 2, 3, 4};
  const auto centroids = [&](Metric metric) {
    const Owned<QxCollection> collection(Schema{2, false, {}, {}, metric}.create());
    EXPECT_EQ(qx_collection_upsert(collection.get(), {4, ids, nullptr}, vectors.data(), nullptr),
              QX_OK);
    train(collection.get(), 2);
    const Floats found = lists_of(*collection).first;
    return std::set<Floats>{{found[0], found[1]}, {found[2], found[3]}};
  };
  EXPECT_EQ(centroids(Metric::kInnerProduct), (std::set<Floats>{{1, 0}, {0, 1}}));
  EXPECT_EQ(centroids(Metric::kEuclidean), (std::set<Floats>{{3, 0}, {0, 2}}));
}

TEST(Training, ThatIsCancelledOrRefusedKeepsTheListsThatThereWere) {
  const Clusters clusters(6);
  QxOptions one_thread = {};
  one_thread.threads = 1;
  const auto collection = clusters.create(one_thread);
  clusters.upsert(collection.get(), 0, 5000);
  train(collection.get(), 9);
  const auto before = lists_of(*collection);
  // One thread reports each of its tasks, and the end.
  std::int64_t calls = 0;
  const auto count = [](void* context, std::int64_t done, std::int64_t total) {
    EXPECT_EQ(done, std::min(++*static_cast<std::int64_t*>(context), total));
    return 0;
  };
  ASSERT_EQ(qx_collection_train(collection.get(), 7, count, &calls), QX_OK);
  ASSERT_GT(calls, 10);
  train(collection.get(), 9);
  for (std::int64_t patience = 0; patience < calls; patience += 3) {
    std::int64_t left = patience;
    const auto cancel = [](void* context, std::int64_t done, std::int64_t total) {
      EXPECT_TRUE(0 <= done && done <= total);
      return (*static_cast<std::int64_t*>(context))-- == 0 ? 1 : 0;
    };
    EXPECT_EQ(qx_collection_train(collection.get(), 7, cancel, &left), QX_CANCELLED);
    EXPECT_TRUE(lists_of(*collection) == before);
  }
  train(collection.get(), 0);
  EXPECT_EQ(collection->collection.state()->lists, nullptr);
}

// What searches with so many probes find of the k best rows, as a part.
double recall_of(const QxCollection* collection, const Floats& queries, std::int64_t k,
                 std::int32_t probes, const char* filter) {
  const std::int64_t count = std::ssize(queries) / Clusters::kDim;
  const auto search = [&](std::int32_t lists) {
    QxSearch options = {};
    options.filter = filter;
    options.probes = lists;
    QxHits* hits = nullptr;
    EXPECT_EQ(qx_collection_search(collection, nullptr, queries.data(), count, k, &options, &hits),
              QX_OK);
    return Owned<QxHits>(hits);
  };
  const auto all = search(0);
  const auto some = search(probes);
  std::int64_t found = 0;
  std::int64_t wanted = 0;
  for (std::int64_t q = 0; q < count; ++q) {
    EXPECT_EQ(some->counts[q], all->counts[q]);
    const std::int64_t* const first = some->ids + q * k;
    for (std::int64_t i = 0; i < all->counts[q]; ++i) {
      found += std::count(first, first + some->counts[q], all->ids[q * k + i]);
    }
    wanted += all->counts[q];
  }
  return static_cast<double>(found) / static_cast<double>(wanted);
}

// The ids of the rows in the lists nearest to a query.
std::vector<std::int64_t> ids_of_lists(const QxCollection& collection, const float* query,
                                       std::int32_t probes) {
  const auto state = collection.collection.state();
  std::vector<ListNumber> nearest(static_cast<std::size_t>(probes));
  state->lists->find_nearest(query, nearest);
  std::vector<std::int64_t> ids;
  const qx::collection::RowLists of_rows(*state);
  qx::collection::Cursor cursor(*state, nullptr);
  for (qx::collection::Location at; cursor.next(&at);) {
    if (std::ranges::count(nearest, of_rows.of(at)) > 0) ids.push_back(state->key(at).number);
  }
  return ids;
}

Owned<QxHits> search_one(const QxCollection* collection, const Floats& query, std::int64_t k,
                         const QxSearch& search) {
  QxHits* hits = nullptr;
  EXPECT_EQ(qx_collection_search(collection, nullptr, query.data(), 1, k, &search, &hits), QX_OK);
  return Owned<QxHits>(hits);
}

TEST(Probes, MarkTheRowsOfARangeAlone) {
  const Clusters rows(3);
  const auto collection = rows.create();
  rows.upsert(collection.get(), 0, Clusters::kRows);
  ASSERT_EQ(qx_collection_compact(collection.get(), nullptr, nullptr), QX_OK);
  train(collection.get(), 6);
  const auto state = collection->collection.state();
  const qx::collection::Probes probes(
      *state->lists,
      {rows.vectors.data(), 1, Clusters::kDim, qx::collection::Metric::kInnerProduct, 3, {}});
  const auto lists = lists_of(*collection).second;
  const auto probed = probes.lists_of(0);
  constexpr std::int64_t kFirst = 1024;
  std::vector<std::uint64_t> marked(3), expected(3);
  probes.mark(state->parts[0], 0, kFirst, 192, marked);
  for (std::size_t i = 0; i < 192; ++i) {
    const auto is_probed = std::ranges::count(probed, lists[kFirst + i]) > 0;
    expected[i / 64] |= std::uint64_t{is_probed} << i % 64;
  }
  EXPECT_EQ(marked, expected);
}

// Few lists are searched row by row, many by what is between: rows of a segment and of a tail, with
// scores that many rows have, of which some pass.
TEST(Probes, FindTheBestRowsOfTheirListsAlone) {
  constexpr std::int32_t kDim = 48;
  constexpr std::int64_t kRows = 24000;
  Random random(12);
  for (const Metric metric : {Metric::kInnerProduct, Metric::kEuclidean}) {
    const Owned<QxCollection> collection(Schema{kDim, false, {}, {}, metric}.create());
    const Floats vectors = draw_floats(random, Values::kTies, kRows * kDim);
    std::vector<std::int64_t> ids;
    for (std::int64_t id = 0; id < kRows; ++id) ids.push_back(id);
    const auto upsert = [&](std::int64_t first, std::int64_t end) {
      ASSERT_EQ(qx_collection_upsert(collection.get(), {end - first, ids.data() + first, nullptr},
                                     vectors.data() + first * kDim, nullptr),
                QX_OK);
    };
    upsert(0, kRows - 300);
    ASSERT_EQ(qx_collection_compact(collection.get(), nullptr, nullptr), QX_OK);
    train(collection.get(), 80);
    upsert(kRows - 300, kRows);
    for (int round = 0; round < 40; ++round) {
      const Floats query = draw_floats(random, Values::kTies, kDim);
      QxSearch probed = {};
      probed.threads = random.between32(1, 3);
      probed.probes = random.any_of<std::int32_t>({1, 3, 60});
      QxSearch listed = {};
      if (random.percent(50)) {
        listed.accept = probed.accept = [](void*, std::int64_t id, const QxText*) {
          return static_cast<std::int32_t>(id % 3);
        };
      }
      const auto rows = ids_of_lists(*collection, query.data(), probed.probes);
      const QxIds among = {std::ssize(rows), rows.data(), nullptr};
      listed.among = &among;
      const std::int64_t most = search_one(collection.get(), query, kRows, listed)->counts[0];
      const std::int64_t k = std::min(most, random.any_of<std::int64_t>({1, 10, 150}));
      if (k == 0) continue;
      const auto expected = search_one(collection.get(), query, k, listed);
      const auto found = search_one(collection.get(), query, k, probed);
      ASSERT_EQ(found->counts[0], k);
      const auto n = static_cast<std::size_t>(k);
      EXPECT_EQ(std::memcmp(found->ids, expected->ids, n * sizeof(std::int64_t)), 0) << round;
      EXPECT_EQ(std::memcmp(found->scores, expected->scores, n * sizeof(float)), 0) << round;
    }
  }
}

TEST(Tuning, SaysWhatSearchesThenFind) {
  const Clusters clusters(8);
  const Schema schema = {Clusters::kDim, false, {"odd"}, {QX_BOOLEAN}};
  const Owned<QxCollection> collection(schema.create());
  std::vector<std::uint8_t> odd;
  for (std::size_t i = 0; i < clusters.ids.size(); ++i) odd.push_back(i % 2 == 0 ? 0 : 1);
  QxValues values = {};
  values.booleans = odd.data();
  ASSERT_EQ(qx_collection_upsert(collection.get(), {Clusters::kRows, clusters.ids.data(), nullptr},
                                 clusters.vectors.data(), &values),
            QX_OK);
  train(collection.get(), 60);
  QxSearch search = {};
  search.filter = "odd";
  Random random(8);
  const Floats queries = draw_floats(random, Values::kSmooth, std::int64_t{50} * Clusters::kDim);
  for (const double recall : {0.01, 0.5, 0.9, 1.0}) {
    QxTuning tuning = {};
    ASSERT_EQ(
        qx_collection_tune(collection.get(), queries.data(), 50, 20, recall, &search, &tuning),
        QX_OK);
    EXPECT_EQ(tuning.n_queries, 50);
    EXPECT_GE(tuning.recall, recall);
    EXPECT_TRUE(tuning.seconds > 0 && tuning.exact_seconds > 0);
    EXPECT_EQ(recall_of(collection.get(), queries, 20, tuning.probes, "odd"), tuning.recall);
    // A list has enough rows for one result: no query goes on to further lists.
    ASSERT_EQ(qx_collection_tune(collection.get(), queries.data(), 50, 1, recall, nullptr, &tuning),
              QX_OK);
    EXPECT_GE(tuning.recall, recall);
    EXPECT_EQ(recall_of(collection.get(), queries, 1, tuning.probes, nullptr), tuning.recall);
    if (tuning.probes > 1) {
      EXPECT_LT(recall_of(collection.get(), queries, 1, tuning.probes - 1, nullptr), recall);
    }
  }
}

TEST(Tuning, TakesRowsAsQueriesAndRefusesNone) {
  const Clusters clusters(9);
  const auto collection = clusters.create();
  clusters.upsert(collection.get(), 0, 150);
  train(collection.get(), 3);
  QxTuning tuning = {};
  ASSERT_EQ(qx_collection_tune(collection.get(), nullptr, 0, 1, 1, nullptr, &tuning), QX_OK);
  EXPECT_EQ(tuning.n_queries, 150);
  const QxIds none = {};
  QxSearch search = {};
  search.among = &none;
  ASSERT_EQ(qx_collection_tune(collection.get(), nullptr, 0, 1, 1, &search, &tuning), QX_OK);
  EXPECT_TRUE(tuning.probes == 1 && tuning.recall == 1.0);
  ASSERT_EQ(qx_collection_remove(collection.get(), {150, clusters.ids.data(), nullptr}, nullptr),
            QX_OK);
  EXPECT_EQ(qx_collection_tune(collection.get(), nullptr, 0, 1, 1, nullptr, &tuning), QX_INVALID);
  EXPECT_STREQ(qx_collection_message(), "there are no rows to sample");
}

TEST(Lists, AreNamedByAnExplanation) {
  const Clusters clusters(10);
  const auto collection = clusters.create();
  clusters.upsert(collection.get(), 0, 150);
  train(collection.get(), 5);
  QxSearch search = {};
  search.probes = 2;
  char* text = nullptr;
  ASSERT_EQ(qx_collection_explain(collection.get(), nullptr, &search, &text), QX_OK);
  EXPECT_EQ(Owned<char>(text).get(),
            std::string("of 5 lists, the nearest 2\nsegment of 150 rows: scan, 150 pass\n"));
}

// Rows come and go while lists are made again and again: searches see whole rows, in order.
TEST(Training, GoesOnBesideReadersAndWriters) {
  const Clusters clusters(11);
  const auto collection = clusters.create();
  clusters.upsert(collection.get(), 0, 4000);
  train(collection.get(), 10);
  std::atomic<bool> is_over = false;
  std::thread writer([&] {
    for (std::int64_t i = 0; !is_over; i = (i + 37) % 1900) {
      clusters.upsert(collection.get(), 4000 + i, 100);
      EXPECT_EQ(
          qx_collection_remove(collection.get(), {100, &clusters.ids[4000], nullptr}, nullptr),
          QX_OK);
    }
  });
  std::thread reader([&] {
    QxSearch search = {};
    search.probes = 3;
    while (!is_over) {
      QxHits* hits = nullptr;
      ASSERT_EQ(qx_collection_search(collection.get(), nullptr, clusters.vectors.data(), 2, 50,
                                     &search, &hits),
                QX_OK);
      const Owned<QxHits> owned(hits);
      for (std::int64_t i = 1; i < 50; ++i) {
        EXPECT_TRUE(hits->scores[i - 1] > hits->scores[i] ||
                    (hits->scores[i - 1] == hits->scores[i] && hits->ids[i - 1] < hits->ids[i]));
      }
    }
  });
  for (const std::int64_t lists : {30, 5, 60, 1, 20}) train(collection.get(), lists);
  is_over = true;
  writer.join();
  reader.join();
  clusters.upsert(collection.get(), 0, Clusters::kRows);
  const auto found = lists_of(*collection).second;
  EXPECT_EQ(std::ssize(found), Clusters::kRows);
}

}  // namespace
}  // namespace qx_test
