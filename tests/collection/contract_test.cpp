// The contract of qx_collection.h by name: each refusal with its message, calls that ask for
// nothing, what is explained, and the order of rows whose scores are equal, in every way to find
// them.
#include <limits>
#include <thread>

#include "collection/host.h"
#include "support/random.h"

namespace qx_test {
namespace {

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

const Schema kNumbers = {
    2, false, {"i", "r", "b", "t"}, {QX_INTEGER, QX_REAL, QX_BOOLEAN, QX_TEXT}};
const Schema kTexts = {2, true};

// Arguments of calls, which tests change, and outputs, which a refusal leaves as they are.
struct Call {
  Owned<QxCollection> collection{kNumbers.create()};
  Owned<QxCollection> texts{kTexts.create()};
  Owned<QxView> view = view_of(*collection);
  Owned<QxView> foreign = view_of(*texts);
  std::int64_t numbers[2] = {5, 7};
  QxText names[2] = {{"a", 1}, {nullptr, 0}};
  QxIds ids = {2, numbers, names};
  QxIds id = {1, numbers, names};
  float vectors[4] = {1, 2, 3, 4};
  std::int64_t integers[2] = {1, 2};
  QxText values_of_t[2] = {{"x", 1}, {"", 0}};
  QxValues values[4] = {{integers, nullptr, nullptr, nullptr, nullptr},
                        {},
                        {},
                        {nullptr, nullptr, nullptr, values_of_t, nullptr}};
  QxColumn columns[2] = {{"a", QX_REAL}, {"b", QX_TEXT}};
  QxOptions options = {3, QX_NUMBERS, columns, 2, 0, 0, 0, QX_INNER_PRODUCT};
  QxSearch search = {};

  QxCollection* made = collection.get();
  QxView* made_view = view.get();
  QxHits* hits = nullptr;
  QxRows* rows = nullptr;
  char* text = nullptr;
  std::int64_t removed = 77;
  std::uint8_t found[2] = {77, 77};
  QxTuning tuning = {};
  std::uint32_t of_rows[2] = {};

  Call() { EXPECT_EQ(qx_collection_upsert(collection.get(), id, vectors, values), QX_OK); }

  static Owned<QxView> view_of(const QxCollection& of) {
    QxView* made = nullptr;
    EXPECT_EQ(qx_view_new(&of, &made), QX_OK);
    return Owned<QxView>(made);
  }

  std::int32_t create() { return qx_collection_new(&options, &made); }
  std::int32_t build(QxFill fill, QxCollection** out) {
    return qx_collection_build(&options, ids, nullptr, nullptr, fill, vectors, out);
  }
  std::int32_t upsert() { return qx_collection_upsert(collection.get(), ids, vectors, values); }
  std::int32_t remove() { return qx_collection_remove(collection.get(), ids, &removed); }
  std::int32_t view_upsert() { return qx_view_upsert(view.get(), ids, vectors, values); }
  std::int32_t find(std::int64_t queries = 2, std::int64_t k = 1, const QxView* of = nullptr) {
    return qx_collection_search(collection.get(), of, vectors, queries, k, &search, &hits);
  }
  std::int32_t filter(const char* condition) {
    search.filter = condition;
    return find();
  }
  std::int32_t train(std::int64_t lists) {
    return qx_collection_train(collection.get(), lists, nullptr, nullptr);
  }
  std::int32_t tune(const float* queries, std::int64_t count, std::int64_t k = 1,
                    double recall = 1) {
    EXPECT_EQ(train(1), QX_OK);
    return qx_collection_tune(collection.get(), queries, count, k, recall, &search, &tuning);
  }
  std::int32_t lists(float* centroids, std::uint32_t* to) {
    return qx_collection_lists(collection.get(), ids, 1, centroids, to);
  }
  std::int32_t explain() {
    return qx_collection_explain(collection.get(), nullptr, &search, &text);
  }
  std::int32_t get() { return qx_collection_get(collection.get(), nullptr, ids, &rows); }
  std::int32_t contains() { return qx_collection_contains(collection.get(), nullptr, ids, found); }
  std::int32_t list(QxIds after = {}, std::int64_t most = 9, const char* condition = nullptr) {
    return qx_collection_list(collection.get(), nullptr, condition, after, most, &rows);
  }
};

// Three dimensions: the last vector has a component that the context does not hold.
std::int32_t fill_strange(void* context, std::int64_t, std::int64_t, float* vectors) {
  std::copy_n(static_cast<const float*>(context), 4, vectors);
  vectors[4] = kNaN;
  vectors[5] = 0;
  return 0;
}

std::int32_t fill_zeros(void*, std::int64_t, std::int64_t, float* vectors) {
  std::fill_n(vectors, 6, 0.0f);
  return 0;
}

struct Refusal {
  const char* message;
  std::int32_t (*make)(Call&);
};

// Sets one argument, and makes the call.
#define REFUSED(message, argument, call)                    \
  Refusal {                                                 \
    message, []([[maybe_unused]] Call& c) -> std::int32_t { \
      argument;                                             \
      return call;                                          \
    }                                                       \
  }

const Refusal kRefusals[] = {
    REFUSED("out is null", , qx_collection_new(&c.options, nullptr)),
    REFUSED("options is null", , qx_collection_new(nullptr, &c.made)),
    REFUSED("dim is 0, outside 1 to 65536", c.options.dim = 0, c.create()),
    REFUSED("dim is 65537, outside 1 to 65536", c.options.dim = 65537, c.create()),
    REFUSED("id_kind is 2, no kind of ids", c.options.id_kind = 2, c.create()),
    REFUSED("id_kind is -1, no kind of ids", c.options.id_kind = -1, c.create()),
    REFUSED("metric is 3, no metric", c.options.metric = 3, c.create()),
    REFUSED("metric is -1, no metric", c.options.metric = -1, c.create()),
    REFUSED("threads is -1, below 0", c.options.threads = -1, c.create()),
    REFUSED("memory_limit is -1, below 0", c.options.memory_limit = -1, c.create()),
    REFUSED("n_columns is -1, expected 0 to 1000", c.options.n_columns = -1, c.create()),
    REFUSED("n_columns is 1001, expected 0 to 1000", c.options.n_columns = 1001, c.create()),
    REFUSED("columns is null", c.options.columns = nullptr, c.create()),
    REFUSED("column 1 has no name", c.columns[1].name = nullptr, c.create()),
    REFUSED("column 0 has no name", c.columns[0].name = "", c.create()),
    REFUSED("column 1 has type 4, expected 0 to 3", c.columns[1].type = 4, c.create()),
    REFUSED("column 0 has type -1, expected 0 to 3", c.columns[0].type = -1, c.create()),
    REFUSED("column 1 has the name of another: a", c.columns[1].name = "a", c.create()),

    REFUSED("out is null", , c.build(fill_strange, nullptr)),
    REFUSED("options is null", ,
            qx_collection_build(nullptr, c.ids, nullptr, nullptr, fill_strange, nullptr, &c.made)),
    REFUSED("dim is 0, outside 1 to 65536", c.options.dim = 0, c.build(fill_strange, &c.made)),
    REFUSED("fill is null", , c.build(nullptr, &c.made)),
    REFUSED("the number of ids is -1", c.ids.count = -1, c.build(fill_strange, &c.made)),
    REFUSED("the ids do not ascend", c.numbers[0] = 7, c.build(fill_zeros, &c.made)),
    REFUSED("the ids of this collection are numbers", c.ids.numbers = nullptr,
            c.build(fill_zeros, &c.made)),
    REFUSED("component 1 of vector 1 is not finite", , c.build(fill_strange, &c.made)),

    REFUSED("the collection is null", , qx_collection_upsert(nullptr, c.ids, c.vectors, c.values)),
    REFUSED("the number of ids is -1", c.ids.count = -1, c.upsert()),
    REFUSED("the ids of this collection are numbers", c.ids.numbers = nullptr, c.upsert()),
    REFUSED("the ids of this collection are texts", c.ids.texts = nullptr,
            qx_collection_upsert(c.texts.get(), c.ids, c.vectors, nullptr)),
    REFUSED("id 0 is no text", c.names[0].size = -1,
            qx_collection_upsert(c.texts.get(), c.ids, c.vectors, nullptr)),
    REFUSED("id 1 is no text", c.names[1].size = 1,
            qx_collection_upsert(c.texts.get(), c.ids, c.vectors, nullptr)),
    REFUSED("there are no vectors", ,
            qx_collection_upsert(c.collection.get(), c.ids, nullptr, c.values)),
    REFUSED("component 1 of vector 1 is not finite", c.vectors[3] = kInfinity, c.upsert()),
    REFUSED("component 0 of vector 0 is not finite", c.vectors[0] = kNaN, c.upsert()),
    REFUSED("value 1 of column t is a text of -1 bytes", c.values_of_t[1].size = -1, c.upsert()),
    REFUSED("value 0 of column t is a text of 1 bytes whose data is null",
            c.values_of_t[0].data = nullptr, c.upsert()),

    REFUSED("the collection is null", , qx_collection_remove(nullptr, c.ids, &c.removed)),
    REFUSED("the number of ids is -2", c.ids.count = -2, c.remove()),
    REFUSED("the ids of this collection are numbers", c.ids.numbers = nullptr, c.remove()),
    REFUSED("the collection is null", , qx_collection_compact(nullptr, nullptr, nullptr)),

    REFUSED("out is null", , qx_view_new(c.collection.get(), nullptr)),
    REFUSED("the collection is null", , qx_view_new(nullptr, &c.made_view)),
    REFUSED("the view is null", , qx_view_upsert(nullptr, c.ids, c.vectors, c.values)),
    REFUSED("component 0 of vector 1 is not finite", c.vectors[2] = -kInfinity, c.view_upsert()),
    REFUSED("there are no vectors", , qx_view_upsert(c.view.get(), c.ids, nullptr, nullptr)),
    REFUSED("the view is null", , qx_view_remove(nullptr, c.ids, &c.removed)),
    REFUSED("the ids of this collection are numbers", c.ids.numbers = nullptr,
            qx_view_remove(c.view.get(), c.ids, &c.removed)),

    REFUSED("out is null", ,
            qx_collection_search(c.collection.get(), nullptr, c.vectors, 1, 1, nullptr, nullptr)),
    REFUSED("the collection is null", ,
            qx_collection_search(nullptr, nullptr, c.vectors, 1, 1, nullptr, &c.hits)),
    REFUSED("the view is of another collection", , c.find(2, 1, c.foreign.get())),
    REFUSED("n_queries is -1", , c.find(-1)),
    REFUSED("k is -1, below 0", , c.find(2, -1)),
    REFUSED("queries is null", ,
            qx_collection_search(c.collection.get(), nullptr, nullptr, 1, 1, nullptr, &c.hits)),
    REFUSED("component 1 of query 1 is not finite", c.vectors[3] = kNaN, c.find()),
    REFUSED("threads is -3, below 0", c.search.threads = -3, c.find()),
    REFUSED("the number of ids is -1", (c.ids.count = -1, c.search.among = &c.ids), c.find()),
    REFUSED("the ids of this collection are numbers",
            (c.ids.numbers = nullptr, c.search.among = &c.ids), c.explain()),
    REFUSED("filter, byte 0: found x, expected the name of a column", , c.filter("x = 1")),
    REFUSED("filter, byte 4: found the end, expected a number of 64 bits to compare with i", ,
            c.filter("i = ")),

    REFUSED("probes is -1, below 0", c.search.probes = -1, c.find()),
    REFUSED("limit is inf, not finite", c.search.limit = &kInfinity, c.find()),
    REFUSED("limit is nan, not finite", c.search.limit = &kNaN, c.find()),
    REFUSED("there are no lists to probe", c.search.probes = 1, c.find()),
    REFUSED("there are no lists to probe", c.search.probes = 1, c.explain()),
    REFUSED("n_lists is -1, outside 0 to 65536", , c.train(-1)),
    REFUSED("n_lists is 65537, outside 0 to 65536", , c.train(65537)),
    REFUSED("2 lists of 1 rows", , c.train(2)),
    REFUSED("the collection is null", , qx_collection_train(nullptr, 1, nullptr, nullptr)),
    REFUSED("out is null", ,
            qx_collection_tune(c.collection.get(), nullptr, 0, 1, 1, nullptr, nullptr)),
    REFUSED("the collection is null", ,
            qx_collection_tune(nullptr, nullptr, 0, 1, 1, nullptr, &c.tuning)),
    REFUSED("there are no lists to probe", ,
            qx_collection_tune(c.collection.get(), nullptr, 0, 1, 1, nullptr, &c.tuning)),
    REFUSED("centroids is null", c.train(1), c.lists(nullptr, c.of_rows)),
    REFUSED("of_rows is null", c.train(1), c.lists(c.vectors, nullptr)),
    REFUSED("n_queries is 0", , c.tune(c.vectors, 0)),
    REFUSED("k is 0, below 1", , c.tune(nullptr, 0, 0)),
    REFUSED("recall is 0.000000, not above 0 and at most 1", , c.tune(nullptr, 0, 1, 0)),
    REFUSED("recall is 1.500000, not above 0 and at most 1", , c.tune(nullptr, 0, 1, 1.5)),
    REFUSED("recall is nan, not above 0 and at most 1", , c.tune(nullptr, 0, 1, kNaN)),
    REFUSED("component 1 of query 1 is not finite", c.vectors[3] = kNaN, c.tune(c.vectors, 2)),

    REFUSED("out is null", , qx_collection_explain(c.collection.get(), nullptr, nullptr, nullptr)),
    REFUSED("the collection is null", , qx_collection_explain(nullptr, nullptr, nullptr, &c.text)),
    REFUSED("the view is of another collection", ,
            qx_collection_explain(c.collection.get(), c.foreign.get(), nullptr, &c.text)),

    REFUSED("out is null", , qx_collection_get(c.collection.get(), nullptr, c.ids, nullptr)),
    REFUSED("the collection is null", , qx_collection_get(nullptr, nullptr, c.ids, &c.rows)),
    REFUSED("the view is of another collection", ,
            qx_collection_get(c.collection.get(), c.foreign.get(), c.ids, &c.rows)),
    REFUSED("the number of ids is -1", c.ids.count = -1, c.get()),
    REFUSED("found is null", , qx_collection_contains(c.collection.get(), nullptr, c.ids, nullptr)),
    REFUSED("the collection is null", , qx_collection_contains(nullptr, nullptr, c.ids, c.found)),
    REFUSED("the number of ids is -1", c.ids.count = -1, c.contains()),

    REFUSED("out is null", ,
            qx_collection_list(c.collection.get(), nullptr, nullptr, {}, 1, nullptr)),
    REFUSED("the collection is null", ,
            qx_collection_list(nullptr, nullptr, nullptr, {}, 1, &c.rows)),
    REFUSED("`after` holds more than one id", , c.list(c.ids)),
    REFUSED("most is -1, below 0", , c.list({}, -1)),
    REFUSED("filter, byte 0: found the end, expected a column, NOT, TRUE, FALSE or '('", ,
            c.list({}, 9, "")),

    REFUSED("the collection is null", , qx_collection_save(nullptr, nullptr, "", nullptr, nullptr)),
    REFUSED("the path is null", ,
            qx_collection_save(c.collection.get(), nullptr, nullptr, nullptr, nullptr)),
    REFUSED("the view is of another collection", ,
            qx_collection_save(c.collection.get(), c.foreign.get(), "", nullptr, nullptr)),
    REFUSED("out is null", , qx_collection_load("", nullptr, nullptr, nullptr, nullptr)),
    REFUSED("the path is null", , qx_collection_load(nullptr, nullptr, nullptr, nullptr, &c.made)),
    REFUSED("threads is -1, below 0", c.options.threads = -1,
            qx_collection_load("", &c.options, nullptr, nullptr, &c.made)),
};

TEST(Collection, RefusesWithAMessageAndChangesNothing) {
  for (const Refusal& refusal : kRefusals) {
    SCOPED_TRACE(refusal.message);
    Call call;
    EXPECT_EQ(refusal.make(call), QX_INVALID);
    EXPECT_STREQ(qx_collection_message(), refusal.message);
    EXPECT_EQ(call.made, call.collection.get());
    EXPECT_EQ(call.made_view, call.view.get());
    EXPECT_TRUE(call.hits == nullptr && call.rows == nullptr && call.text == nullptr);
    EXPECT_TRUE(call.removed == 77 && call.found[0] == 77 && call.found[1] == 77);
    EXPECT_EQ(qx_collection_count(call.collection.get(), nullptr), 1);
    EXPECT_EQ(qx_collection_count(call.collection.get(), call.view.get()), 0);
    EXPECT_EQ(qx_collection_count(call.texts.get(), nullptr), 0);
  }
}

TEST(Collection, CountsNoRowsOfAForeignView) {
  const Call call;
  EXPECT_EQ(qx_collection_count(call.collection.get(), call.foreign.get()), -1);
  EXPECT_EQ(qx_collection_count(nullptr, nullptr), -1);
}

TEST(Collection, KeepsTheMessageOfAThreadUntilItsNextFailure) {
  Call call;
  EXPECT_EQ(call.find(-1), QX_INVALID);
  std::thread([&] {
    EXPECT_STREQ(qx_collection_message(), "");
    Call other;
    EXPECT_EQ(other.find(2, -1), QX_INVALID);
  }).join();
  EXPECT_EQ(call.upsert(), QX_OK);
  EXPECT_STREQ(qx_collection_message(), "n_queries is -1");
  const std::string longest = "i = '" + std::string(2000, 'x') + "'";
  EXPECT_EQ(call.filter(longest.c_str()), QX_INVALID);
  EXPECT_LT(std::strlen(qx_collection_message()), 512u);
}

// It has the rows of one that they were upserted into, and gives the bits that it gives.
// A host that writes vectors of two components: as it is asked to, or all of them at once.
struct Writer {
  const Floats& vectors;
  bool at_once = false;
  std::int64_t stops_at = INT64_MAX;
  std::int64_t written = 0;

  static std::int32_t fill(void* self, std::int64_t first, std::int64_t count, float* to) {
    auto& writer = *static_cast<Writer*>(self);
    EXPECT_EQ(first, writer.written);
    writer.written += count;
    const std::int64_t end = writer.at_once ? std::ssize(writer.vectors) / 2 : writer.written;
    if (!writer.at_once || first == 0) {
      std::copy(writer.vectors.begin() + 2 * first, writer.vectors.begin() + 2 * end,
                to + 2 * first);
    }
    return writer.written > writer.stops_at;
  }
};

TEST(Collection, IsBuiltOfRowsThatAreWrittenInPlace) {
  constexpr std::int64_t kBuilt = 20 * 4096 + 5;
  std::vector<std::int64_t> ids, values;
  Floats vectors;
  for (std::int64_t i = 0; i < kBuilt; ++i) {
    ids.push_back(3 * i - 4096);
    values.push_back(i % 7);
    vectors.insert(vectors.end(), {static_cast<float>(i % 13), static_cast<float>(i % 11) - 5});
  }
  const Schema schema = {2, false, {"n"}, {QX_INTEGER}};
  const QxIds list = {kBuilt, ids.data(), nullptr};
  const QxValues columns[] = {{values.data(), nullptr, nullptr, nullptr, nullptr}};
  const QxColumn column = {"n", QX_INTEGER};
  QxOptions options = {};
  options.dim = 2;
  options.columns = &column;
  options.n_columns = 1;
  Writer writer = {vectors}, eager = {vectors, true};
  const auto build = [&](Writer& from, QxCollection** out) {
    return qx_collection_build(&options, list, columns, nullptr, Writer::fill, &from, out);
  };
  QxCollection *made = nullptr, *made_at_once = nullptr;
  ASSERT_EQ(build(writer, &made), QX_OK);
  ASSERT_EQ(build(eager, &made_at_once), QX_OK);
  EXPECT_EQ(writer.written, kBuilt);
  const Owned<QxCollection> built(made), at_once(made_at_once), changed(schema.create());
  ASSERT_EQ(qx_collection_upsert(changed.get(), list, vectors.data(), columns), QX_OK);
  for (const char* const filter : {"n >= 0", "n = 3"}) {
    QxSearch search = {};
    search.filter = filter;
    const float queries[] = {1, 2, -3, 0.5f};
    const auto hits_of = [&](const QxCollection* of) {
      QxHits* hits = nullptr;
      EXPECT_EQ(qx_collection_search(of, nullptr, queries, 2, 9, &search, &hits), QX_OK);
      return Owned<QxHits>(hits);
    };
    const auto expected = hits_of(changed.get());
    for (const QxCollection* const of : {built.get(), at_once.get()}) {
      const auto found = hits_of(of);
      EXPECT_TRUE(std::equal(found->ids, found->ids + 18, expected->ids));
      EXPECT_TRUE(std::equal(found->scores, found->scores + 18, expected->scores));
    }
  }
  Writer stopping = {vectors, false, std::int64_t{9} * 4096};
  EXPECT_EQ(build(stopping, &made), QX_CANCELLED);
  EXPECT_LT(stopping.written, kBuilt);
  options.memory_limit = 4096;
  Writer unused = {vectors}, strange = {vectors};
  EXPECT_EQ(build(unused, &made), QX_OUT_OF_MEMORY);
  EXPECT_EQ(unused.written, 0);
  options.memory_limit = 0;
  vectors[2 * 13 * 4096 + 1] = kNaN;
  EXPECT_EQ(build(strange, &made), QX_INVALID);
  EXPECT_STREQ(qx_collection_message(), "component 1 of vector 53248 is not finite");
  EXPECT_EQ(made, built.get());
  ASSERT_EQ(qx_collection_build(&options, {}, nullptr, nullptr, nullptr, nullptr, &made), QX_OK);
  EXPECT_EQ(qx_collection_count(Owned<QxCollection>(made).get(), nullptr), 0);
}

// Lists that are taken out and put in give the same hits; rows that are in none find theirs.
TEST(Collection, IsBuiltWithLists) {
  constexpr std::int64_t kBuilt = 5000, kCount = 40;
  std::vector<std::int64_t> ids;
  Floats vectors;
  for (std::int64_t i = 0; i < kBuilt; ++i) {
    ids.push_back(i);
    vectors.insert(vectors.end(), {static_cast<float>(i % 13) - 6, static_cast<float>(i % 11) - 5});
  }
  const QxIds list = {kBuilt, ids.data(), nullptr};
  QxOptions options = {};
  options.dim = 2;
  const auto build = [&](const QxLists* lists, QxCollection** out) {
    Writer writer = {vectors};
    return qx_collection_build(&options, list, nullptr, lists, Writer::fill, &writer, out);
  };
  QxCollection* made = nullptr;
  ASSERT_EQ(build(nullptr, &made), QX_OK);
  const Owned<QxCollection> trained(made);
  Floats centroids(2 * kCount);
  std::vector<std::uint32_t> of_rows(kBuilt);
  const auto take = [&](std::int64_t n) {
    return qx_collection_lists(trained.get(), list, n, centroids.data(), of_rows.data());
  };
  EXPECT_EQ(take(0), QX_INVALID);
  ASSERT_EQ(qx_collection_train(trained.get(), kCount, nullptr, nullptr), QX_OK);
  EXPECT_EQ(take(kCount - 1), QX_INVALID);
  EXPECT_STREQ(qx_collection_message(), "n_lists is 39, and there are 40");
  ASSERT_EQ(take(kCount), QX_OK);
  const std::vector<std::uint32_t> unknown(kBuilt, QX_NO_LIST);
  for (const std::vector<std::uint32_t>& known : {of_rows, unknown}) {
    const QxLists lists = {kCount, centroids.data(), known.data()};
    ASSERT_EQ(build(&lists, &made), QX_OK);
    const Owned<QxCollection> built(made);
    std::vector<std::uint32_t> again(kBuilt);
    Floats same(2 * kCount);
    ASSERT_EQ(qx_collection_lists(built.get(), list, kCount, same.data(), again.data()), QX_OK);
    EXPECT_EQ(again, of_rows);
    EXPECT_EQ(same, centroids);
  }
  for (const std::uint32_t strange : {std::uint32_t{kCount}, QX_NO_LIST - 1}) {
    of_rows[77] = strange;
    const QxLists lists = {kCount, centroids.data(), of_rows.data()};
    EXPECT_EQ(build(&lists, &made), QX_INVALID);
  }
  const QxLists none = {0, centroids.data(), of_rows.data()};
  EXPECT_EQ(build(&none, &made), QX_INVALID);
  EXPECT_STREQ(qx_collection_message(), "the number of lists is 0, outside 1 to 65536");
}

// What a callback throws, or a count that no memory has room for, leaves the library as a status.
TEST(Collection, LetsNoExceptionOut) {
  Call call;
  call.ids.count = INT64_MAX;
  EXPECT_EQ(call.get(), QX_OUT_OF_MEMORY);
  call.search.accept = [](void*, std::int64_t, const QxText*) -> std::int32_t { throw 1; };
  EXPECT_EQ(call.find(), QX_CANCELLED);
  EXPECT_STREQ(qx_collection_message(), "a callback of the host has thrown");
  call.search.accept = nullptr;
  call.search.progress = [](void*, std::int64_t, std::int64_t) { return 1; };
  call.search.threads = 1;  // another might do all the work, and this one have nothing to report
  EXPECT_EQ(call.find(), QX_CANCELLED);
  EXPECT_STREQ(qx_collection_message(), "cancelled by the progress callback");
  EXPECT_EQ(call.hits, nullptr);
}

// The segments of bulk changes are merged by another thread, or just about to be.
TEST(Collection, IsReleasedWhileSegmentsAreMerged) {
  const Schema schema = {768};
  const std::vector<Floats> vectors = {Floats(768, 1.0f)};
  for (std::int64_t round = 0; round < 30; ++round) {
    const Owned<QxCollection> collection(schema.create());
    for (std::int64_t first = 0; first < 7 + round % 3; ++first) {
      std::vector<Id> ids;
      for (std::int64_t i = 0; i < 400; ++i) ids.push_back({400 * first + i, ""});
      const IdArrays list(schema, ids);
      const RowArrays arrays(schema, vectors, std::vector<Row>(400, Row{0, {}}));
      ASSERT_EQ(qx_collection_upsert(collection.get(), list.get(), arrays.vectors(), nullptr),
                QX_OK);
    }
    EXPECT_EQ(qx_collection_count(collection.get(), nullptr), 400 * (7 + round % 3));
  }
}

// A merge has begun when it has the bytes of its segment.
TEST(Collection, IsReleasedInTheMiddleOfAMerge) {
  constexpr std::int64_t kSegment = 100000;
  const Schema schema = {1};
  const Owned<QxCollection> collection(schema.create());
  const Floats vectors(kSegment, 1.0f);
  std::vector<std::int64_t> ids(kSegment);
  QxCollectionStats stats = {};
  for (std::int64_t segment = 0; segment < 6; ++segment) {
    for (std::int64_t i = 0; i < kSegment; ++i) ids[static_cast<std::size_t>(i)] = 6 * i + segment;
    ASSERT_EQ(qx_collection_upsert(collection.get(), {kSegment, ids.data(), nullptr},
                                   vectors.data(), nullptr),
              QX_OK);
    if (segment == 4) qx_collection_stats(collection.get(), &stats);
  }
  const std::int64_t bytes = stats.bytes / 5 * 6;
  while (stats.bytes <= bytes && stats.segments != 1) {
    qx_collection_stats(collection.get(), &stats);
    std::this_thread::yield();
  }
  EXPECT_EQ(stats.rows, 6 * kSegment);
}

TEST(Collection, AcceptsCallsThatAskForNothing) {
  Call call;
  const QxIds none = {};
  QxCollection* const collection = call.collection.get();
  EXPECT_EQ(qx_collection_upsert(collection, none, nullptr, nullptr), QX_OK);
  EXPECT_EQ(qx_collection_remove(call.texts.get(), call.ids, nullptr), QX_OK);  // null, of no bytes
  EXPECT_EQ(qx_collection_remove(collection, none, nullptr), QX_OK);
  EXPECT_EQ(qx_view_upsert(call.view.get(), none, nullptr, nullptr), QX_OK);
  EXPECT_EQ(qx_view_remove(call.view.get(), none, &call.removed), QX_OK);
  EXPECT_EQ(call.removed, 0);
  EXPECT_EQ(qx_collection_contains(collection, nullptr, none, nullptr), QX_OK);
  for (const auto& [queries, k] : {std::pair{0, 3}, {2, 0}, {0, 0}}) {
    ASSERT_EQ(call.find(queries, k), QX_OK);
    const Owned<QxHits> hits(call.hits);
    expect_hits(*hits, std::vector<std::vector<Hit>>(static_cast<std::size_t>(queries)));
  }
  ASSERT_EQ(qx_collection_search(collection, call.view.get(), call.vectors, 2, INT64_MAX, nullptr,
                                 &call.hits),
            QX_OK);
  expect_hits(*Owned<QxHits>(call.hits), {{}, {}});
  ASSERT_EQ(qx_collection_get(collection, nullptr, none, &call.rows), QX_OK);
  EXPECT_EQ(Owned<QxRows>(call.rows)->count, 0);
  ASSERT_EQ(call.list({}, 0), QX_OK);
  EXPECT_EQ(Owned<QxRows>(call.rows)->count, 0);
  ASSERT_EQ(qx_collection_explain(collection, call.view.get(), nullptr, &call.text), QX_OK);
  EXPECT_STREQ(Owned<char>(call.text).get(), "");
  EXPECT_EQ(qx_collection_compact(call.texts.get(), nullptr, nullptr), QX_OK);
  qx_collection_free(nullptr);
  qx_view_free(nullptr);
  qx_hits_free(nullptr);
  qx_rows_free(nullptr);
  qx_text_free(nullptr);
}

TEST(Collection, TellsItsSchema) {
  const Call call;
  QxOptions schema;
  qx_collection_schema(call.collection.get(), &schema);
  EXPECT_TRUE(schema.dim == 2 && schema.id_kind == QX_NUMBERS && schema.n_columns == 4);
  EXPECT_STREQ(schema.columns[3].name, "t");
  EXPECT_EQ(schema.columns[3].type, QX_TEXT);
  qx_collection_schema(call.texts.get(), &schema);
  EXPECT_TRUE(schema.id_kind == QX_TEXTS && schema.n_columns == 0);
  for (const Metric metric : kMetrics) {
    const Owned<QxCollection> collection(Schema{1, false, {}, {}, metric}.create());
    qx_collection_schema(collection.get(), &schema);
    EXPECT_EQ(schema.metric, static_cast<std::int32_t>(metric));
  }
}

// Texts of 16 bytes whose std::hash is equal in g++'s standard library: the second half makes up
// for the first.
std::vector<Id> ids_of_one_hash(std::uint64_t count) {
  constexpr std::uint64_t kFactor = 0xC6A4A7935BD1E995u;
  std::uint64_t inverse = 1;
  for (int i = 0; i < 6; ++i) inverse *= 2 - kFactor * inverse;
  constexpr std::uint64_t kSeed = 0xC70F6907u ^ 16 * kFactor;
  const auto mix = [](std::uint64_t bits) { return bits ^ bits >> 47; };
  std::vector<Id> ids;
  for (std::uint64_t i = 0; i < count; ++i) {
    const std::uint64_t before = (kSeed ^ mix(i * kFactor) * kFactor) * kFactor;
    const std::uint64_t halves[] = {i, mix(before * inverse) * inverse};
    ids.push_back({0, std::string(reinterpret_cast<const char*>(halves), sizeof(halves))});
  }
  return ids;
}

TEST(Collection, TellsIdsOfOneHashApart) {
  const std::vector<Id> ids = ids_of_one_hash(20);
#if defined(__GLIBCXX__)
  const std::hash<std::string_view> hash;
  for (const Id& id : ids) ASSERT_EQ(hash(id.text), hash(ids[0].text));
#endif
  const IdArrays list(kTexts, ids);
  const std::vector<Row> rows(ids.size(), Row{0, {}});
  const RowArrays arrays(kTexts, {{1, 2}}, rows);
  const Owned<QxCollection> collection(kTexts.create());
  ASSERT_EQ(qx_collection_upsert(collection.get(), list.get(), arrays.vectors(), nullptr), QX_OK);
  ASSERT_EQ(qx_collection_upsert(collection.get(), list.get(), arrays.vectors(), nullptr), QX_OK);
  const std::vector<Id> some(ids.begin(), ids.begin() + 7);
  std::int64_t removed = 0;
  ASSERT_EQ(qx_collection_remove(collection.get(), IdArrays(kTexts, some).get(), &removed), QX_OK);
  EXPECT_EQ(removed, 7);
  std::uint8_t found[20];
  ASSERT_EQ(qx_collection_contains(collection.get(), nullptr, list.get(), found), QX_OK);
  for (std::size_t i = 0; i < ids.size(); ++i) EXPECT_EQ(found[i], i < 7 ? 0 : 1);
}

TEST(Collection, HoldsVectorsOfTheLargestDimension) {
  const Schema schema = {65536, true};
  const std::vector<Floats> vectors = {Floats(65536, 0.5f)};
  const std::vector<Id> ids = {{0, ""}, {0, "b"}, {0, std::string(100000, 'a')}};
  const std::vector<Row> rows(3, Row{0, {}});
  const IdArrays list(schema, ids);
  const RowArrays arrays(schema, vectors, rows);
  const Owned<QxCollection> collection(schema.create());
  ASSERT_EQ(qx_collection_upsert(collection.get(), list.get(), arrays.vectors(), nullptr), QX_OK);
  Model model;
  model.upsert(ids, rows);
  for (int compacted = 0; compacted < 2; ++compacted) {
    QxRows* got = nullptr;
    ASSERT_EQ(qx_collection_get(collection.get(), nullptr, list.get(), &got), QX_OK);
    expect_rows(*Owned<QxRows>(got), schema, vectors, ids, model);
    ASSERT_EQ(qx_collection_compact(collection.get(), nullptr, nullptr), QX_OK);
  }
}

// ---- Ties, and what is explained ----

constexpr std::int64_t kRows = 4096 + 4500 + 200;

// A manual collection of rows that differ in their id alone, shuffled into two segments and a tail.
class Ties : public testing::TestWithParam<Metric> {
 protected:
  Ties() {
    for (std::int64_t id = 0; id < kRows; ++id) ids_.push_back({id - 4000, ""});
    Random(1).shuffle(ids_);
    upsert(0, 4096);
    upsert(4096, 8596);
    upsert(8596, kRows);
  }

  QxCollection* create() const {
    QxOptions options = {};
    options.manual = 1;
    return schema_.create(options);
  }

  void upsert(std::int64_t first, std::int64_t end) {
    const std::vector<Id> ids(ids_.begin() + first, ids_.begin() + end);
    const IdArrays list(schema_, ids);
    const std::vector<Row> rows(ids.size(), Row{0, {std::int64_t{3}}});
    const RowArrays arrays(schema_, {Floats(8, 1.0f)}, rows);
    ASSERT_EQ(
        qx_collection_upsert(collection_.get(), list.get(), arrays.vectors(), arrays.values()),
        QX_OK);
    model_.upsert(ids, rows);
    model_.is_distance = GetParam() == Metric::kEuclidean;
  }

  // All k, of batches of equal queries, by threads.
  void expect_lowest_ids(const QxView* view, QxSearch search, const Model& model) {
    const Floats vector = kept(GetParam(), Floats(8, 1.0f));
    const float score = score_of(GetParam(), vector, vector);
    for (const std::int64_t k : {1, 7, 100, 5000, 20000}) {
      for (const std::int64_t batch : {1, 2, 9}) {
        const Floats queries(static_cast<std::size_t>(8 * batch), 1.0f);
        const auto all = [](const Id&, const Row&) { return true; };
        const std::vector<std::vector<Hit>> expected(static_cast<std::size_t>(batch),
                                                     model.search({score}, k, all));
        for (search.threads = 1; search.threads <= 3; ++search.threads) {
          QxHits* hits = nullptr;
          ASSERT_EQ(qx_collection_search(collection_.get(), view, queries.data(), batch, k, &search,
                                         &hits),
                    QX_OK);
          expect_hits(*Owned<QxHits>(hits), expected);
        }
      }
    }
  }

  std::string explanation(QxSearch search, const QxView* view = nullptr) {
    char* text = nullptr;
    EXPECT_EQ(qx_collection_explain(collection_.get(), view, &search, &text), QX_OK);
    return Owned<char>(text).get();
  }

  Schema schema_ = {8, false, {"x"}, {QX_INTEGER}, GetParam()};
  Owned<QxCollection> collection_{create()};
  std::vector<Id> ids_;
  Model model_;
};

TEST_P(Ties, AreOrderedByIdAcrossSegmentsAndTheTail) {
  EXPECT_EQ(explanation({}),
            "segment of 4096 rows: scan, 4096 pass\n"
            "segment of 4500 rows: scan, 4500 pass\n"
            "tail of 200 rows: scan, 200 pass\n");
  expect_lowest_ids(nullptr, {}, model_);
}

TEST_P(Ties, AreOrderedByIdByABitmap) {
  QxSearch search = {};
  search.filter = "x = 3";
  EXPECT_EQ(explanation(search),
            "segment of 4096 rows: bitmap, 4096 pass\n"
            "segment of 4500 rows: bitmap, 4500 pass\n"
            "tail of 200 rows: bitmap, 200 pass\n");
  expect_lowest_ids(nullptr, search, model_);
}

TEST_P(Ties, AreOrderedByIdAsCandidates) {
  std::vector<Id> listed;
  for (std::size_t i = 0; i < ids_.size(); i += 3) listed.push_back(ids_[i]);
  const IdArrays among(schema_, listed);
  QxSearch search = {};
  search.among = &among.get();
  Model model;
  model.is_distance = model_.is_distance;
  model.upsert(listed, std::vector<Row>(listed.size(), Row{0, {}}));
  EXPECT_EQ(explanation(search),
            "segment of 4096 rows: candidates, 1366 pass\n"
            "segment of 4500 rows: candidates, 1500 pass\n"
            "tail of 200 rows: candidates, 66 pass\n");
  expect_lowest_ids(nullptr, search, model);
}

TEST_P(Ties, AreOrderedByIdOfAViewThatChangesRows) {
  const Owned<QxView> view = Call::view_of(*collection_);
  const std::vector<Id> ids(ids_.begin() + 4000, ids_.begin() + 4200);
  const std::vector<Row> rows(ids.size(), Row{0, {std::int64_t{4}}});
  const IdArrays list(schema_, ids);
  const RowArrays arrays(schema_, {Floats(8, 1.0f)}, rows);
  ASSERT_EQ(qx_view_upsert(view.get(), list.get(), arrays.vectors(), arrays.values()), QX_OK);
  EXPECT_EQ(explanation({}, view.get()),
            "segment of 4096 rows: bitmap, 4000 pass\n"
            "segment of 4500 rows: bitmap, 4396 pass\n"
            "tail of 200 rows: scan, 200 pass\n"
            "tail of 200 rows: scan, 200 pass\n");
  expect_lowest_ids(view.get(), {}, model_);
  ASSERT_EQ(qx_view_remove(view.get(), list.get(), nullptr), QX_OK);
  Model model = model_;
  model.remove(ids);
  expect_lowest_ids(view.get(), {}, model);
  expect_lowest_ids(nullptr, {}, model_);
}

TEST_P(Ties, AreOrderedByIdInOneSegment) {
  ASSERT_EQ(qx_collection_compact(collection_.get(), nullptr, nullptr), QX_OK);
  EXPECT_EQ(explanation({}), "segment of 8796 rows: scan, 8796 pass\n");
  expect_lowest_ids(nullptr, {}, model_);
}

INSTANTIATE_TEST_SUITE_P(OfEveryMetric, Ties, testing::ValuesIn(kMetrics));

// A product that underflows to -0.0 is +0.0 after the components for which the query is zero.
TEST(Score, HasTheSignOfTheWholeChainInATailAndInASegment) {
  constexpr int kDim = 32;
  float row[kDim];
  std::fill_n(row, kDim, 1.0f);
  row[0] = 1e-30f;
  float query[kDim] = {-1e-30f};
  const std::int64_t id = 7;
  QxOptions options = {};
  options.dim = kDim;
  QxCollection* collection = nullptr;
  ASSERT_EQ(qx_collection_new(&options, &collection), QX_OK);
  ASSERT_EQ(qx_collection_upsert(collection, {1, &id, nullptr}, row, nullptr), QX_OK);
  for (int compacted = 0; compacted < 2; ++compacted) {
    QxHits* hits = nullptr;
    ASSERT_EQ(qx_collection_search(collection, nullptr, query, 1, 1, nullptr, &hits), QX_OK);
    ASSERT_EQ(hits->counts[0], 1);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(hits->scores[0]), 0u) << compacted;
    qx_hits_free(hits);
    ASSERT_EQ(qx_collection_compact(collection, nullptr, nullptr), QX_OK);
  }
  qx_collection_free(collection);
}

}  // namespace
}  // namespace qx_test
