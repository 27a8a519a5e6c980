// qx_runtime for C++20: an index that owns itself, spans in, results that own their memory.
//
// Every size, dimension and offset is checked before the engine is called, and the memory that a
// call needs is allocated once as a trial, since the engine ends the process where it cannot
// allocate. A call that is refused throws, with a message, and changes nothing:
//
//   qx::InvalidArgument  an argument that does not fit the index or the other arguments
//   qx::LogicError       a call that the index cannot take now: it was moved from, or is sealed
//   std::bad_alloc       memory that is not there
//
// So no argument ends the process, unless memory is lost between the trial and the use, as on a
// machine that overcommits. Trials are larger than needed: a call that needs half of what is left
// may be refused though it would have succeeded. What the calls do is said in qx_runtime.h; each
// has the name of its function there. Nothing is converted: floats may be NaN or infinite, and
// scores are the engine's, to the bit.
//
// An index that was moved from throws qx::LogicError from all but dim and columns, which are 0, and
// can be assigned to. The accessors of results (operator[], vector) do not check their positions.
//
//   qx::Index index(100);
//   index.build(vectors, ids);
//   for (const qx::Hit hit : index.search_full(query, 10)) use(hit.id, hit.score);
//
// One thread at a time may use an Index; distinct ones share nothing.
#pragma once

#include <qx_runtime.h>

#include <bit>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <new>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

namespace qx {
// Of its own, since the static library has names in qx too.
inline namespace cpp {

class InvalidArgument : public std::invalid_argument {
 public:
  using std::invalid_argument::invalid_argument;
};

class LogicError : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

struct Hit {
  std::int64_t id;
  float score;
  friend bool operator==(const Hit&, const Hit&) = default;
};

// What a search found, best first.
struct Hits {
  std::vector<std::int64_t> ids;
  std::vector<float> scores;

  std::size_t size() const { return ids.size(); }
  bool empty() const { return ids.empty(); }
  Hit operator[](std::size_t i) const { return {ids[i], scores[i]}; }

  class Iterator {
   public:
    using value_type = Hit;
    using difference_type = std::ptrdiff_t;
    Iterator() = default;
    Iterator(const Hits* hits, std::size_t at) : hits_(hits), at_(at) {}
    Hit operator*() const { return (*hits_)[at_]; }
    Iterator& operator++() {
      ++at_;
      return *this;
    }
    Iterator operator++(int) { return {hits_, at_++}; }
    friend bool operator==(const Iterator&, const Iterator&) = default;

   private:
    const Hits* hits_ = nullptr;
    std::size_t at_ = 0;
  };
  Iterator begin() const { return {this, 0}; }
  Iterator end() const { return {this, size()}; }
};

// Ids and their vectors, dim floats each.
struct Rows {
  std::vector<std::int64_t> ids;
  std::vector<float> vectors;
  std::int32_t dim = 0;

  std::size_t size() const { return ids.size(); }
  std::span<const float> vector(std::size_t i) const {
    const auto width = static_cast<std::size_t>(dim);
    return std::span(vectors).subspan(i * width, width);
  }
};

struct RowMeta {
  std::vector<std::int64_t> labels;
  std::vector<std::int64_t> values;  // ncols for each id
  std::int32_t ncols = 0;
};

// Contiguous rows of the base.
struct Partition {
  std::int64_t key;
  std::int32_t start;
  std::int32_t size;
};

struct PartitionSize {
  std::int64_t key;
  std::int64_t size;
  friend bool operator==(const PartitionSize&, const PartitionSize&) = default;
};

// Bounds on how many distinct ids a table of the engine has, where the engine does not report it:
// exact for few of them, from a sample of their hashes for many.
class DistinctIds {
 public:
  void add(std::span<const std::int64_t> ids) {
    for (const std::int64_t id : ids) {
      const std::uint64_t hash = hash_of(id);
      if (!is_sampled(hash)) continue;
      sample_.insert(hash);
      if (sample_.size() > kMost) thin();
    }
  }
  double least() const { return level_ == 0 ? count() : count() * 0.75; }
  double most() const { return level_ == 0 ? count() : count() * 1.25; }

 private:
  static constexpr std::size_t kMost = 4096;  // a quarter is more than ten times the usual error

  static std::uint64_t hash_of(std::int64_t id) {
    std::uint64_t mixed = static_cast<std::uint64_t>(id) + 0x9E3779B97F4A7C15u;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9u;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBu;
    return mixed ^ (mixed >> 31);
  }
  bool is_sampled(std::uint64_t hash) const { return std::countr_zero(hash) >= level_; }
  double count() const {
    return static_cast<double>(sample_.size()) * static_cast<double>(std::uint64_t{1} << level_);
  }
  void thin() {
    ++level_;
    std::erase_if(sample_, [&](std::uint64_t hash) { return !is_sampled(hash); });
  }

  std::unordered_set<std::uint64_t> sample_;  // hashes that end in level_ zeros or more
  int level_ = 0;
};

// Which ids pass.
class Filter {
 public:
  static Filter all() { return {QX_FILTER_ALL, 0, 0}; }
  static Filter label(std::int64_t value) { return {QX_FILTER_LABEL, 0, value}; }
  static Filter column(std::int32_t column, std::int64_t value) {
    return {QX_FILTER_COLUMN, column, value};
  }

  // As qx_index_search_filtered takes them.
  std::uint32_t mode() const { return mode_; }
  std::int32_t column() const { return column_; }
  std::int64_t value() const { return value_; }

 private:
  Filter(std::uint32_t mode, std::int32_t column, std::int64_t value)
      : mode_(mode), column_(column), value_(value) {}

  std::uint32_t mode_;
  std::int32_t column_;
  std::int64_t value_;
};

class Index {
 public:
  using Ids = std::span<const std::int64_t>;
  using Floats = std::span<const float>;
  using IdSlots = std::span<std::int64_t>;
  using ScoreSlots = std::span<float>;

  explicit Index(std::int32_t dim, std::uint32_t user_tag = 0) : dim_(dim) {
    require(dim >= 1, [&] { return "the dimension is " + text(dim) + ", and must be 1 or more"; });
    require_memory(kSlack);
    handle_ = qx_index_new(static_cast<std::uint32_t>(dim), user_tag);
  }
  ~Index() { qx_index_free(handle_); }
  Index(Index&& other) noexcept { swap(other); }
  Index& operator=(Index&& other) noexcept {
    Index(std::move(other)).swap(*this);
    return *this;
  }
  Index(const Index&) = delete;
  Index& operator=(const Index&) = delete;

  void swap(Index& other) noexcept {
    std::swap(handle_, other.handle_);
    std::swap(dim_, other.dim_);
    std::swap(ncols_, other.ncols_);
    ivfs_.swap(other.ivfs_);
    std::swap(erased_, other.erased_);
    tables_.swap(other.tables_);
  }

  // The handle, for calls of the C interface that read; the index keeps it. What changes the index
  // goes through this class, whose checks must know of it.
  const QxIndex* handle() const { return open(); }

  // ---- Accessors ----

  std::int32_t dim() const { return dim_; }
  std::int64_t size() const { return static_cast<std::int64_t>(stats().n_base); }
  std::uint32_t user_tag() const { return stats().user_tag; }
  std::int32_t partitions() const { return stats().n_parts; }
  std::int32_t columns() const { return ncols_; }
  std::uint64_t snapshot() const { return qx_index_snapshot(open()); }
  bool mutated() const { return qx_index_mutated(open()) != 0; }
  bool sealed() const { return qx_index_sealed(open()) != 0; }
  std::int64_t delta_count() const { return qx_index_delta_count(open()); }

  // ---- The sealed base ----

  // Once only: a further build would keep the arrays of the first. Build a new index instead.
  void build(Floats vectors, Ids ids, std::span<const Partition> partitions = {}) {
    if (sealed()) throw LogicError("the index is sealed; build a new one");
    check_width("build: vectors", vectors, ids.size());
    std::int64_t largest = -1;
    std::size_t row = 0;
    for (const std::int64_t id : ids) {
      require(id >= 0 && id <= QX_MAX_BASE_ID,
              [&] { return "ids[" + text(row) + "] is " + text(id) + ", outside 0 to 2^40 - 1"; });
      largest = id > largest ? id : largest;
      ++row;
    }
    std::vector<std::int64_t> keys;
    std::vector<std::int32_t> starts;
    std::vector<std::int32_t> sizes;
    for (const Partition& part : partitions) {
      check_partition(part, keys, std::ssize(ids));
      keys.push_back(part.key);
      starts.push_back(part.start);
      sizes.push_back(part.size);
    }
    const std::int32_t parts = int32("the number of partitions", std::ssize(keys));
    require_memory(4.0 * static_cast<double>(vectors.size()) +
                   16.0 * static_cast<double>(ids.size()) + 8.0 * static_cast<double>(largest + 3) +
                   16.0 * parts + kSlack);
    const std::int32_t result =
        qx_index_build(open(), vectors.data(), std::ssize(ids), dim_, ids.data(), keys.data(),
                       starts.data(), sizes.data(), parts);
    require(result == 0, "the base is larger than 2^40 rows or floats");
  }

  Rows export_base() const {
    Rows rows = rows_of(size());
    qx_index_export_base(open(), rows.vectors.data(), rows.ids.data());
    return rows;
  }

  // ---- Searches of the sealed base ----
  //
  // Each comes in two forms: one gives Hits, as many as were found; the other fills the spans,
  // whose common size is k, and gives the number found. The slots after those are unspecified. The
  // spans must overlap neither each other nor what is given.

  Hits search_full(Floats query, std::int64_t k) const {
    return hits(k, size(), [&](auto... slots) { return search_full(query, slots...); });
  }
  std::size_t search_full(Floats query, IdSlots ids, ScoreSlots scores) const {
    return fill(query, ids, scores, {},
                [&](auto... rest) { return qx_index_search_full(open(), rest...); });
  }

  // A key that no partition has finds nothing.
  Hits search_partition(std::int64_t key, Floats query, std::int64_t k) const {
    return hits(k, size(), [&](auto... slots) { return search_partition(key, query, slots...); });
  }
  std::size_t search_partition(std::int64_t key, Floats query, IdSlots ids,
                               ScoreSlots scores) const {
    return fill(query, ids, scores, {},
                [&](auto... rest) { return qx_index_search_partition(open(), key, rest...); });
  }

  Hits scatter_topk(Ids candidates, Floats query, std::int64_t k) const {
    return hits(k, count_of(candidates),
                [&](auto... slots) { return scatter_topk(candidates, query, slots...); });
  }
  std::size_t scatter_topk(Ids candidates, Floats query, IdSlots ids, ScoreSlots scores) const {
    return fill(query, ids, scores, candidates, [&](auto... rest) {
      return qx_index_scatter_topk(open(), candidates.data(), count_of(candidates), rest...);
    });
  }

  // ---- Partitions, as a tuner sees them ----

  std::vector<PartitionSize> tuner_oversized(std::int32_t threshold) const {
    const auto most = static_cast<std::size_t>(partitions());
    std::vector<std::int64_t> keys(most);
    std::vector<std::int64_t> sizes(most);
    const auto count = static_cast<std::size_t>(
        qx_index_tuner_oversized(open(), threshold, keys.data(), sizes.data()));
    std::vector<PartitionSize> listed(count);
    for (std::size_t i = 0; i < count; ++i) listed[i] = {keys[i], sizes[i]};
    return listed;
  }

  // ---- Mutation ----

  std::uint64_t insert(Floats vectors, Ids ids) {
    check_width("insert: vectors", vectors, ids.size());
    const std::int32_t n = int32("the number of rows", std::ssize(ids));
    const auto rows = static_cast<double>(delta_count());
    const double after = delta_bytes(rows + n);
    if (after > delta_bytes(rows)) require_memory(after);
    return qx_index_insert(open(), vectors.data(), ids.data(), n);
  }

  // The C function is qx_index_delete; `delete` is a word of the language.
  std::uint64_t erase(Ids ids) {
    QxIndex* const index = open();
    const std::int32_t n = int32("the number of ids", std::ssize(ids));
    require_memory(growth(erased_, ids));
    return qx_index_delete(index, ids.data(), n);
  }

  // ---- IVF ----

  // List c is list_ids from list_offsets[c] up to, but not including, list_offsets[c + 1].
  void set_ivf(std::int64_t key, std::int32_t nprobe, Floats centroids, Ids list_ids,
               std::span<const std::int32_t> list_offsets) {
    QxIndex* const index = open();
    require(!list_offsets.empty(), "there is no offset; n lists have n + 1");
    const std::int32_t nlist = int32("the number of lists", std::ssize(list_offsets) - 1);
    const std::int32_t n_ids = int32("the number of ids in the lists", std::ssize(list_ids));
    check_width("centroids", centroids, list_offsets.size() - 1);
    require(nprobe >= 0, [&] { return "nprobe is " + text(nprobe) + ", and must be 0 or more"; });
    std::int32_t last = 0;
    for (const std::int32_t offset : list_offsets) {
      require(offset >= last && offset <= n_ids, [&] {
        return "an offset is " + text(offset) + ", outside " + text(last) + " to " + text(n_ids);
      });
      last = offset;
    }
    const auto keys = static_cast<double>(ivfs_.size() + 1);
    require_memory(4.0 * static_cast<double>(centroids.size()) + 8.0 * n_ids + 4.0 * nlist +
                   table_bytes(keys) + 80 * power_of_two(keys) + kSlack);
    Ivf& ivf = ivfs_[key];  // before the engine has it, since this may throw
    qx_index_set_ivf(index, key, nlist, nprobe, centroids.data(), list_ids.data(),
                     list_offsets.data(), n_ids);
    ivf = {nlist, n_ids, true};
  }

  bool has_ivf(std::int64_t key) const { return qx_index_has_ivf(open(), key) != 0; }

  void clear_ivf() {
    qx_index_clear_ivf(open());
    ivfs_.clear();
  }

  void set_ivf_nprobe(std::int64_t key, std::int32_t nprobe) {
    require(nprobe >= 0, [&] { return "nprobe is " + text(nprobe) + ", and must be 0 or more"; });
    find_ivf(key);
    qx_index_set_ivf_nprobe(open(), key, nprobe);
  }

  Hits search_ivf(std::int64_t key, Floats query, std::int64_t k) const {
    return hits(k, find_ivf(key).n_ids,
                [&](auto... slots) { return search_ivf(key, query, slots...); });
  }
  std::size_t search_ivf(std::int64_t key, Floats query, IdSlots ids, ScoreSlots scores) const {
    const Ivf& ivf = find_ivf(key);
    return fill(query, ids, scores, {}, [&](auto... rest) {
      require_memory(4.0 * ivf.nlist);
      return qx_index_search_ivf(open(), key, rest...);
    });
  }

  // ---- What is visible now ----

  Hits search_mvcc(Ids candidates, Floats query, std::int64_t k) const {
    return hits(k, count_of(candidates),
                [&](auto... slots) { return search_mvcc(candidates, query, slots...); });
  }
  std::size_t search_mvcc(Ids candidates, Floats query, IdSlots ids, ScoreSlots scores) const {
    return fill(query, ids, scores, candidates,
                [&](const float* from, std::int32_t k, auto... slots) {
                  return qx_index_search_mvcc(open(), candidates.data(), count_of(candidates), from,
                                              static_cast<std::uint32_t>(k), slots...);
                });
  }

  Hits search_filtered(const Filter& filter, Floats query, std::int64_t k) const {
    return hits(k, size() + delta_count(),
                [&](auto... slots) { return search_filtered(filter, query, slots...); });
  }
  std::size_t search_filtered(const Filter& filter, Floats query, IdSlots ids,
                              ScoreSlots scores) const {
    check_filter(filter);
    return fill(query, ids, scores, {}, [&](const float* from, std::int32_t k, auto... slots) {
      return qx_index_search_filtered(open(), filter.mode(), filter.column(), filter.value(), from,
                                      static_cast<std::uint32_t>(k), slots...);
    });
  }

  std::vector<std::int64_t> match_ids(const Filter& filter) const {
    check_filter(filter);
    std::vector<std::int64_t> ids(static_cast<std::size_t>(visible_count()));
    ids.resize(static_cast<std::size_t>(
        qx_index_match_ids(open(), filter.mode(), filter.column(), filter.value(), ids.data())));
    return ids;
  }

  std::int64_t visible_count() const { return qx_index_visible_count(open()); }

  std::vector<std::int64_t> visible_ids() const {
    std::vector<std::int64_t> ids(static_cast<std::size_t>(visible_count()));
    qx_index_visible_ids(open(), ids.data());
    return ids;
  }

  Rows export_visible() const {
    Rows rows = rows_of(visible_count());
    qx_index_export_visible(open(), rows.vectors.data(), rows.ids.data());
    return rows;
  }

  // ---- Metadata ----

  // `values` are ncols for each id, side by side.
  void set_rowmeta(Ids ids, Ids labels, Ids values, std::int32_t ncols) {
    QxIndex* const index = open();
    const std::int32_t n = int32("the number of ids", std::ssize(ids));
    require(ncols >= ncols_, [&] {
      return "ncols is " + text(ncols) + ", and the index has " + text(ncols_) + " columns";
    });
    require(labels.size() == ids.size(),
            [&] { return text(labels.size()) + " labels for " + text(ids.size()) + " ids"; });
    require(values.size() == ids.size() * static_cast<std::size_t>(ncols), [&] {
      return text(values.size()) + " values for " + text(ids.size()) + " ids of " + text(ncols) +
             " columns";
    });
    require_memory_for_rowmeta(ids, ncols);
    qx_index_set_rowmeta(index, ids.data(), labels.data(), values.data(), ncols, n);
    ncols_ = ncols;
  }

  RowMeta export_rowmeta(Ids ids) const {
    const std::int32_t n = int32("the number of ids", std::ssize(ids));
    require_memory(8.0 * n * (1.0 + ncols_));
    RowMeta meta;
    meta.ncols = ncols_;
    meta.labels.resize(ids.size());
    meta.values.resize(ids.size() * static_cast<std::size_t>(ncols_));
    qx_index_export_rowmeta(open(), ids.data(), static_cast<std::uint32_t>(n), meta.labels.data(),
                            meta.values.data());
    return meta;
  }

 private:
  static constexpr double kSlack = 4096;

  struct Ivf {
    std::int32_t nlist = 0;
    std::int32_t n_ids = 0;
    bool set = false;
  };
  // Columns that came with one call, and the ids that have had values in them since.
  struct Table {
    double columns;
    DistinctIds ids;
  };

  QxIndex* open() const {
    if (handle_ == nullptr) throw LogicError("the index was moved from");
    return handle_;
  }

  struct Stats {
    std::uint64_t n_base;
    std::uint32_t dim;
    std::uint32_t user_tag;
    std::int32_t n_parts;
  };
  Stats stats() const {
    Stats stats;
    qx_index_stats(open(), &stats.n_base, &stats.dim, &stats.user_tag, &stats.n_parts);
    return stats;
  }

  template <typename Number>
  static std::string text(Number number) {
    return std::to_string(number);
  }

  // The message is a text, or what makes one: only when it is needed.
  template <typename Message>
  static void require(bool condition, Message&& message) {
    if (condition) return;
    if constexpr (std::is_invocable_v<Message>) {
      throw InvalidArgument(message());
    } else {
      throw InvalidArgument(message);
    }
  }

  static std::int32_t int32(const char* what, std::int64_t number) {
    require(number <= std::numeric_limits<std::int32_t>::max(),
            [&] { return std::string(what) + " is " + text(number) + ", above 2^31 - 1"; });
    return static_cast<std::int32_t>(number);
  }

  std::int32_t count_of(Ids candidates) const {
    open();
    return int32("the number of candidates", std::ssize(candidates));
  }

  // Allocates this many bytes as a trial, and throws if that fails.
  static void require_memory(double bytes) {
    constexpr double kMost = 0x1p+62;
    if (bytes == 0) return;
    if (bytes > kMost) throw std::bad_alloc();
    void* const found = ::operator new(static_cast<std::size_t>(bytes), std::nothrow);
    if (found == nullptr) throw std::bad_alloc();
    ::operator delete(found);
  }

  // The memory of each kind of block, or somewhat more: by qx_runtime.h, which gives it for the
  // version of the library that it came with.
  static double power_of_two(double least) {
    if (least < 1) return 0;
    if (least > 0x1p+61) throw std::bad_alloc();
    return static_cast<double>(std::bit_ceil(static_cast<std::uint64_t>(least + 0.75)));
  }
  static double table_bytes(double keys) { return keys == 0 ? 0 : 128 + 32 * power_of_two(keys); }
  double delta_bytes(double rows) const {
    return table_bytes(rows) + 16 * power_of_two(rows) + 4 * power_of_two(rows * dim_);
  }

  // Adds ids to those of a table. Returns the bytes that the engine may now have to allocate.
  static double growth(DistinctIds& table, Ids ids) {
    const double before = table_bytes(table.least());
    table.add(ids);
    const double after = table_bytes(table.most());
    return after > before ? after : 0;
  }

  void require_memory_for_rowmeta(Ids ids, std::int32_t ncols) {
    // The labels are one more column, which is there from the first call on.
    const double more = 1.0 * ncols - ncols_ + (tables_.empty() ? 1 : 0);
    double bytes = ncols > ncols_ ? 40 * power_of_two(ncols) : 0;
    for (Table& table : tables_) bytes += table.columns * growth(table.ids, ids);
    Table added{more, {}};
    if (more > 0) bytes += more * growth(added.ids, ids);
    require_memory(bytes);
    if (more > 0) tables_.push_back(std::move(added));
  }

  void check_width(const char* what, Floats floats, std::size_t rows) const {
    open();  // or the dimension is 0
    const auto width = static_cast<std::size_t>(dim_);
    require(floats.size() / width == rows && floats.size() % width == 0, [&] {
      return std::string(what) + " has " + text(floats.size()) + " floats, not " + text(rows) +
             " times the dimension " + text(dim_);
    });
  }

  static void check_partition(const Partition& part, const std::vector<std::int64_t>& keys,
                              std::int64_t rows) {
    require(keys.empty() || part.key > keys.back(),
            [&] { return "partition key " + text(part.key) + " is not above the one before it"; });
    require(part.start >= 0 && part.size >= 0 && std::int64_t{part.start} + part.size <= rows, [&] {
      return "partition " + text(part.key) + " has rows from " + text(part.start) + ", " +
             text(part.size) + " of them, and the base has " + text(rows);
    });
  }

  void check_filter(const Filter& filter) const {
    open();
    require(
        filter.mode() != QX_FILTER_COLUMN || (filter.column() >= 0 && filter.column() < ncols_),
        [&] { return "column " + text(filter.column()) + " of an index with " + text(ncols_); });
  }

  template <typename One, typename Other>
  static bool overlap(std::span<One> one, std::span<Other> other) {
    const std::less<const void*> before;
    return !one.empty() && !other.empty() && before(one.data(), other.data() + other.size()) &&
           before(other.data(), one.data() + one.size());
  }

  // Checks what every search is given, and makes the call. Returns how many of the written slots
  // have a row: the empty ones come last.
  template <typename Call>
  std::size_t fill(Floats query, IdSlots ids, ScoreSlots scores, Ids candidates, Call call) const {
    open();
    require(query.size() == static_cast<std::size_t>(dim_), [&] {
      return "the query has " + text(query.size()) + " floats, and the dimension is " + text(dim_);
    });
    require(ids.size() == scores.size(), [&] {
      return text(ids.size()) + " slots for ids and " + text(scores.size()) + " for scores";
    });
    require(!overlap(ids, scores) && !overlap(ids, query) && !overlap(ids, candidates) &&
                !overlap(scores, query) && !overlap(scores, candidates),
            "the slots overlap each other or what is given");
    const std::int32_t k = int32("k", std::ssize(ids));
    auto found = static_cast<std::size_t>(call(query.data(), k, ids.data(), scores.data()));
    while (found > 0 && ids[found - 1] == QX_EMPTY_ID && scores[found - 1] == QX_EMPTY_SCORE) {
      --found;
    }
    return found;
  }

  const Ivf& find_ivf(std::int64_t key) const {
    open();
    const auto found = ivfs_.find(key);
    require(found != ivfs_.end() && found->second.set,
            [&] { return "there is no IVF under key " + text(key); });
    return found->second;
  }

  // No more slots than there can be results.
  template <typename Search>
  Hits hits(std::int64_t k, std::int64_t most, Search search) const {
    open();
    require(k >= 0, [&] { return "k is " + text(k) + ", and must be 0 or more"; });
    const auto slots = static_cast<std::size_t>(int32("k", k < most ? k : most));
    Hits hits{std::vector<std::int64_t>(slots), std::vector<float>(slots)};
    const std::size_t found = search(std::span(hits.ids), std::span(hits.scores));
    hits.ids.resize(found);
    hits.scores.resize(found);
    return hits;
  }

  Rows rows_of(std::int64_t count) const {
    Rows rows;
    rows.dim = dim_;
    rows.ids.resize(static_cast<std::size_t>(count));
    rows.vectors.resize(rows.ids.size() * static_cast<std::size_t>(dim_));
    return rows;
  }

  QxIndex* handle_ = nullptr;
  std::int32_t dim_ = 0;
  std::int32_t ncols_ = 0;
  std::map<std::int64_t, Ivf> ivfs_;
  DistinctIds erased_;
  std::vector<Table> tables_;  // of the metadata
};

struct TunerDefaults {
  std::uint32_t first;
  std::uint32_t second;
};
inline TunerDefaults tuner_defaults() {
  TunerDefaults defaults;
  qx_tuner_defaults(&defaults.first, &defaults.second);
  return defaults;
}

}  // namespace cpp
}  // namespace qx
