// qx_collection for C++20: collections that own themselves, spans in, results as ranges.
//
// What calls do is said in qx_collection.h; each has the name of its function there. A Collection
// has numbers as ids, a TextCollection texts. A call that is refused throws and changes nothing:
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
//   for (const auto& [id, score] : words.search(query, 10, {.filter = "label = 3"})) {
//     use(id, score);
//   }
//
// A collection stays until its views are gone too. Results are random access ranges that own their
// memory: texts and spans that they give are valid while they live, also after a move. Their
// operator[] does not check its position. One that was moved from may only be assigned to or
// destroyed; a collection or view then throws InvalidArgument.
#pragma once

#if __cplusplus < 202002L && !(defined(_MSVC_LANG) && _MSVC_LANG >= 202002L)
#error "qx_collection.hpp needs C++20"
#else

#include <qx_collection.h>

#include <algorithm>
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

template <typename T>
concept AnyId = std::same_as<T, std::int64_t> || std::same_as<T, std::string_view>;

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

// Of a vector, an array or a span, which must stay, or listed in braces.
template <AnyId Id>
class Ids {
 public:
  Ids() = default;
  Ids(std::initializer_list<Id> ids) : listed_(ids.begin(), ids.end()) {}
  template <RangeOf<std::int64_t> Range>
  Ids(const Range& numbers) : given_(numbers) {}

  std::size_t size() const { return given_.size() + listed_.size(); }
  QxIds get() const {
    const std::int64_t* const numbers = listed_.empty() ? given_.data() : listed_.data();
    return {static_cast<std::int64_t>(size()), numbers, nullptr};
  }

 private:
  std::span<const std::int64_t> given_;
  std::vector<std::int64_t> listed_;
};

template <>
class Ids<std::string_view> {
 public:
  Ids() = default;
  Ids(std::initializer_list<std::string_view> texts) : texts_(text_pointers(texts)) {}
  template <Texts Range>
  Ids(const Range& texts) : texts_(text_pointers(texts)) {}

  std::size_t size() const { return texts_.size(); }
  QxIds get() const { return {std::ssize(texts_), nullptr, texts_.data()}; }

 private:
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

// Values of each column, or none at all, if every value is NULL.
inline std::vector<QxValues> value_pointers(std::span<const Values> values,
                                            std::span<const QxColumn> columns, std::size_t rows) {
  using InvalidArgument = CollectionErrorOf<QX_INVALID>;
  if (!values.empty() && values.size() != columns.size()) {
    throw InvalidArgument("a column has no values");
  }
  std::vector<QxValues> pointers;
  for (const Values& column : values) {
    const QxColumn& of = columns[pointers.size()];
    if (!column.fits(of.type, rows)) {
      throw InvalidArgument(std::string("values of column ") + of.name +
                            " are of another type, or not as many as ids");
    }
    pointers.push_back(column.get());
  }
  return pointers;
}

// done of total; true cancels the work.
using ProgressCallback = std::function<bool(std::int64_t done, std::int64_t total)>;
// Called on any thread.
template <AnyId Id>
using AcceptCallback = std::function<bool(Id id)>;

enum class Metric : std::int32_t {
  kInnerProduct = QX_INNER_PRODUCT,
  kCosine = QX_COSINE,
  kEuclidean = QX_EUCLIDEAN,
};

struct CollectionOptions {
  std::int32_t dim = 0;
  std::vector<QxColumn> columns = {};
  Metric metric = Metric::kInnerProduct;
  std::int32_t threads = 0;
  std::int64_t memory_limit = 0;
  bool manual = false;

  QxOptions get(std::int32_t id_kind) const {
    QxOptions c = {};
    c.dim = dim;
    c.id_kind = id_kind;
    c.columns = columns.data();
    c.n_columns = static_cast<std::int32_t>(columns.size());
    c.threads = threads;
    c.memory_limit = memory_limit;
    c.manual = manual ? 1 : 0;
    c.metric = static_cast<std::int32_t>(metric);
    return c;
  }
};

// Writes the vectors of rows, dim floats each, in the order of their ids.
using FillCallback = std::function<void(std::span<float> vectors)>;

// Lists, and of each of some ids the number of its list.
struct CollectionLists {
  std::vector<float> centroids;  // dim floats each
  std::vector<std::uint32_t> of_rows;
};

template <AnyId Id>
struct CollectionSearch {
  std::string filter = {};  // empty: every row passes
  std::optional<Ids<Id>> among = {};
  AcceptCallback<Id> accept = {};
  ProgressCallback progress = {};
  std::int32_t threads = 0;
  std::int32_t probes = 0;
  std::optional<float> limit = {};
};

// ---- What calls give ----

struct Free {
  void operator()(QxCollection* owned) const { qx_collection_free(owned); }
  void operator()(QxView* owned) const { qx_view_free(owned); }
  void operator()(QxHits* owned) const { qx_hits_free(owned); }
  void operator()(QxRows* owned) const { qx_rows_free(owned); }
  void operator()(char* owned) const { qx_text_free(owned); }
};
template <typename C>
using Owned = std::unique_ptr<C, Free>;

// What a call gave out, and the items that point into it.
template <typename Item, typename Owner>
class Results {
 public:
  using value_type = Item;
  using const_iterator = typename std::vector<Item>::const_iterator;
  using iterator = const_iterator;
  using size_type = std::size_t;

  Results(Owner owner, std::vector<Item> items)
      : owner_(std::move(owner)), items_(std::move(items)) {}
  size_type size() const { return items_.size(); }
  bool empty() const { return items_.empty(); }
  const Item& operator[](size_type i) const { return items_[i]; }
  const Item& front() const { return items_.front(); }
  const Item& back() const { return items_.back(); }
  const Item* data() const { return items_.data(); }
  const_iterator begin() const { return items_.begin(); }
  const_iterator end() const { return items_.end(); }

 private:
  Owner owner_;
  std::vector<Item> items_;
};

template <AnyId Id>
Id id_at(const std::int64_t* numbers, const QxText* texts, std::size_t at) {
  if constexpr (std::same_as<Id, std::int64_t>) {
    return numbers[at];
  } else {
    return {texts[at].data, static_cast<std::size_t>(texts[at].size)};
  }
}

template <AnyId Id>
struct CollectionHit {
  Id id;
  float score;
  friend bool operator==(const CollectionHit&, const CollectionHit&) = default;
};
// The hits of a query, the best first; and of many queries, a span of hits for each.
template <AnyId Id>
using CollectionHits = Results<CollectionHit<Id>, Owned<QxHits>>;
template <AnyId Id>
using CollectionHitsOfEach = Results<std::span<const CollectionHit<Id>>, CollectionHits<Id>>;

template <AnyId Id>
CollectionHits<Id> hits_of(Owned<QxHits> hits) {
  std::vector<CollectionHit<Id>> all;
  for (std::int64_t q = 0; q < hits->n_queries; ++q) {
    const auto first = static_cast<std::size_t>(q * hits->k);
    const auto end = first + static_cast<std::size_t>(hits->counts[q]);
    for (std::size_t at = first; at < end; ++at) {
      all.push_back({id_at<Id>(hits->ids, hits->texts, at), hits->scores[at]});
    }
  }
  return {std::move(hits), std::move(all)};
}

// NULL, or a value of the column's type.
using Value = std::variant<std::monostate, std::int64_t, double, bool, std::string_view>;

inline Value value_at(const QxValues& column, std::size_t i) {
  if (column.nulls[i] != 0) return {};
  if (column.integers != nullptr) return column.integers[i];
  if (column.reals != nullptr) return column.reals[i];
  if (column.booleans != nullptr) return column.booleans[i] != 0;
  return id_at<std::string_view>(nullptr, column.texts, i);
}

template <AnyId Id>
struct CollectionRow {
  Id id;
  bool found;
  std::span<const float> vector;
  std::vector<Value> values;
};
template <AnyId Id>
using CollectionRows = Results<CollectionRow<Id>, Owned<QxRows>>;

template <AnyId Id>
CollectionRows<Id> rows_of(Owned<QxRows> rows) {
  std::vector<CollectionRow<Id>> all;
  const auto dim = static_cast<std::size_t>(rows->dim);
  for (std::size_t i = 0; i < static_cast<std::size_t>(rows->count); ++i) {
    const Id id = id_at<Id>(rows->ids, rows->texts, i);
    all.push_back({id, rows->found[i] != 0, {rows->vectors + i * dim, dim}, {}});
    for (std::int32_t c = 0; c < rows->n_columns; ++c) {
      all[i].values.push_back(value_at(rows->columns[c], i));
    }
  }
  return {std::move(rows), std::move(all)};
}

// ---- Calls ----

// Keeps what a callback throws, so that it passes no C, and cancels the call.
template <AnyId Id>
class Callbacks {
 public:
  explicit Callbacks(const ProgressCallback& on_progress = {},
                     const AcceptCallback<Id>& on_accept = {})
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
    return self.call([&] { return self.accept_(id_at<Id>(&id, text, 0)); });
  }

  const ProgressCallback progress_;
  const AcceptCallback<Id> accept_;
  std::atomic<bool> has_thrown_ = false;
  std::exception_ptr thrown_;
};

// What a collection and a view have in common: the current rows, or those of the view.
template <AnyId Id>
class RowSet {
 public:
  using InvalidArgument = CollectionErrorOf<QX_INVALID>;
  using Cancelled = CollectionErrorOf<QX_CANCELLED>;
  using IoError = CollectionErrorOf<QX_IO_ERROR>;
  using CorruptFile = CollectionErrorOf<QX_CORRUPT>;
  using Ids = collection_api::Ids<Id>;
  using Search = CollectionSearch<Id>;
  using Hit = CollectionHit<Id>;
  using Hits = CollectionHits<Id>;
  using HitsOfEach = CollectionHitsOfEach<Id>;
  using Row = CollectionRow<Id>;
  using Rows = CollectionRows<Id>;

  std::int32_t dim() const { return schema().dim; }
  Metric metric() const { return Metric{schema().metric}; }
  std::span<const QxColumn> columns() const {
    return {schema().columns, static_cast<std::size_t>(schema().n_columns)};
  }
  std::size_t size() const {
    return static_cast<std::size_t>(qx_collection_count(handle(), view_.get()));
  }
  bool empty() const { return size() == 0; }

  // Values of each column, or none: every value is NULL.
  void upsert(const Ids& ids, std::span<const float> vectors,
              std::initializer_list<Values> values = {}) {
    upsert(ids, vectors, std::span(values.begin(), values.size()));
  }
  void upsert(const Ids& ids, std::span<const float> vectors, std::span<const Values> values) {
    require(rows_in(vectors) == ids.size(), "there are not as many vectors as ids");
    const std::vector<QxValues> pointers = value_pointers(values, columns(), ids.size());
    const QxValues* const given = pointers.empty() ? nullptr : pointers.data();
    check(view_ ? qx_view_upsert(view_.get(), ids.get(), vectors.data(), given)
                : qx_collection_upsert(handle(), ids.get(), vectors.data(), given));
  }

  std::size_t remove(const Ids& ids) {
    std::int64_t removed = 0;
    check(view_ ? qx_view_remove(view_.get(), ids.get(), &removed)
                : qx_collection_remove(handle(), ids.get(), &removed));
    return static_cast<std::size_t>(removed);
  }

  Hits search(std::span<const float> query, std::int64_t k, const Search& search = {}) const {
    require(rows_in(query) == 1, "the query has not dim floats");
    return hits_of<Id>(searched(query, k, search));
  }
  // Queries are one after the other, dim floats each.
  HitsOfEach search_each(std::span<const float> queries, std::int64_t k,
                         const Search& search = {}) const {
    Owned<QxHits> found = searched(queries, k, search);
    const std::span counts(found->counts, rows_in(queries));
    Hits hits = hits_of<Id>(std::move(found));  // it keeps the counts
    std::vector<std::span<const Hit>> each;
    const Hit* next = hits.data();
    for (const std::int64_t count : counts) {
      each.emplace_back(next, static_cast<std::size_t>(count));
      next += count;
    }
    return {std::move(hits), std::move(each)};
  }

  std::string explain(const Search& search = {}) const {
    Given given(search);
    return taken<char>(given.host,
                       [&](char** out) {
                         return qx_collection_explain(handle(), view_.get(), &given.c, out);
                       })
        .get();
  }

  Rows get(const Ids& ids) const {
    return rows_of<Id>(taken<QxRows>(Callbacks<Id>(), [&](QxRows** out) {
      return qx_collection_get(handle(), view_.get(), ids.get(), out);
    }));
  }

  // 1 for each id that has a row, else 0.
  std::vector<std::uint8_t> contains(const Ids& ids) const {
    std::vector<std::uint8_t> found(ids.size());
    check(qx_collection_contains(handle(), view_.get(), ids.get(), found.data()));
    return found;
  }

  Rows list(const std::string& filter = {}, const Ids& after = {},
            std::int64_t most = INT64_MAX) const {
    const char* const given = filter.empty() ? nullptr : c_text(filter);
    return rows_of<Id>(taken<QxRows>(Callbacks<Id>(), [&](QxRows** out) {
      return qx_collection_list(handle(), view_.get(), given, after.get(), most, out);
    }));
  }

  void save(const std::string& path, const ProgressCallback& on_progress = {}) const {
    Callbacks<Id> host(on_progress);
    check(qx_collection_save(handle(), view_.get(), c_text(path), host.progress, &host), host);
  }

 protected:
  static constexpr std::int32_t kIdKind = std::same_as<Id, std::int64_t> ? QX_NUMBERS : QX_TEXTS;

  explicit RowSet(std::shared_ptr<QxCollection> collection, Owned<QxView> view = nullptr)
      : collection_(std::move(collection)), view_(std::move(view)) {}
  RowSet(RowSet&&) noexcept = default;
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
  QxOptions schema() const {
    QxOptions schema;
    qx_collection_schema(handle(), &schema);
    return schema;
  }
  std::size_t rows_in(std::span<const float> matrix) const {
    const auto width = static_cast<std::size_t>(dim());
    require(matrix.size() % width == 0, "the number of floats is no multiple of dim");
    return matrix.size() / width;
  }

  // Throws what the host's callbacks threw, or by the status.
  static void check(std::int32_t status, const Callbacks<Id>& host = Callbacks<Id>()) {
    host.rethrow();
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

  // What a call gives out.
  template <typename C, typename Call>
  static Owned<C> taken(const Callbacks<Id>& host, Call call) {
    C* out = nullptr;
    const std::int32_t status = call(&out);
    Owned<C> owned(out);
    check(status, host);
    return owned;
  }

  // A search for the C interface; valid while the search is.
  struct Given {
    explicit Given(const Search& search) : host(search.progress, search.accept) {
      if (!search.filter.empty()) c.filter = c_text(search.filter);
      if (search.among) {
        among = search.among->get();
        c.among = &among;
      }
      c.accept = host.accept;
      c.progress = host.progress;
      c.accept_context = c.progress_context = &host;
      c.threads = search.threads;
      c.probes = search.probes;
      c.limit = search.limit ? &*search.limit : nullptr;
    }
    Callbacks<Id> host;
    QxIds among = {};
    QxSearch c = {};
  };

  std::shared_ptr<QxCollection> collection_;

 private:
  Owned<QxHits> searched(std::span<const float> queries, std::int64_t k,
                         const Search& search) const {
    const auto n = static_cast<std::int64_t>(rows_in(queries));
    Given given(search);
    return taken<QxHits>(given.host, [&](QxHits** out) {
      return qx_collection_search(handle(), view_.get(), queries.data(), n, k, &given.c, out);
    });
  }

  Owned<QxView> view_;
};

// Used by one thread at a time.
template <AnyId Id>
class BasicView : public RowSet<Id> {
 private:
  template <AnyId>
  friend class BasicCollection;
  using RowSet<Id>::RowSet;
};

template <AnyId Id>
class BasicCollection : public RowSet<Id> {
  using Base = RowSet<Id>;

 public:
  using View = BasicView<Id>;
  using typename Base::Ids;
  using typename Base::Search;

  explicit BasicCollection(const CollectionOptions& options)
      : Base(Base::template taken<QxCollection>(Callbacks<Id>(), [&](QxCollection** out) {
          const QxOptions c = options.get(Base::kIdKind);
          return qx_collection_new(&c, out);
        })) {}

  // With rows, of which `fill` writes the vectors where they stay. The ids ascend.
  static BasicCollection build(const CollectionOptions& options, const Ids& ids,
                               const FillCallback& fill, std::span<const Values> values = {},
                               const std::optional<CollectionLists>& lists = {}) {
    const QxOptions c = options.get(Base::kIdKind);
    const std::vector<QxValues> pointers = value_pointers(values, options.columns, ids.size());
    QxLists given = {};
    if (lists) {
      Base::require(lists->of_rows.size() == ids.size(), "there are not as many lists as ids");
      given = {static_cast<std::int64_t>(lists->centroids.size()) / std::max(c.dim, 1),
               lists->centroids.data(), lists->of_rows.data()};
    }
    struct Filling {
      const FillCallback& fill;
      std::size_t floats;
      std::exception_ptr thrown;
    } filling = {fill, ids.size() * static_cast<std::size_t>(std::max(c.dim, 0)), nullptr};
    // All rows at the first call.
    const QxFill write = [](void* context, std::int64_t first, std::int64_t,
                            float* vectors) -> std::int32_t {
      auto& to = *static_cast<Filling*>(context);
      try {
        if (first == 0) to.fill({vectors, to.floats});
        return 0;
      } catch (...) {
        to.thrown = std::current_exception();
        return 1;
      }
    };
    QxCollection* out = nullptr;
    const std::int32_t status =
        qx_collection_build(&c, ids.get(), pointers.empty() ? nullptr : pointers.data(),
                            lists ? &given : nullptr, write, &filling, &out);
    std::shared_ptr<QxCollection> built = Owned<QxCollection>(out);
    if (filling.thrown) std::rethrow_exception(filling.thrown);
    Base::check(status);
    return BasicCollection(std::move(built));
  }

  // Of the options threads, memory_limit and manual count.
  static BasicCollection load(const std::string& path, const CollectionOptions& options = {},
                              const ProgressCallback& on_progress = {}) {
    Callbacks<Id> host(on_progress);
    const QxOptions c = options.get(Base::kIdKind);
    BasicCollection loaded(Base::template taken<QxCollection>(host, [&](QxCollection** out) {
      return qx_collection_load(Base::c_text(path), &c, host.progress, &host, out);
    }));
    Base::require(loaded.schema().id_kind == Base::kIdKind, "the file has ids of the other kind");
    return loaded;
  }

  void compact(const ProgressCallback& on_progress = {}) {
    Callbacks<Id> host(on_progress);
    Base::check(qx_collection_compact(this->handle(), host.progress, &host), host);
  }

  void train(std::int64_t n_lists, const ProgressCallback& on_progress = {}) {
    Callbacks<Id> host(on_progress);
    Base::check(qx_collection_train(this->handle(), n_lists, host.progress, &host), host);
  }

  // What build() takes of the lists; QX_NO_LIST for an id that has no row.
  CollectionLists lists(const Ids& ids) const {
    const std::int64_t count = stats().lists;
    CollectionLists lists;
    lists.centroids.resize(static_cast<std::size_t>(count * this->dim()));
    lists.of_rows.resize(ids.size());
    Base::check(qx_collection_lists(this->handle(), ids.get(), count, lists.centroids.data(),
                                    lists.of_rows.data()));
    return lists;
  }

  // Without queries, rows of the collection are taken.
  QxTuning tune(std::int64_t k, double recall, std::span<const float> queries = {},
                const Search& search = {}) const {
    const auto n = static_cast<std::int64_t>(this->rows_in(queries));
    typename Base::Given given(search);
    QxTuning tuning;
    Base::check(qx_collection_tune(this->handle(), n == 0 ? nullptr : queries.data(), n, k, recall,
                                   &given.c, &tuning),
                given.host);
    return tuning;
  }

  // A view of the current rows.
  View view() const {
    return View(this->collection_, Base::template taken<QxView>(Callbacks<Id>(), [&](QxView** out) {
                  return qx_view_new(this->handle(), out);
                }));
  }

  QxCollectionStats stats() const {
    QxCollectionStats stats;
    qx_collection_stats(this->handle(), &stats);
    return stats;
  }

 private:
  using Base::Base;
};

using Collection = BasicCollection<std::int64_t>;
using TextCollection = BasicCollection<std::string_view>;
using View = BasicView<std::int64_t>;
using TextView = BasicView<std::string_view>;

}  // namespace collection_api
}  // namespace qx

#endif
