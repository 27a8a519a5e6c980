// Random histories: changes, views, reads, compactions and files of a collection, each answer
// compared with the model's. A history is a seed; QX_SEED plays that one alone, and QX_TIMES=N
// N times as many.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <set>
#include <sstream>

#include "batch/batch.h"
#include "collection/host.h"
#include "interface/handles.h"
#include "support/host_environment.h"
#include "support/random.h"

namespace qx_test {
namespace {

// How large a history is. Tails take 4096 rows up to dimension 64, fewer of wider vectors, down to
// 64; a call of as many makes a segment.
struct Size {
  const char* name;
  int histories;
  std::vector<std::int32_t> dims;
  std::int64_t ids;
  std::int64_t rows;  // of the largest changes
  int steps;
  bool has_environments;
  bool is_batched = false;  // batches that tiles may judge; they do so in every other history
};

void PrintTo(const Size& size, std::ostream* out) { *out << size.name; }

const std::vector<std::int32_t> kNarrow = {1, 2, 3, 4, 5, 7, 8, 9, 15, 16, 17, 24, 31, 33, 40};
const Size kSizes[] = {
    {"Small", 2000, kNarrow, 60, 40, 40, false},
    {"InAnyEnvironment", 700, kNarrow, 60, 40, 40, true},
    {"Wide", 80, {768, 4096}, 1500, 700, 30, false},
    {"Many", 20, {1, 3, 8, 64}, 15000, 9000, 25, false},
    {"Batched", 8, {8, 33, 64, 100}, 15000, 9000, 25, false, true},
};

bool accepts(std::int64_t number, const QxText* text) {
  std::int64_t sum = number % 3;
  for (std::int64_t i = 0; text != nullptr && i < text->size; ++i) sum += text->data[i];
  return sum % 3 != 0;
}

// Which rows a read asks for.
struct Condition {
  std::optional<Filter> filter = {};
  std::optional<std::set<Id>> among = {};
  bool has_accept = false;

  bool passes(const Id& id, const Row& row) const {
    const QxText text = text_of(id.text);
    return (!filter || filter->of(row.values) == Truth::kTrue) && (!among || among->contains(id)) &&
           (!has_accept || accepts(id.number, &text));
  }
};

// A progress callback that cancels after some calls.
struct Patience {
  std::int64_t calls;
  bool is_over = false;

  static std::int32_t report(void* context, std::int64_t done, std::int64_t total) {
    auto& patience = *static_cast<Patience*>(context);
    EXPECT_TRUE(0 <= done && done <= total) << done << " of " << total;
    patience.is_over = patience.calls-- == 0;
    return patience.is_over ? 1 : 0;
  }
};

std::string bytes_of(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A collection or a view of it, and what it must hold.
struct Reader {
  Owned<QxView> view;  // null: the collection
  Model model;
};

class History {
 public:
  History(const Size& size, std::uint64_t seed) : size_(size), random_(seed) {
    draw_schema();
    const std::int64_t most = size.is_batched ? 5000 : random_.any_of<std::int64_t>({4, 40, 200});
    for (std::int64_t v = random_.between(1, most); v > 0; --v) {
      const bool is_known = !kept_.empty() && random_.percent(10);
      vectors_.push_back(is_known ? random_.any_of(kept_) : any_floats());
      kept_.push_back(kept(schema_.metric, vectors_.back()));
    }
    const std::int64_t queries = size.is_batched ? 20 : random_.between(1, 4);
    while (std::ssize(queries_) < queries) queries_.push_back(any_floats());
    for (float& component : queries_[0]) {  // no tile judges a null query
      if (!size.is_batched) component = any_zero();
    }
    for (std::size_t q = 1; q < queries_.size() && !size.is_batched; ++q) {
      if (random_.percent(40)) make_sparse(queries_[q]);
    }
    qx::collection::TileKernel::allow(!size.is_batched || seed % 2 == 0);
    for (const Floats& query : queries_) {
      Floats& scores = scores_.emplace_back();
      const Floats compared = kept(schema_.metric, query);
      for (const Floats& vector : kept_) {
        scores.push_back(score_of(schema_.metric, vector, compared));
      }
    }
    if (size.has_environments) environment_ = &random_.any_of(fp_environments());
    QxOptions options = {};
    options.threads = any_threads();
    options.manual = random_.percent(40);
    collection_.reset(schema_.create(options));
    readers_.emplace_back();
    readers_[0].model.is_distance = schema_.metric == Metric::kEuclidean;
  }

  History(const History&) = delete;
  ~History() { qx::collection::TileKernel::allow(true); }

  void play() {
    for (int step = 0; step < size_.steps && !testing::Test::HasFailure(); ++step) {
      const bool any = random_.percent(30);
      play_step(readers_[any ? index_below(readers_.size()) : 0], random_.between(0, 99));
    }
    for (const Reader& reader : readers_) compare_all(reader);
  }

 private:
  void play_step(Reader& reader, std::int64_t chance) {
    if (chance < 30) return upsert(reader);
    if (chance < 40) return remove(reader);
    if (chance < 45) return compact();
    if (chance < 50) return change_views();
    if (chance < 53) return train();
    if (chance < 73) return search(reader, any_queries(), any_k(reader), any_condition());
    if (chance < 78) return get(reader);
    if (chance < 87) return list(reader);
    if (chance < 92) return explain(reader);
    if (chance < 96) return check_stats();
    save_and_load(reader);
  }

  // ---- Draws ----

  std::size_t index_below(std::size_t count) {
    return static_cast<std::size_t>(random_.between(0, static_cast<std::int64_t>(count) - 1));
  }
  std::int32_t any_threads() { return random_.any_of<std::int32_t>({0, 1, 2, 3, 8}); }

  void draw_schema() {
    static const char* const names[] = {"a", "Not", "quo\"te", "b 2", "_x", "\xC3\xA9"};
    schema_.dim = random_.any_of(size_.dims);
    schema_.has_texts = random_.percent(40);
    for (std::size_t c = index_below(7); c-- > 0;) {
      schema_.names.push_back(names[c]);
      schema_.types.push_back(random_.between32(QX_INTEGER, QX_TEXT));
    }
    schema_.metric =
        random_.any_of<Metric>({Metric::kInnerProduct, Metric::kCosine, Metric::kEuclidean});
    id_scale_ = random_.any_of<std::uint64_t>({1, ~std::uint64_t{0}, 0x9E3779B97F4A7C15u});
    using enum Values;
    components_ = random_.any_of<Values>({kTies, kTies, kSmooth, kMixed, kSpecial, kCancelling});
    if (size_.is_batched) components_ = random_.percent(50) ? kTies : kSmooth;
  }

  Floats any_floats() {
    Floats floats = draw_floats(random_, components_, schema_.dim);
    for (float& component : floats) component = std::isfinite(component) ? component : 1.0f;
    return floats;
  }

  float any_zero() { return random_.percent(50) ? 0.0f : -0.0f; }

  // Leaves few components, in half of the queries such that products underflow.
  void make_sparse(Floats& query) {
    const float factor = random_.any_of<float>({1.0f, 0x1p-145f});
    const std::size_t left = index_below(query.size() / 16 + 2);
    random_.shuffle(query);
    for (float& component : query) component *= factor;
    for (std::size_t i = left; i < query.size(); ++i) query[i] = any_zero();
    random_.shuffle(query);
  }

  Id any_id() {
    const std::int64_t i = random_.between(0, size_.ids);
    if (!schema_.has_texts) {
      if (i == 0) return {random_.any_of<std::int64_t>({INT64_MIN, INT64_MAX}), ""};
      return {static_cast<std::int64_t>(static_cast<std::uint64_t>(i) * id_scale_), ""};
    }
    std::string text(index_below(2) * static_cast<std::size_t>(i % 40), 'x');
    for (std::int64_t rest = i; rest > 0; rest /= 7) text += "\xFF\x80zab\0'"[rest % 7];
    return {0, text};
  }
  std::vector<Id> any_ids(std::int64_t count) {
    std::vector<Id> ids;
    for (; count > 0; --count) ids.push_back(any_id());
    return ids;
  }
  std::int64_t any_count() {
    if (random_.percent(40)) return 1;
    return random_.between(
        0, random_.percent(size_.is_batched ? 40 : 80) ? size_.rows / 8 : size_.rows);
  }

  Value any_value(std::int32_t type) {
    using Limits = std::numeric_limits<double>;
    constexpr std::int64_t kTwoTo53 = std::int64_t{1} << 53;
    static const std::vector<double> reals = {
        -0.0, 0x1p53, 1e300, Limits::denorm_min(), Limits::quiet_NaN(), -Limits::infinity()};
    static const std::vector<std::int64_t> integers = {INT64_MIN, INT64_MAX, kTwoTo53,
                                                       kTwoTo53 + 1};
    static const std::vector<std::string> texts = {"", "a", "ab", "it's", "\xFF", {"a\0b", 3}};
    const bool is_rare = random_.percent(20);
    if (type == QX_INTEGER) return is_rare ? random_.any_of(integers) : random_.between(-3, 3);
    if (type == QX_BOOLEAN) return random_.percent(50);
    if (type == QX_TEXT) return random_.any_of(texts);
    if (is_rare) return random_.any_of(reals);
    return static_cast<double>(random_.between(-6, 6)) / 2;
  }
  Row any_row() {
    Row row = {index_below(vectors_.size()), {}};
    for (const std::int32_t type : schema_.types) {
      row.values.push_back(random_.percent(25) ? Value() : any_value(type));
    }
    return row;
  }

  // Of numbers either kind goes with either; a text ends at its NUL, and a real must be finite.
  Value any_literal(std::int32_t type) {
    const bool is_number = type == QX_INTEGER || type == QX_REAL;
    Value value = any_value(is_number ? random_.between32(QX_INTEGER, QX_REAL) : type);
    if (auto* const text = std::get_if<std::string>(&value))
      text->resize(std::strlen(text->c_str()));
    const auto* const real = std::get_if<double>(&value);
    return real == nullptr || std::isfinite(*real) ? value : Value(0.5);
  }

  Filter any_filter(int depth) {
    if (depth > 0 && random_.percent(60)) {
      const auto kind = random_.any_of<Filter::Kind>({Filter::kNot, Filter::kAnd, Filter::kOr});
      Filter filter = {kind};
      filter.parts.push_back(any_filter(depth - 1));
      if (kind != Filter::kNot) filter.parts.push_back(any_filter(depth - 1));
      return filter;
    }
    Filter filter = {Filter::kConstant};
    filter.is_negated = random_.percent(50);
    if (schema_.types.empty() || random_.percent(3)) return filter;
    filter.column = index_below(schema_.types.size());
    const std::int32_t type = schema_.types[filter.column];
    using enum Filter::Kind;
    filter.kind = random_.any_of<Filter::Kind>({kCompare, kCompare, kBetween, kIn, kIsNull});
    if (type == QX_BOOLEAN && random_.percent(50)) filter.kind = kColumn;
    if (filter.kind == kCompare || filter.kind == kColumn) filter.is_negated = false;
    filter.comparison = random_.any_of<std::string>({"=", "<>", "<", "<=", ">", ">="});
    const std::size_t literals = filter.kind == kIn ? 1 + index_below(4) : 2;
    for (std::size_t i = 0; i < literals; ++i) filter.literals.push_back(any_literal(type));
    return filter;
  }
  Condition any_condition() {
    Condition condition;
    if (random_.percent(50)) condition.filter = any_filter(3);
    if (random_.percent(20)) {
      const std::vector<Id> ids = any_ids(random_.between(0, 3 * size_.rows));
      condition.among.emplace(ids.begin(), ids.end());
    }
    condition.has_accept = random_.percent(15);
    return condition;
  }
  std::vector<std::size_t> any_queries() {
    std::vector<std::size_t> numbers(index_below(size_.is_batched      ? 70
                                                 : random_.percent(80) ? 4
                                                                       : 20));
    for (std::size_t& number : numbers) number = index_below(queries_.size());
    return numbers;
  }
  std::int64_t any_k(const Reader& reader) {
    const std::int64_t rows = std::ssize(reader.model.rows);
    return random_.any_of<std::int64_t>({0, 1, 2, 5, 17, 100, rows, rows + 1, INT64_MAX});
  }

  // ---- Calls ----

  // In the host's floating-point environment.
  template <typename Call>
  void expect(std::int32_t status, Call call) {
    std::int32_t got = -1;
    const auto in_environment = [&] { got = call(); };
    if (environment_ == nullptr) {
      in_environment();
    } else {
      EXPECT_TRUE(leaves_environment(*environment_, in_environment)) << environment_->name;
    }
    ASSERT_EQ(got, status) << qx_collection_message();
  }

  void upsert(Reader& reader) {
    const std::vector<Id> ids = any_ids(any_count());
    std::vector<Row> rows;
    for (std::size_t i = 0; i < ids.size(); ++i) rows.push_back(any_row());
    const bool has_values = random_.percent(90);
    for (Row& row : rows) {
      if (!has_values) row.values.assign(schema_.types.size(), {});
    }
    const IdArrays list(schema_, ids);
    const RowArrays arrays(schema_, vectors_, rows);
    const QxValues* const values = has_values ? arrays.values() : nullptr;
    expect(QX_OK, [&] {
      if (reader.view == nullptr) {
        return qx_collection_upsert(collection_.get(), list.get(), arrays.vectors(), values);
      }
      return qx_view_upsert(reader.view.get(), list.get(), arrays.vectors(), values);
    });
    reader.model.upsert(ids, rows);
  }

  void remove(Reader& reader) {
    const std::vector<Id> ids = any_ids(any_count());
    const IdArrays list(schema_, ids);
    std::int64_t removed = -1;
    expect(QX_OK, [&] {
      if (reader.view != nullptr) return qx_view_remove(reader.view.get(), list.get(), &removed);
      return qx_collection_remove(collection_.get(), list.get(), &removed);
    });
    ASSERT_EQ(removed, reader.model.remove(ids));
  }

  void compact() {
    Patience patience = {random_.any_of<std::int64_t>({-1, -1, 0, 1})};
    std::int32_t got = -1;
    expect(0, [&] {
      got = qx_collection_compact(collection_.get(), Patience::report, &patience);
      return 0;
    });
    ASSERT_EQ(got, patience.is_over ? QX_CANCELLED : QX_OK) << qx_collection_message();
    if (got != QX_OK) return;
    QxCollectionStats stats;
    qx_collection_stats(collection_.get(), &stats);
    ASSERT_EQ(stats.dead_rows + stats.tail_rows, 0);
    ASSERT_EQ(stats.segments, stats.rows == 0 ? 0 : 1);
  }

  void train() {
    const std::int64_t rows = std::ssize(readers_[0].model.rows);
    const std::int64_t most = schema_.dim < 100 ? 300 : 15;  // long rows take long to divide
    const std::int64_t lists =
        std::min(most, random_.any_of<std::int64_t>({0, 1, 2, 7, rows / 2, rows, rows + 1}));
    Patience patience = {random_.any_of<std::int64_t>({-1, -1, -1, 0, 3})};
    std::int32_t got = -1;
    expect(0, [&] {
      got = qx_collection_train(collection_.get(), lists, Patience::report, &patience);
      return 0;
    });
    const std::int32_t done = patience.is_over ? QX_CANCELLED : QX_OK;
    ASSERT_EQ(got, lists > rows ? QX_INVALID : done) << qx_collection_message();
  }

  std::shared_ptr<const qx::collection::Lists> lists_of(const Reader& reader) const {
    return reader.view != nullptr ? reader.view->view.state().lists
                                  : collection_->collection.state()->lists;
  }

  // The lists are the library's; which rows they hold, and that a query goes on until it has enough
  // of them, is decided here again.
  std::vector<Hit> probe(const Reader& reader, std::size_t query, std::int64_t k,
                         const Model::Passes& asked, std::int64_t probes, bool has_limit) {
    const auto lists = lists_of(reader);
    const Floats compared = kept(schema_.metric, queries_[query]);
    const std::int64_t wanted = std::min(k, std::ssize(reader.model.rows));
    Floats space;
    std::vector<std::uint32_t> of_vectors;
    for (const Floats& vector : kept_) {
      of_vectors.push_back(lists->list_of(vector.data(), space));
    }
    while (true) {
      std::vector<std::uint32_t> near(static_cast<std::size_t>(std::min(probes, lists->count())));
      lists->find_nearest(compared.data(), near);
      const auto passes = [&](const Id& id, const Row& row) {
        const bool is_near = std::ranges::find(near, of_vectors[row.vector]) != near.end();
        return is_near && asked(id, row);
      };
      std::vector<Hit> hits = reader.model.search(scores_[query], k, passes);
      const bool is_enough = std::ssize(hits) == wanted || has_limit;
      if (is_enough || probes >= lists->count()) return hits;
      probes *= 4;
    }
  }

  void change_views() {
    if (readers_.size() > 1 && random_.percent(60)) {
      readers_.erase(readers_.begin() + 1 + random_.between(0, std::ssize(readers_) - 2));
      return;
    }
    QxView* view = nullptr;
    expect(QX_OK, [&] { return qx_view_new(collection_.get(), &view); });
    readers_.push_back({Owned<QxView>(view), readers_[0].model});
  }

  void search(const Reader& reader, const std::vector<std::size_t>& numbers, std::int64_t k,
              const Condition& condition) {
    Floats queries;
    std::vector<std::vector<Hit>> expected;
    const bool has_probes = lists_of(reader) != nullptr && random_.percent(60);
    const auto probes = has_probes ? random_.any_of<std::int32_t>({1, 1, 2, 5, 300}) : 0;
    std::optional<float> limit;
    if (random_.percent(25)) limit = random_.any_of(scores_[numbers.empty() ? 0 : numbers[0]]);
    if (limit && !std::isfinite(*limit)) limit.reset();
    for (const std::size_t q : numbers) {
      queries.insert(queries.end(), queries_[q].begin(), queries_[q].end());
      const auto passes = [&](const Id& id, const Row& row) {
        const float score = scores_[q][row.vector];
        const bool is_beyond =
            limit && (reader.model.is_distance ? score > *limit : score < *limit);
        return !is_beyond && condition.passes(id, row);
      };
      expected.push_back(has_probes ? probe(reader, q, k, passes, probes, limit.has_value())
                                    : reader.model.search(scores_[q], k, passes));
    }
    with_search(condition, [&](QxSearch& search, const Patience& patience) {
      search.probes = probes;
      search.limit = limit ? &*limit : nullptr;
      QxHits* hits = nullptr;
      std::int32_t got = -1;
      expect(0, [&] {
        got = qx_collection_search(collection_.get(), reader.view.get(), queries.data(),
                                   std::ssize(numbers), k, &search, &hits);
        return 0;
      });
      const Owned<QxHits> owned(hits);
      ASSERT_EQ(got, patience.is_over ? QX_CANCELLED : QX_OK) << qx_collection_message();
      if (got == QX_OK) expect_hits(*hits, expected);
    });
  }

  template <typename Use>
  void with_search(const Condition& condition, Use use) {
    const std::string filter = condition.filter ? condition.filter->text(schema_.names) : "";
    std::vector<Id> listed;
    if (condition.among) listed.assign(condition.among->begin(), condition.among->end());
    if (!listed.empty()) listed.push_back(listed.front());
    random_.shuffle(listed);
    const IdArrays among(schema_, listed);
    Patience patience = {random_.percent(5) ? random_.between(0, 2) : -1};
    QxSearch search = {};
    if (condition.filter) search.filter = filter.c_str();
    if (condition.among) search.among = &among.get();
    if (condition.has_accept) {
      search.accept = [](void* context, std::int64_t number, const QxText* text) {
        EXPECT_EQ(text != nullptr, static_cast<History*>(context)->schema_.has_texts);
        return accepts(number, text) ? 5 : 0;
      };
      search.accept_context = this;
    }
    search.progress = Patience::report;
    search.progress_context = &patience;
    search.threads = any_threads();
    SCOPED_TRACE("filter: " + filter);
    use(search, patience);
  }

  void get(const Reader& reader) {
    const std::vector<Id> ids = any_ids(random_.between(0, 20));
    const IdArrays list(schema_, ids);
    QxRows* rows = nullptr;
    expect(QX_OK, [&] {
      return qx_collection_get(collection_.get(), reader.view.get(), list.get(), &rows);
    });
    const Owned<QxRows> owned(rows);
    expect_rows(*rows, schema_, kept_, ids, reader.model);
    std::vector<std::uint8_t> found(ids.size(), 9);
    expect(QX_OK, [&] {
      return qx_collection_contains(collection_.get(), reader.view.get(), list.get(), found.data());
    });
    for (std::size_t i = 0; i < ids.size(); ++i) ASSERT_EQ(found[i], rows->found[i]);
  }

  // Pages up to the end, by a filter or without.
  void list(const Reader& reader) {
    Condition condition;
    if (random_.percent(70)) condition.filter = any_filter(3);
    const std::string filter = condition.filter ? condition.filter->text(schema_.names) : "";
    const std::int64_t most = random_.any_of<std::int64_t>({0, size_.rows / 3, INT64_MAX});
    std::optional<Id> after;
    if (random_.percent(50)) after = any_id();
    for (std::size_t found = 1; found > 0;) {
      SCOPED_TRACE("filter: " + filter);
      const std::vector<Id> first = after ? std::vector<Id>{*after} : std::vector<Id>();
      const IdArrays start(schema_, first);
      const std::vector<Id> ids = reader.model.list(
          after ? &*after : nullptr, most,
          [&](const Id& id, const Row& row) { return condition.passes(id, row); });
      QxRows* rows = nullptr;
      expect(QX_OK, [&] {
        return qx_collection_list(collection_.get(), reader.view.get(),
                                  condition.filter ? filter.c_str() : nullptr, start.get(), most,
                                  &rows);
      });
      const Owned<QxRows> owned(rows);
      expect_rows(*rows, schema_, kept_, ids, reader.model);
      found = ids.size();
      if (found > 0) after = ids.back();
    }
  }

  void explain(const Reader& reader) {
    const Condition condition = any_condition();
    std::int64_t wanted = 0;
    for (const auto& [id, row] : reader.model.rows) wanted += condition.passes(id, row);
    with_search(condition, [&](QxSearch& search, const Patience&) {
      char* text = nullptr;
      expect(QX_OK, [&] {
        return qx_collection_explain(collection_.get(), reader.view.get(), &search, &text);
      });
      const Owned<char> owned(text);
      std::istringstream lines(text);
      std::int64_t passing = 0;
      for (std::string line; std::getline(lines, line);) {
        passing += std::stoll(line.substr(line.rfind(',') + 1));
      }
      ASSERT_EQ(passing, wanted) << text;
    });
  }

  void check_stats() {
    QxCollectionStats stats;
    qx_collection_stats(collection_.get(), &stats);
    const std::int64_t rows = std::ssize(readers_[0].model.rows);
    ASSERT_EQ(stats.rows, rows);
    ASSERT_TRUE(0 <= stats.tail_rows && stats.tail_rows <= rows) << stats.tail_rows;
    ASSERT_TRUE(stats.dead_rows >= 0 && stats.segments >= 0);
    ASSERT_GE(stats.bytes, (rows + stats.dead_rows) * (4 * std::int64_t{schema_.dim} + 28));
  }

  // A file that was loaded holds the rows, and is saved as the same bytes. It may go on instead.
  void save_and_load(const Reader& reader) {
    const std::string path = testing::TempDir() + "collection_" + std::to_string(getpid());
    expect(QX_OK, [&] {
      return qx_collection_save(collection_.get(), reader.view.get(), path.c_str(), nullptr,
                                nullptr);
    });
    const std::string bytes = bytes_of(path);
    QxOptions options = {};
    options.threads = any_threads();
    options.manual = random_.percent(40);
    QxCollection* loaded = nullptr;
    expect(QX_OK,
           [&] { return qx_collection_load(path.c_str(), &options, nullptr, nullptr, &loaded); });
    Model model = reader.model;
    collection_.swap(other_);
    collection_.reset(loaded);
    const Reader copy = {nullptr, model};
    compare_all(copy);
    expect(QX_OK, [&] {
      return qx_collection_save(collection_.get(), nullptr, path.c_str(), nullptr, nullptr);
    });
    ASSERT_EQ(bytes, bytes_of(path));
    unlink(path.c_str());
    if (random_.percent(50)) return collection_.swap(other_);
    readers_.resize(1);
    readers_[0].model = std::move(model);
    other_.reset();
  }

  void compare_all(const Reader& reader) {
    ASSERT_EQ(qx_collection_count(collection_.get(), reader.view.get()),
              std::ssize(reader.model.rows));
    const QxIds none = {};
    QxRows* rows = nullptr;
    expect(QX_OK, [&] {
      return qx_collection_list(collection_.get(), reader.view.get(), nullptr, none, INT64_MAX,
                                &rows);
    });
    const Owned<QxRows> owned(rows);
    const auto all = [](const Id&, const Row&) { return true; };
    expect_rows(*rows, schema_, kept_, reader.model.list(nullptr, INT64_MAX, all), reader.model);
    std::vector<std::size_t> queries(queries_.size());
    for (std::size_t q = 0; q < queries.size(); ++q) queries[q] = q;
    search(reader, queries, INT64_MAX, {});
    search(reader, queries, 3, {});
  }

  const Size& size_;
  Random random_;
  Schema schema_;
  std::uint64_t id_scale_ = 1;
  Values components_ = Values::kTies;
  std::vector<Floats> vectors_;  // as the host gives them
  std::vector<Floats> kept_;
  std::vector<Floats> queries_;
  std::vector<Floats> scores_;  // of each query, those of the vectors
  const FpEnvironment* environment_ = nullptr;
  Owned<QxCollection> collection_;
  Owned<QxCollection> other_;    // the one that was saved, while the loaded one is compared
  std::vector<Reader> readers_;  // the collection, then views
};

class Histories : public testing::TestWithParam<Size> {};

TEST_P(Histories, AgreeWithTheModel) {
  const auto variable = [](const char* name, int otherwise) {
    const char* const text = std::getenv(name);
    return text == nullptr ? otherwise : std::atoi(text);
  };
  const int first = variable("QX_SEED", 1);
  const bool is_one = std::getenv("QX_SEED") != nullptr;
  const int count = is_one ? 1 : GetParam().histories * variable("QX_TIMES", 1);
  for (int seed = first; seed < first + count && !HasFailure(); ++seed) {
    SCOPED_TRACE("QX_SEED=" + std::to_string(seed));
    History(GetParam(), static_cast<std::uint64_t>(seed)).play();
  }
}

INSTANTIATE_TEST_SUITE_P(OfAnySize, Histories, testing::ValuesIn(kSizes),
                         [](const auto& size) { return size.param.name; });

}  // namespace
}  // namespace qx_test
