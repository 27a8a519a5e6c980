// qx_collection for C++20: collections that own themselves, spans in, results as ranges.
//
// What calls do is said in qx_collection.h; each has the name of its function there. A call that is
// refused throws and changes nothing:
//
//   qx::Collection::InvalidArgument  an argument that does not fit the collection or the others
//   qx::Collection::Cancelled        a progress callback returned true
//   qx::Collection::IoError          the system refused an operation on a file
//   qx::Collection::CorruptFile      a file is not one that was saved, or not whole
//   std::bad_alloc                   memory that is not there, or is beyond the limit
//
// The first four are a qx::CollectionError, which has the status. What a callback throws ends the
// call, changes nothing, and is thrown by it.
//
//   qx::Collection words({.dim = 100, .columns = {{"label", QX_INTEGER}}});
//   words.upsert(ids, vectors, {labels});
//   const qx::CollectionHits hits = words.search(query, 10, {.filter = "label = 3"});
//   for (const auto& hit : hits[0]) use(hit.id, hit.score);
//
// A collection stays until its views are gone too. Results own their memory: texts and spans that
// they give are valid while they live. Their operator[] does not check its position. One that was
// moved from may only be assigned to or destroyed; a collection or view then throws
// InvalidArgument.
#pragma once

#if __cplusplus < 202002L && !(defined(_MSVC_LANG) && _MSVC_LANG >= 202002L)
#error "qx_collection.hpp needs C++20"
#else

#include <qx_collection.h>

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace qx {
// Of its own, and without a name that qx_runtime.hpp has.
inline namespace collection_api {

// ---- Errors ----

class CollectionError : public std::runtime_error {
 public:
  CollectionError(std::int32_t status, const std::string& message)
      : std::runtime_error(message), status_(status) {}
  std::int32_t status() const { return status_; }

 private:
  std::int32_t status_;
};

template <std::int32_t kStatus>
class CollectionErrorOf : public CollectionError {
 public:
  explicit CollectionErrorOf(const std::string& message) : CollectionError(kStatus, message) {}
};

// ---- What calls take ----

template <typename Range>
using ElementOf = std::remove_cvref_t<decltype(*std::data(std::declval<const Range&>()))>;
template <typename Range, typename... Types>
concept RangeOf = (std::same_as<ElementOf<Range>, Types> || ...);
template <typename Range>
concept Texts = RangeOf<Range, std::string_view, std::string>;

template <typename Range>
std::vector<QxText> text_pointers(const Range& texts) {
  std::vector<QxText> pointers;
  pointers.reserve(std::size(texts));
  for (const std::string_view text : texts) {
    pointers.push_back({text.data(), std::ssize(text)});
  }
  return pointers;
}

// Numbers or texts: of a vector, an array or a span, which must stay, or listed in braces.
class Ids {
 public:
  Ids() = default;
  template <RangeOf<std::int64_t> Range>
  Ids(const Range& numbers) : numbers_(numbers) {}
  template <Texts Range>
  Ids(const Range& texts) : texts_(text_pointers(texts)) {}
  Ids(std::initializer_list<std::int64_t> numbers) : listed_(numbers) {}
  Ids(std::initializer_list<std::string_view> texts) : texts_(text_pointers(texts)) {}

  std::size_t size() const { return numbers_.size() + listed_.size() + texts_.size(); }
  QxIds get() const {
    const std::int64_t* const numbers = listed_.empty() ? numbers_.data() : listed_.data();
    return {static_cast<std::int64_t>(size()), numbers, texts_.data()};
  }

 private:
  std::span<const std::int64_t> numbers_;
  std::vector<std::int64_t> listed_;
  std::vector<QxText> texts_;
};

// The values of one column, which must stay: one a row, and not 0 in `nulls` where one is NULL; or
// none at all, if all are NULL.
class Values {
 public:
  using Nulls = std::span<const std::uint8_t>;

  Values() = default;
  template <RangeOf<std::int64_t, double, std::uint8_t, std::string_view, std::string> Range>
  Values(const Range& values, Nulls nulls = {}) : size_(std::size(values)), nulls_(nulls) {
    if constexpr (RangeOf<Range, std::int64_t>) {
      type_ = QX_INTEGER;
      values_.integers = std::data(values);
    } else if constexpr (RangeOf<Range, double>) {
      type_ = QX_REAL;
      values_.reals = std::data(values);
    } else if constexpr (RangeOf<Range, std::uint8_t>) {
      type_ = QX_BOOLEAN;
      values_.booleans = std::data(values);
    } else {
      type_ = QX_TEXT;
      texts_ = text_pointers(values);
    }
  }

  bool fits(std::int32_t type, std::size_t rows) const {
    const bool has_nulls = nulls_.empty() || nulls_.size() == rows;
    return type_ == kAllNull || (type_ == type && size_ == rows && has_nulls);
  }
  QxValues get() const {
    QxValues values = values_;
    values.texts = texts_.data();
    values.nulls = nulls_.data();
    return values;
  }

 private:
  static constexpr std::int32_t kAllNull = -1;

  std::int32_t type_ = kAllNull;
  QxValues values_ = {};
  std::vector<QxText> texts_;
  std::size_t size_ = 0;
  Nulls nulls_;
};

// done of total; true cancels the work.
using ProgressCallback = std::function<bool(std::int64_t done, std::int64_t total)>;
// Only one of the two is the id; called on any thread.
using AcceptCallback = std::function<bool(std::int64_t id, std::string_view text)>;

enum class Metric : std::int32_t {
  kInnerProduct = QX_INNER_PRODUCT,
  kCosine = QX_COSINE,
  kEuclidean = QX_EUCLIDEAN,
};

struct CollectionOptions {
  std::int32_t dim = 0;
  std::int32_t id_kind = QX_NUMBERS;
  std::vector<QxColumn> columns = {};
  std::int32_t threads = 0;
  std::int64_t memory_limit = 0;
  bool manual = false;
  Metric metric = Metric::kInnerProduct;

  QxOptions get() const {
    return {dim,     id_kind,      columns.data(), static_cast<std::int32_t>(columns.size()),
            threads, memory_limit, manual ? 1 : 0, static_cast<std::int32_t>(metric)};
  }
};

struct CollectionSearch {
  std::string filter = {};  // empty: every row passes
  std::optional<Ids> among = {};
  AcceptCallback accept = {};
  ProgressCallback progress = {};
  std::int32_t threads = 0;
  std::int32_t probes = 0;
};

// ---- What calls give ----

template <auto kFree>
struct FreedBy {
  void operator()(auto* owned) const { kFree(owned); }
};

// What a call gave out, and the items that point into it.
template <typename Item, typename C, auto kFree>
class Results {
 public:
  explicit Results(C* owned) : owned_(owned), items_(Item::of(*owned)) {}
  std::size_t size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  const auto& operator[](std::size_t i) const { return items_[i]; }
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }

 private:
  std::unique_ptr<C, FreedBy<kFree>> owned_;
  decltype(Item::of(std::declval<C&>())) items_;
};

inline std::string_view text_at(const QxText* texts, std::size_t at) {
  if (texts == nullptr) return {};
  return {texts[at].data, static_cast<std::size_t>(texts[at].size)};
}

// One of id and text is the id; the other is 0 or empty.
struct CollectionHit {
  std::int64_t id;
  std::string_view text;
  float score;
  friend bool operator==(const CollectionHit&, const CollectionHit&) = default;

  // Of each query, best first.
  static std::vector<std::vector<CollectionHit>> of(const QxHits& hits) {
    std::vector<std::vector<CollectionHit>> all(static_cast<std::size_t>(hits.n_queries));
    for (std::size_t q = 0; q < all.size(); ++q) {
      const std::size_t first = q * static_cast<std::size_t>(hits.k);
      const std::size_t end = first + static_cast<std::size_t>(hits.counts[q]);
      all[q].reserve(end - first);
      for (std::size_t at = first; at < end; ++at) {
        all[q].push_back(
            {hits.ids == nullptr ? 0 : hits.ids[at], text_at(hits.texts, at), hits.scores[at]});
      }
    }
    return all;
  }
};
using CollectionHits = Results<CollectionHit, QxHits, qx_hits_free>;

// NULL, or a value of the column's type.
using Value = std::variant<std::monostate, std::int64_t, double, bool, std::string_view>;

struct CollectionRow {
  std::int64_t id;
  std::string_view text;
  bool found;
  std::span<const float> vector;
  std::vector<Value> values;

  static std::vector<CollectionRow> of(const QxRows& rows) {
    std::vector<CollectionRow> all;
    const auto dim = static_cast<std::size_t>(rows.dim);
    for (std::size_t i = 0; i < static_cast<std::size_t>(rows.count); ++i) {
      all.push_back({rows.ids == nullptr ? 0 : rows.ids[i],
                     text_at(rows.texts, i),
                     rows.found[i] != 0,
                     {rows.vectors + i * dim, dim},
                     {}});
      for (std::int32_t c = 0; c < rows.n_columns; ++c) {
        all[i].values.push_back(value(rows.columns[c], i));
      }
    }
    return all;
  }

 private:
  static Value value(const QxValues& column, std::size_t i) {
    if (column.nulls[i] != 0) return {};
    if (column.integers != nullptr) return column.integers[i];
    if (column.reals != nullptr) return column.reals[i];
    if (column.booleans != nullptr) return column.booleans[i] != 0;
    return text_at(column.texts, i);
  }
};
using CollectionRows = Results<CollectionRow, QxRows, qx_rows_free>;

// ---- Calls ----

// Keeps what a callback throws, so that it passes no C, and cancels the call.
class Callbacks {
 public:
  explicit Callbacks(const ProgressCallback& on_progress, const AcceptCallback& on_accept = {})
      : progress(on_progress || on_accept ? &report : nullptr),
        accept(on_accept ? &pass : nullptr),
        progress_(on_progress),
        accept_(on_accept) {}
  Callbacks(const Callbacks&) = delete;

  void rethrow() const {
    if (thrown_) std::rethrow_exception(thrown_);
  }

  const QxProgress progress;
  const decltype(QxSearch::accept) accept;

 private:
  template <typename Call>
  std::int32_t call(Call body) noexcept try {
    return body() ? 1 : 0;
  } catch (...) {
    if (!has_thrown_.exchange(true)) thrown_ = std::current_exception();
    return 0;
  }
  static std::int32_t report(void* context, std::int64_t done, std::int64_t total) {
    auto& self = *static_cast<Callbacks*>(context);
    const auto report = [&] { return self.progress_ && self.progress_(done, total); };
    return self.has_thrown_ || self.call(report) != 0 || self.has_thrown_ ? 1 : 0;
  }
  static std::int32_t pass(void* context, std::int64_t id, const QxText* text) {
    auto& self = *static_cast<Callbacks*>(context);
    return self.call([&] { return self.accept_(id, text_at(text, 0)); });
  }

  const ProgressCallback progress_;
  const AcceptCallback accept_;
  std::atomic<bool> has_thrown_ = false;
  std::exception_ptr thrown_;
};

// What a collection and a view have in common: the current rows, or those of the view.
class RowSet {
 public:
  using InvalidArgument = CollectionErrorOf<QX_INVALID>;
  using Cancelled = CollectionErrorOf<QX_CANCELLED>;
  using IoError = CollectionErrorOf<QX_IO_ERROR>;
  using CorruptFile = CollectionErrorOf<QX_CORRUPT>;

  std::int32_t dim() const { return schema().dim; }
  bool has_text_ids() const { return schema().id_kind == QX_TEXTS; }
  Metric metric() const { return Metric{schema().metric}; }
  std::span<const QxColumn> columns() const {
    return {schema().columns, static_cast<std::size_t>(schema().n_columns)};
  }
  std::int64_t size() const { return qx_collection_count(handle(), view_.get()); }

  // Values of each column, or none: every value is NULL.
  void upsert(const Ids& ids, std::span<const float> vectors,
              std::initializer_list<Values> values = {}) {
    upsert(ids, vectors, std::span(values.begin(), values.size()));
  }
  void upsert(const Ids& ids, std::span<const float> vectors, std::span<const Values> values) {
    require(rows_of(vectors) == ids.size(), "there are not as many vectors as ids");
    require(values.empty() || values.size() == columns().size(), "a column has no values");
    std::vector<QxValues> pointers;
    for (const Values& column : values) {
      const QxColumn& of = columns()[pointers.size()];
      if (!column.fits(of.type, ids.size())) {
        throw InvalidArgument(std::string("values of column ") + of.name +
                              " are of another type, or not as many as ids");
      }
      pointers.push_back(column.get());
    }
    const QxValues* const given = pointers.empty() ? nullptr : pointers.data();
    check(view_ ? qx_view_upsert(view_.get(), ids.get(), vectors.data(), given)
                : qx_collection_upsert(handle(), ids.get(), vectors.data(), given));
  }

  std::int64_t remove(const Ids& ids) {
    std::int64_t removed = 0;
    check(view_ ? qx_view_remove(view_.get(), ids.get(), &removed)
                : qx_collection_remove(handle(), ids.get(), &removed));
    return removed;
  }

  // Queries are one after the other, dim floats each.
  CollectionHits search(std::span<const float> queries, std::int64_t k,
                        const CollectionSearch& search = {}) const {
    const auto n = static_cast<std::int64_t>(rows_of(queries));
    return given<CollectionHits, QxHits*>(search, [&](const QxSearch& c, QxHits** out) {
      return qx_collection_search(handle(), view_.get(), queries.data(), n, k, &c, out);
    });
  }

  std::string explain(const CollectionSearch& search = {}) const {
    return given<OwnedText, char*>(search,
                                   [&](const QxSearch& c, char** out) {
                                     return qx_collection_explain(handle(), view_.get(), &c, out);
                                   })
        .text;
  }

  CollectionRows get(const Ids& ids) const {
    QxRows* rows = nullptr;
    check(qx_collection_get(handle(), view_.get(), ids.get(), &rows));
    return CollectionRows(rows);
  }

  // 1 for each id that has a row, else 0.
  std::vector<std::uint8_t> contains(const Ids& ids) const {
    std::vector<std::uint8_t> found(ids.size());
    check(qx_collection_contains(handle(), view_.get(), ids.get(), found.data()));
    return found;
  }

  CollectionRows list(const std::string& filter = {}, const Ids& after = {},
                      std::int64_t most = INT64_MAX) const {
    QxRows* rows = nullptr;
    const char* const given = filter.empty() ? nullptr : c_text(filter);
    check(qx_collection_list(handle(), view_.get(), given, after.get(), most, &rows));
    return CollectionRows(rows);
  }

  void save(const std::string& path, const ProgressCallback& on_progress = {}) const {
    Callbacks host(on_progress);
    check(qx_collection_save(handle(), view_.get(), c_text(path), host.progress, &host), host);
  }

 protected:
  explicit RowSet(std::shared_ptr<QxCollection> collection, QxView* view = nullptr)
      : collection_(std::move(collection)), view_(view) {}
  RowSet(RowSet&&) = default;
  RowSet& operator=(RowSet&& other) noexcept {
    view_ = std::move(other.view_);  // first, since a view needs its collection to the end
    collection_ = std::move(other.collection_);
    return *this;
  }
  ~RowSet() = default;

  QxCollection* handle() const {
    require(collection_ != nullptr, "the collection or view was moved from");
    return collection_.get();
  }

  // Throws what the host's callbacks threw, or by the status.
  static void check(std::int32_t status, const Callbacks& host) {
    host.rethrow();
    check(status);
  }
  static void check(std::int32_t status) {
    if (status == QX_OK) return;
    if (status == QX_OUT_OF_MEMORY) throw std::bad_alloc();
    const char* const message = qx_collection_message();
    if (status == QX_CANCELLED) throw Cancelled(message);
    if (status == QX_IO_ERROR) throw IoError(message);
    if (status == QX_CORRUPT) throw CorruptFile(message);
    throw InvalidArgument(message);
  }
  static void require(bool condition, const char* message) {
    if (!condition) throw InvalidArgument(message);
  }
  static const char* c_text(const std::string& text) {
    require(text.find('\0') == std::string::npos, "a text holds a zero byte");
    return text.c_str();
  }

  std::size_t rows_of(std::span<const float> matrix) const {
    const auto width = static_cast<std::size_t>(dim());
    require(matrix.size() % width == 0, "the number of floats is no multiple of dim");
    return matrix.size() / width;
  }

  // What a call with a search gives out.
  template <typename Owner, typename Out, typename Call>
  static Owner given(const CollectionSearch& search, Call call) {
    Callbacks host(search.progress, search.accept);
    const QxIds among = search.among ? search.among->get() : QxIds{};
    QxSearch c = {};
    if (!search.filter.empty()) c.filter = c_text(search.filter);
    if (search.among) c.among = &among;
    c.accept = host.accept;
    c.progress = host.progress;
    c.accept_context = c.progress_context = &host;
    c.threads = search.threads;
    c.probes = search.probes;
    Out out = {};
    if (const std::int32_t status = call(c, &out); status != QX_OK) check(status, host);
    Owner owner(out);
    host.rethrow();  // what a row was refused for
    return owner;
  }

  std::shared_ptr<QxCollection> collection_;

 private:
  QxOptions schema() const {
    QxOptions schema;
    qx_collection_schema(handle(), &schema);
    return schema;
  }
  struct OwnedText {
    explicit OwnedText(char* owned)
        : text(std::unique_ptr<char, FreedBy<qx_text_free>>(owned).get()) {}
    std::string text;
  };

  std::unique_ptr<QxView, FreedBy<qx_view_free>> view_;
};

// Used by one thread at a time.
class View : public RowSet {
 private:
  friend class Collection;
  using RowSet::RowSet;
};

class Collection : public RowSet {
 public:
  explicit Collection(const CollectionOptions& options)
      : RowSet(made(Callbacks({}), [&](QxCollection** out) {
          const QxOptions c = options.get();
          return qx_collection_new(&c, out);
        })) {}

  // Of the options threads, memory_limit and manual count.
  static Collection load(const std::string& path, const CollectionOptions& options = {},
                         const ProgressCallback& on_progress = {}) {
    Callbacks host(on_progress);
    return Collection(made(host, [&](QxCollection** out) {
      const QxOptions c = options.get();
      return qx_collection_load(c_text(path), &c, host.progress, &host, out);
    }));
  }

  void compact(const ProgressCallback& on_progress = {}) {
    Callbacks host(on_progress);
    check(qx_collection_compact(handle(), host.progress, &host), host);
  }

  void train(std::int64_t n_lists, const ProgressCallback& on_progress = {}) {
    Callbacks host(on_progress);
    check(qx_collection_train(handle(), n_lists, host.progress, &host), host);
  }

  // Queries as a search has them; none: rows of the collection are taken.
  QxTuning tune(std::int64_t k, double recall, std::span<const float> queries = {},
                const CollectionSearch& search = {}) const {
    const auto n = static_cast<std::int64_t>(rows_of(queries));
    return given<QxTuning, QxTuning>(search, [&](const QxSearch& c, QxTuning* out) {
      const float* const rows = queries.empty() ? nullptr : queries.data();
      return qx_collection_tune(handle(), rows, n, k, recall, &c, out);
    });
  }

  // A view of the current rows.
  View view() const {
    QxView* out = nullptr;
    check(qx_view_new(handle(), &out));
    return View(collection_, out);
  }

  QxCollectionStats stats() const {
    QxCollectionStats stats;
    qx_collection_stats(handle(), &stats);
    return stats;
  }

 private:
  using RowSet::RowSet;

  template <typename Call>
  static std::shared_ptr<QxCollection> made(const Callbacks& host, Call call) {
    QxCollection* out = nullptr;
    check(call(&out), host);
    return {out, qx_collection_free};
  }
};

}  // namespace collection_api
}  // namespace qx

#endif
