// Memory that is not there: every allocation of every call failed in turn, a limit of the process
// under three threads, and the limit of a collection. A call that is refused changes nothing and
// keeps nothing.
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <numeric>
#include <thread>

#include "collection/host.h"
#include "support/child.h"
#include "support/heap.h"
#include "support/random.h"

namespace qx_test {
namespace {

constexpr std::int32_t kDim = 2048;  // tails take 128 rows

Schema schema_of(bool has_texts) {
  return {kDim, has_texts, {"i", "r", "b", "t"}, {QX_INTEGER, QX_REAL, QX_BOOLEAN, QX_TEXT}};
}

Id id_of(std::int64_t i, bool has_texts) {
  if (has_texts) return {0, "an id that is too long to be kept in place: " + std::to_string(i)};
  return {i, ""};
}

// Rows of ids from `first` on, and what a call needs of them.
struct Rows {
  Rows(bool has_texts, std::int64_t first, std::int64_t count, std::int64_t value)
      : schema(schema_of(has_texts)), vectors{Floats(kDim, static_cast<float>(value))} {
    for (std::int64_t i = first; i < first + count; ++i) {
      ids.push_back(id_of(i, has_texts));
      rows.push_back({0, {value, Value(), i % 2 == 0, std::string(30, 't') + std::to_string(i)}});
    }
    list.emplace(schema, ids);
    arrays.emplace(schema, vectors, rows);
  }
  Schema schema;
  std::vector<Floats> vectors;
  std::vector<Id> ids;
  std::vector<Row> rows;
  std::optional<IdArrays> list;
  std::optional<RowArrays> arrays;
};

// A manual collection of one thread with a view, and what both must hold: the value of each id.
class World {
 public:
  using Held = std::map<Id, std::int64_t>;

  explicit World(bool has_texts, QxOptions options = {})
      : some(has_texts, 90, 40, 0), is_manual_(options.manual != 0), is_distance_(has_texts) {
    options.threads = 1;
    Schema schema = schema_of(has_texts);
    schema.metric = is_distance_ ? Metric::kEuclidean : Metric::kInnerProduct;
    collection.reset(schema.create(options));
  }

  Owned<QxCollection> collection;
  Owned<QxView> view;
  const Rows some;  // ids to read
  const std::string file = testing::TempDir() + "memory_" + std::to_string(getpid());

  // Repeats a call, of which ever another allocation fails, until none is left to fail. One that is
  // refused has changed nothing, one that succeeds all the same has done its work.
  void fail(const char* name, const std::function<std::int32_t(World&)>& call,
            const std::function<void(Held& own, Held& seen)>& effect) {
    SCOPED_TRACE(name);
    bool is_done = false;
    std::int64_t refusals = 0;
    for (const bool from_then_on : {false, true}) {
      for (std::int64_t number = 1;; ++number) {
        const std::int64_t before = bytes();
        std::int32_t status = -1;
        const HeapLog log =
            with_failing_allocation(number, from_then_on, [&] { status = call(*this); });
        const bool was_failed = log.allocations >= number;
        ASSERT_TRUE(status == QX_OK || (was_failed && status == QX_OUT_OF_MEMORY))
            << qx_collection_message();
        if (status == QX_OK && !is_done) effect(held_, seen_);
        is_done |= status == QX_OK;
        if (status != QX_OK) {
          ++refusals;
          ASSERT_TRUE(!is_manual_ || bytes() == before) << "allocation " << number;
          ASSERT_STREQ(qx_collection_message(),
                       "there is no memory for that, or it is above the limit");
        }
        compare();
        if (testing::Test::HasFailure() || !was_failed) break;
      }
    }
    EXPECT_GT(refusals, 0);
    expect_whole_rows(nullptr);
    if (view != nullptr) expect_whole_rows(view.get());
  }

  void compare() {
    EXPECT_EQ(held_of(nullptr), held_);
    EXPECT_EQ(view == nullptr ? Held() : held_of(view.get()), seen_);
  }

  std::int64_t bytes() const {
    QxCollectionStats stats;
    qx_collection_stats(collection.get(), &stats);
    return stats.bytes;
  }

 private:
  // By a search for the first component, which is the value; or for the distance from zero, since
  // all components are.
  Held held_of(const QxView* of) const {
    Floats query(kDim);
    query[0] = is_distance_ ? 0.0f : 1.0f;
    QxHits* hits = nullptr;
    EXPECT_EQ(
        qx_collection_search(collection.get(), of, query.data(), 1, INT64_MAX, nullptr, &hits),
        QX_OK);
    const Owned<QxHits> owned(hits);
    Held held;
    for (std::int64_t i = 0; i < hits->counts[0]; ++i) {
      const float value = is_distance_ ? std::sqrt(hits->scores[i] / kDim) : hits->scores[i];
      held[id_at(hits->ids, hits->texts, i)] = static_cast<std::int64_t>(value);
    }
    return held;
  }

  // Each row's vector and values say the same.
  void expect_whole_rows(const QxView* of) const {
    QxRows* rows = nullptr;
    EXPECT_EQ(qx_collection_list(collection.get(), of, nullptr, {}, INT64_MAX, &rows), QX_OK);
    const Owned<QxRows> owned(rows);
    for (std::int64_t i = 0; i < rows->count; ++i) {
      EXPECT_EQ(rows->vectors[i * kDim], static_cast<float>(rows->columns[0].integers[i]));
      EXPECT_EQ(rows->vectors[i * kDim + kDim - 1], rows->vectors[i * kDim]);
      EXPECT_EQ(rows->columns[1].nulls[i], 1);
      EXPECT_EQ(rows->columns[3].texts[i].data[29], 't');
    }
  }

  const bool is_manual_;  // else its own thread may change what is taken
  const bool is_distance_;
  Held held_;
  Held seen_;
};

// In an order in which tails are made, filled, sealed and merged.
struct Change {
  const char* name;
  std::int64_t first;
  std::int64_t count;
  std::int64_t value;  // 0: the rows are removed
  bool is_view;
};
const Change kChanges[] = {
    {"the first tail", 0, 3, 1, false},
    {"a tail that grows", 2, 80, 2, false},
    {"a tail that is sealed", 50, 60, 3, false},
    {"a segment", 100, 140, 4, false},
    {"rows of a segment and of the tail", 95, 10, 0, false},
    {"a view's tail", 30, 90, 5, true},
    {"a view's sealed tail", 60, 70, 6, true},
    {"a view's segment", 90, 130, 10, true},
    {"another", 90, 130, 11, true},
    {"a third", 90, 130, 12, true},
    {"a view's rows of all parts", 0, 50, 0, true},
};

void fail_change(World& world, const Change& change, bool has_texts) {
  const Rows rows(has_texts, change.first, change.count, change.value);
  const QxIds& ids = rows.list->get();
  const auto make = [&](World& w) {
    QxCollection* const own = w.collection.get();
    QxView* const view = w.view.get();
    if (change.value == 0) {
      return change.is_view ? qx_view_remove(view, ids, nullptr)
                            : qx_collection_remove(own, ids, nullptr);
    }
    const float* const vectors = rows.arrays->vectors();
    return change.is_view ? qx_view_upsert(view, ids, vectors, rows.arrays->values())
                          : qx_collection_upsert(own, ids, vectors, rows.arrays->values());
  };
  world.fail(change.name, make, [&](World::Held& own, World::Held& seen) {
    World::Held& held = change.is_view ? seen : own;
    for (const Id& id : rows.ids) {
      if (change.value == 0) {
        held.erase(id);
      } else {
        held[id] = change.value;
      }
    }
  });
}

// Calls that change no row.
struct Read {
  const char* name;
  std::int32_t (*make)(World&);
};

// Releases what a call gave out, if it did.
template <typename T, typename Call>
std::int32_t released(Call call) {
  T* out = nullptr;
  const std::int32_t status = call(&out);
  EXPECT_EQ(out != nullptr, status == QX_OK);
  const Owned<T> owned(out);
  return status;
}

const float kQueries[2 * kDim] = {1, 2};
const Read kReads[] = {
    {"search",
     [](World& w) {
       QxSearch search = {};
       search.filter = "i > 1 AND (t IS NOT NULL OR NOT t = 'x') AND i IN (2, 3, 4, 5)";
       search.among = &w.some.list->get();
       return released<QxHits>([&](QxHits** out) {
         return qx_collection_search(w.collection.get(), nullptr, kQueries, 2, 5, &search, out);
       });
     }},
    {"explain",
     [](World& w) {
       QxSearch search = {};
       search.filter = "b";
       return released<char>([&](char** out) {
         return qx_collection_explain(w.collection.get(), w.view.get(), &search, out);
       });
     }},
    {"get",
     [](World& w) {
       return released<QxRows>([&](QxRows** out) {
         return qx_collection_get(w.collection.get(), nullptr, w.some.list->get(), out);
       });
     }},
    {"contains",
     [](World& w) {
       std::uint8_t found[40];
       return qx_collection_contains(w.collection.get(), nullptr, w.some.list->get(), found);
     }},
    {"list",
     [](World& w) {
       const QxIds after = {1, w.some.list->get().numbers, w.some.list->get().texts};
       return released<QxRows>([&](QxRows** out) {
         return qx_collection_list(w.collection.get(), w.view.get(), "NOT b", after, 9, out);
       });
     }},
    {"save",
     [](World& w) {
       return qx_collection_save(w.collection.get(), w.view.get(), w.file.c_str(), nullptr,
                                 nullptr);
     }},
    {"train",
     [](World& w) { return qx_collection_train(w.collection.get(), 5, nullptr, nullptr); }},
    {"search of lists",
     [](World& w) {
       QxSearch search = {};
       search.probes = 2;
       return released<QxHits>([&](QxHits** out) {
         return qx_collection_search(w.collection.get(), nullptr, kQueries, 2, 5, &search, out);
       });
     }},
    {"tune",
     [](World& w) {
       QxTuning tuning;
       return qx_collection_tune(w.collection.get(), kQueries, 2, 3, 0.9, nullptr, &tuning);
     }},
    {"save with lists",
     [](World& w) {
       return qx_collection_save(w.collection.get(), nullptr, w.file.c_str(), nullptr, nullptr);
     }},
    {"load",
     [](World& w) {
       const QxOptions options = {0, 0, nullptr, 0, 1, 0, 0, 0};
       return released<QxCollection>([&](QxCollection** out) {
         return qx_collection_load(w.file.c_str(), &options, nullptr, nullptr, out);
       });
     }},
    {"new",
     [](World&) {
       const QxColumn column = {"a column whose name is long", QX_TEXT};
       const QxOptions options = {4, QX_TEXTS, &column, 1, 0, 0, 0, QX_EUCLIDEAN};
       return released<QxCollection>(
           [&](QxCollection** out) { return qx_collection_new(&options, out); });
     }},
    {"build",
     [](World&) {
       const QxText ids[] = {{"a", 1}, {"an id whose text is long, of more bytes than most", 49}};
       const QxColumn column = {"c", QX_TEXT};
       const QxOptions options = {4, QX_TEXTS, &column, 1, 1, 0, 0, QX_COSINE};
       const float centroid[4] = {1, 1, 1, 1};
       const std::uint32_t of_rows[] = {0, QX_NO_LIST};
       const QxLists lists = {1, centroid, of_rows};
       const QxFill fill = [](void*, std::int64_t, std::int64_t, float* vectors) {
         std::fill_n(vectors, 8, 1.0f);
         return std::int32_t{0};
       };
       return released<QxCollection>([&](QxCollection** out) {
         return qx_collection_build(&options, {2, nullptr, ids}, nullptr, &lists, fill, nullptr,
                                    out);
       });
     }},
    {"compact",
     [](World& w) { return qx_collection_compact(w.collection.get(), nullptr, nullptr); }},
};

void fail_everything(bool has_texts, bool is_manual) {
  QxOptions options = {};
  options.manual = is_manual ? 1 : 0;
  World world(has_texts, options);
  const auto take_view = [](World& w) {
    QxView* view = nullptr;
    const std::int32_t status = qx_view_new(w.collection.get(), &view);
    if (status == QX_OK) w.view.reset(view);
    return status;
  };
  for (const Change& change : kChanges) {
    if (change.is_view && world.view == nullptr) {
      world.fail("a view", take_view, [](World::Held& own, World::Held& seen) { seen = own; });
    }
    if (!testing::Test::HasFailure()) fail_change(world, change, has_texts);
  }
  for (const Read& read : kReads) {
    // The tail is sealed before the merge, which counts even where that is refused.
    const auto cancel = [](void*, std::int64_t, std::int64_t) { return 1; };
    EXPECT_EQ(qx_collection_compact(world.collection.get(), cancel, nullptr), QX_CANCELLED);
    if (!testing::Test::HasFailure()) {
      world.fail(read.name, read.make, [](World::Held&, World::Held&) {});
    }
  }
  unlink(world.file.c_str());
}

TEST(Memory, FailsACallThatChangesNothing) {
  for (const bool has_texts : {false, true}) {
    for (const bool is_manual : {true, false}) {
      SCOPED_TRACE(std::string(has_texts ? "texts" : "numbers") + (is_manual ? ", manual" : ""));
      if (!HasFailure()) fail_everything(has_texts, is_manual);
    }
  }
}

// ---- A limit of the collection ----

// Bytes after each of some changes, and how many were refused.
struct Course {
  std::vector<std::int64_t> bytes;
  int refusals = 0;
};

Course course_of(std::int64_t limit) {
  QxOptions options = {};
  options.memory_limit = limit;
  options.manual = 1;
  World world(true, options);
  Course course;
  for (const auto& [first, count] : {std::pair{0, 60}, {60, 1}, {61, 200}, {261, 20}, {281, 400}}) {
    const Rows rows(true, first, count, 1);
    const std::int64_t before = qx_collection_count(world.collection.get(), nullptr);
    const std::int32_t status = qx_collection_upsert(world.collection.get(), rows.list->get(),
                                                     rows.arrays->vectors(), rows.arrays->values());
    EXPECT_EQ(qx_collection_count(world.collection.get(), nullptr),
              before + (status == QX_OK ? count : 0));
    EXPECT_TRUE(status == QX_OK || status == QX_OUT_OF_MEMORY);
    course.refusals += status != QX_OK;
    course.bytes.push_back(world.bytes());
  }
  return course;
}

// The limit that a change needs is what is taken after it.
TEST(Memory, IsLimitedToTheByte) {
  const Course free = course_of(0);
  for (std::size_t i = 0; i < free.bytes.size(); ++i) {
    const Course enough = course_of(free.bytes[i]);
    EXPECT_EQ(enough.refusals, static_cast<int>(free.bytes.size() - i - 1));
    EXPECT_EQ(enough.bytes[i], free.bytes[i]);
    const Course short_of_one = course_of(free.bytes[i] - 1);
    EXPECT_GE(short_of_one.refusals, 1);
    EXPECT_EQ(short_of_one.bytes[i], i == 0 ? 0 : free.bytes[i - 1]);
  }
}

// A reader that stays, and one that leaves while the merge waits for it.
TEST(Memory, OfWhatAMergeReplacedIsGivenBackWhoeverReadsIt) {
  constexpr std::int32_t kWide = 512;
  constexpr std::int64_t kMany = 10000;  // 20 MB
  QxOptions options = {};
  options.manual = 1;
  const Owned<QxCollection> collection(Schema{kWide}.create(options));
  const Floats vectors(static_cast<std::size_t>(kMany * kWide), 1);
  std::vector<std::int64_t> ids(kMany);
  std::iota(ids.begin(), ids.end(), 0);
  const auto bytes = [&] {
    QxCollectionStats stats;
    qx_collection_stats(collection.get(), &stats);
    return stats.bytes;
  };
  const auto merge = [&] {  // the first row is replaced
    EXPECT_EQ(
        qx_collection_upsert(collection.get(), {1, ids.data(), nullptr}, vectors.data(), nullptr),
        QX_OK);
    EXPECT_EQ(qx_collection_compact(collection.get(), nullptr, nullptr), QX_OK);
  };
  ASSERT_EQ(
      qx_collection_upsert(collection.get(), {kMany, ids.data(), nullptr}, vectors.data(), nullptr),
      QX_OK);
  merge();
  const std::int64_t alone = bytes();
  QxView* view = nullptr;
  ASSERT_EQ(qx_view_new(collection.get(), &view), QX_OK);
  merge();
  EXPECT_GE(bytes(), 2 * alone);
  qx_view_free(view);
  EXPECT_EQ(bytes(), alone);
  ASSERT_EQ(qx_view_new(collection.get(), &view), QX_OK);
  std::thread merging(merge);
  while (bytes() < 2 * alone) std::this_thread::yield();
  qx_view_free(view);
  merging.join();
  EXPECT_EQ(bytes(), alone);
}

// ---- A limit of the process ----

// The mark of each row of a thread's ids, which the thread sets when a change has succeeded; no
// memory is allocated for it.
struct Worker {
  static constexpr std::int64_t kIds = 9000;
  static constexpr std::int64_t kMost = 1100;
  std::vector<std::int32_t> marks = std::vector<std::int32_t>(kIds);
  std::vector<std::int64_t> ids = std::vector<std::int64_t>(kMost);
  Floats vectors = Floats(kMost * kWidth);
  std::int64_t refusals = 0;
  static constexpr std::int32_t kWidth = 1024;

  bool work(QxCollection* collection, std::int64_t number) {
    Random random(static_cast<std::uint64_t>(number));
    for (std::int32_t turn = 1; turn <= 120; ++turn) {
      const std::int64_t count = random.between(1, random.percent(30) ? kMost : 100);
      const std::int64_t first = random.between(0, kIds - count);
      for (std::int64_t i = 0; i < count; ++i) {
        ids[static_cast<std::size_t>(i)] = number * kIds + first + i;
      }
      std::fill_n(vectors.begin(), count * kWidth, static_cast<float>(turn));
      const bool is_removal = random.percent(15);
      const QxIds list = {count, ids.data(), nullptr};
      const std::int32_t changed =
          is_removal ? qx_collection_remove(collection, list, nullptr)
                     : qx_collection_upsert(collection, list, vectors.data(), nullptr);
      if (changed == QX_OK) std::fill_n(marks.begin() + first, count, is_removal ? 0 : turn);
      QxHits* hits = nullptr;
      const std::int32_t found =
          qx_collection_search(collection, nullptr, vectors.data(), 1, 10, nullptr, &hits);
      qx_hits_free(hits);
      const std::int32_t compacted =
          turn % 20 == 0 ? qx_collection_compact(collection, nullptr, nullptr) : QX_OK;
      for (const std::int32_t status : {changed, found, compacted}) {
        if (status != QX_OK && status != QX_OUT_OF_MEMORY) return false;
        refusals += status == QX_OUT_OF_MEMORY;
      }
    }
    return true;
  }

  bool agrees(const QxCollection* collection, std::int64_t number) const {
    for (std::int64_t i = 0; i < kIds; ++i) {
      const std::int64_t id = number * kIds + i;
      QxRows* rows = nullptr;
      if (qx_collection_get(collection, nullptr, {1, &id, nullptr}, &rows) != QX_OK) return false;
      const bool agrees =
          rows->vectors[0] == static_cast<float>(marks[static_cast<std::size_t>(i)]);
      qx_rows_free(rows);
      if (!agrees) return false;
    }
    return true;
  }
};

std::int64_t address_space() {
  std::int64_t pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  return pages * 4096;
}

// Exit status 0: every call was refused or did its work.
[[noreturn]] void work_in_little_memory() {
  QxCollection* const collection = Schema{Worker::kWidth}.create();
  Worker workers[3];
  std::atomic<bool> is_limited = false;
  std::atomic<int> failed = 0;
  std::vector<std::thread> threads;
  threads.reserve(3);
  for (int number = 0; number < 3; ++number) {
    threads.emplace_back([&, number] {
      while (!is_limited) std::this_thread::yield();
      failed += workers[number].work(collection, number) ? 0 : 1;
    });
  }
  rlimit limit;
  getrlimit(RLIMIT_AS, &limit);
  const rlimit little = {static_cast<rlim_t>(address_space() + (12 << 20)), limit.rlim_max};
  if (setrlimit(RLIMIT_AS, &little) != 0) std::_Exit(2);
  is_limited = true;
  for (std::thread& thread : threads) thread.join();
  setrlimit(RLIMIT_AS, &limit);
  if (failed > 0) std::_Exit(3);
  for (int number = 0; number < 3; ++number) {
    if (!workers[number].agrees(collection, number)) std::_Exit(4);
  }
  if (workers[0].refusals + workers[1].refusals + workers[2].refusals == 0) std::_Exit(5);
  qx_collection_free(collection);
  std::_Exit(0);
}

TEST(Memory, OfAProcessMayEndInAnyThread) {
#if defined(QX_SANITIZED)
  GTEST_SKIP() << "a sanitizer takes address space without end";
#endif
  const ChildEnd end = run_in_child(work_in_little_memory);
  EXPECT_EQ(end.exit_status, 0) << end.standard_error;
}

}  // namespace
}  // namespace qx_test
