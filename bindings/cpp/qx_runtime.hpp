// qx_runtime for C++20: an index that owns itself, spans in, results that own their memory.
//
// Every size, dimension and offset is checked before the engine is called, and memory that an
// argument asks for is sought before the engine must have it. What does not fit is thrown, with a
// message, and changes nothing:
//
//   qx::InvalidArgument  an argument that does not fit the index or the other arguments
//   qx::LogicError       a call that the index cannot take now: it was moved from, or is sealed
//   std::bad_alloc       memory that is not there
//
// So nothing that is given to this class ends the process, other than memory that goes away between
// the look and the use, as on a machine that promises more than it has. What the calls do is said
// in qx_runtime.h; each has the name of its function there. Nothing is converted: floats may be NaN
// or infinite, and scores are the engine's, to the bit.
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
#include <limits>
#include <map>
#include <new>
#include <span>
#include <stdexcept>
#include <string>
#include <type_traits>
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

// Rows of the base that lie side by side.
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

// Which ids pass.
class Filter {
 public:
  static Filter all() { return {0, 0, 0}; }
  static Filter label(std::int64_t value) { return {1, 0, value}; }
  static Filter column(std::int32_t column, std::int64_t value) { return {2, column, value}; }

 private:
  friend class Index;
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

  explicit Index(std::int32_t dim, std::uint32_t user_tag = 0) : dim_(dim) {
    require(dim >= 1, "the dimension is " + text(dim) + ", and must be 1 or more");
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
    ivf_ids_.swap(other.ivf_ids_);
  }

  // The handle, for calls of the C interface; the index keeps it.
  QxIndex* handle() const {
    if (handle_ == nullptr) throw LogicError("the index was moved from");
    return handle_;
  }

  // ---- Accessors ----

  std::int32_t dim() const { return dim_; }
  std::int64_t size() const { return static_cast<std::int64_t>(stats().n_base); }
  std::uint32_t user_tag() const { return stats().user_tag; }
  std::int32_t partitions() const { return stats().n_parts; }
  std::int32_t columns() const { return ncols_; }
  std::uint64_t snapshot() const { return qx_index_snapshot(handle()); }
  bool mutated() const { return qx_index_mutated(handle()) != 0; }
  bool sealed() const { return qx_index_sealed(handle()) != 0; }
  std::int64_t delta_count() const { return qx_index_delta_count(handle()); }

  // ---- The sealed base ----

  // Once only: a further build would keep the arrays of the first. Build a new index instead.
  void build(Floats vectors, Ids ids, std::span<const Partition> partitions = {}) {
    if (sealed()) throw LogicError("the index is sealed; build a new one");
    check_rows("build", vectors, ids);
    std::int64_t largest = -1;
    std::size_t row = 0;
    for (const std::int64_t id : ids) {
      require(id >= 0 && id < kIdLimit,
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
    seek(4.0 * static_cast<double>(vectors.size()) + 16.0 * static_cast<double>(ids.size()) +
         8.0 * static_cast<double>(largest + 3) + 16.0 * static_cast<double>(keys.size()));
    const std::int32_t result = qx_index_build(handle(), vectors.data(), std::ssize(ids), dim_,
                                               ids.data(), keys.data(), starts.data(), sizes.data(),
                                               int32("the number of partitions", std::ssize(keys)));
    require(result == 0, "the base is larger than 2^40 rows or floats");
  }

  Rows export_base() const {
    Rows rows = rows_of(size());
    qx_index_export_base(handle(), rows.vectors.data(), rows.ids.data());
    return rows;
  }

  // ---- Searches of the sealed base ----
  //
  // Each comes in two forms: one gives Hits, as many as were found; the other fills the spans,
  // whose common size is k, and gives the number found. Behind those the slots are unspecified.

  Hits search_full(Floats query, std::int64_t k) const {
    return hits(k, size(), [&](auto ids, auto scores) { return search_full(query, ids, scores); });
  }
  std::size_t search_full(Floats query, std::span<std::int64_t> ids,
                          std::span<float> scores) const {
    const std::int32_t k = check_search(query, ids, scores);
    return filled(ids, scores,
                  qx_index_search_full(handle(), query.data(), k, ids.data(), scores.data()));
  }

  // A key that no partition has finds nothing.
  Hits search_partition(std::int64_t key, Floats query, std::int64_t k) const {
    return hits(k, size(),
                [&](auto ids, auto scores) { return search_partition(key, query, ids, scores); });
  }
  std::size_t search_partition(std::int64_t key, Floats query, std::span<std::int64_t> ids,
                               std::span<float> scores) const {
    const std::int32_t k = check_search(query, ids, scores);
    return filled(
        ids, scores,
        qx_index_search_partition(handle(), key, query.data(), k, ids.data(), scores.data()));
  }

  Hits scatter_topk(Ids candidates, Floats query, std::int64_t k) const {
    return hits(k, std::ssize(candidates), [&](auto ids, auto scores) {
      return scatter_topk(candidates, query, ids, scores);
    });
  }
  std::size_t scatter_topk(Ids candidates, Floats query, std::span<std::int64_t> ids,
                           std::span<float> scores) const {
    const std::int32_t k = check_search(query, ids, scores);
    const std::int32_t count = int32("the number of candidates", std::ssize(candidates));
    return filled(ids, scores,
                  qx_index_scatter_topk(handle(), candidates.data(), count, query.data(), k,
                                        ids.data(), scores.data()));
  }

  // ---- Partitions, as a tuner sees them ----

  std::vector<PartitionSize> tuner_oversized(std::int32_t threshold) const {
    const auto most = static_cast<std::size_t>(partitions());
    std::vector<std::int64_t> keys(most);
    std::vector<std::int64_t> sizes(most);
    const auto count = static_cast<std::size_t>(
        qx_index_tuner_oversized(handle(), threshold, keys.data(), sizes.data()));
    std::vector<PartitionSize> listed(count);
    for (std::size_t i = 0; i < count; ++i) listed[i] = {keys[i], sizes[i]};
    return listed;
  }

  // ---- Mutation ----

  std::uint64_t insert(Floats vectors, Ids ids) {
    check_rows("insert", vectors, ids);
    const std::int32_t n = int32("the number of rows", std::ssize(ids));
    const double before = delta_bytes(delta_count());
    const double after = delta_bytes(delta_count() + n);
    if (after > before) seek(after);
    return qx_index_insert(handle(), vectors.data(), ids.data(), n);
  }

  // The C function is qx_index_delete; `delete` is a word of the language.
  std::uint64_t erase(Ids ids) {
    return qx_index_delete(handle(), ids.data(), int32("the number of ids", std::ssize(ids)));
  }

  // ---- IVF ----

  // List c is list_ids from list_offsets[c] up to, but not including, list_offsets[c + 1].
  void set_ivf(std::int64_t key, std::int32_t nprobe, Floats centroids, Ids list_ids,
               std::span<const std::int32_t> list_offsets) {
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
    seek(4.0 * static_cast<double>(centroids.size()) + 8.0 * n_ids + 4.0 * nlist + 4096);
    qx_index_set_ivf(handle(), key, nlist, nprobe, centroids.data(), list_ids.data(),
                     list_offsets.data(), n_ids);
    ivf_ids_[key] = n_ids;
  }

  bool has_ivf(std::int64_t key) const { return qx_index_has_ivf(handle(), key) != 0; }

  void clear_ivf() {
    qx_index_clear_ivf(handle());
    ivf_ids_.clear();
  }

  void set_ivf_nprobe(std::int64_t key, std::int32_t nprobe) {
    require(nprobe >= 0, [&] { return "nprobe is " + text(nprobe) + ", and must be 0 or more"; });
    ids_of_ivf(key);
    qx_index_set_ivf_nprobe(handle(), key, nprobe);
  }

  Hits search_ivf(std::int64_t key, Floats query, std::int64_t k) const {
    return hits(k, ids_of_ivf(key),
                [&](auto ids, auto scores) { return search_ivf(key, query, ids, scores); });
  }
  std::size_t search_ivf(std::int64_t key, Floats query, std::span<std::int64_t> ids,
                         std::span<float> scores) const {
    ids_of_ivf(key);
    const std::int32_t k = check_search(query, ids, scores);
    return filled(ids, scores,
                  qx_index_search_ivf(handle(), key, query.data(), k, ids.data(), scores.data()));
  }

  // ---- What is visible now ----

  Hits search_mvcc(Ids candidates, Floats query, std::int64_t k) const {
    return hits(k, std::ssize(candidates),
                [&](auto ids, auto scores) { return search_mvcc(candidates, query, ids, scores); });
  }
  std::size_t search_mvcc(Ids candidates, Floats query, std::span<std::int64_t> ids,
                          std::span<float> scores) const {
    const std::int32_t k = check_search(query, ids, scores);
    const std::int32_t count = int32("the number of candidates", std::ssize(candidates));
    return filled(ids, scores,
                  qx_index_search_mvcc(handle(), candidates.data(), count, query.data(),
                                       static_cast<std::uint32_t>(k), ids.data(), scores.data()));
  }

  Hits search_filtered(const Filter& filter, Floats query, std::int64_t k) const {
    return hits(k, size() + delta_count(),
                [&](auto ids, auto scores) { return search_filtered(filter, query, ids, scores); });
  }
  std::size_t search_filtered(const Filter& filter, Floats query, std::span<std::int64_t> ids,
                              std::span<float> scores) const {
    check_filter(filter);
    const std::int32_t k = check_search(query, ids, scores);
    return filled(ids, scores,
                  qx_index_search_filtered(handle(), filter.mode_, filter.column_, filter.value_,
                                           query.data(), static_cast<std::uint32_t>(k), ids.data(),
                                           scores.data()));
  }

  std::vector<std::int64_t> match_ids(const Filter& filter) const {
    check_filter(filter);
    std::vector<std::int64_t> ids(static_cast<std::size_t>(visible_count()));
    ids.resize(static_cast<std::size_t>(
        qx_index_match_ids(handle(), filter.mode_, filter.column_, filter.value_, ids.data())));
    return ids;
  }

  std::int64_t visible_count() const { return qx_index_visible_count(handle()); }

  std::vector<std::int64_t> visible_ids() const {
    std::vector<std::int64_t> ids(static_cast<std::size_t>(visible_count()));
    qx_index_visible_ids(handle(), ids.data());
    return ids;
  }

  Rows export_visible() const {
    Rows rows = rows_of(visible_count());
    qx_index_export_visible(handle(), rows.vectors.data(), rows.ids.data());
    return rows;
  }

  // ---- Metadata ----

  // `values` are ncols for each id, side by side.
  void set_rowmeta(Ids ids, Ids labels, Ids values, std::int32_t ncols) {
    require(ncols >= ncols_, [&] {
      return "ncols is " + text(ncols) + ", and the index has " + text(ncols_) + " columns";
    });
    require(labels.size() == ids.size(),
            [&] { return text(labels.size()) + " labels for " + text(ids.size()) + " ids"; });
    require(values.size() == ids.size() * static_cast<std::size_t>(ncols), [&] {
      return text(values.size()) + " values for " + text(ids.size()) + " ids of " + text(ncols) +
             " columns";
    });
    const std::int32_t n = int32("the number of ids", std::ssize(ids));
    seek(96.0 * (ncols > ncols_ ? ncols : 0) + 64.0 * n * (1.0 + ncols));
    qx_index_set_rowmeta(handle(), ids.data(), labels.data(), values.data(), ncols, n);
    ncols_ = ncols;
  }

  RowMeta export_rowmeta(Ids ids) const {
    const std::int32_t n = int32("the number of ids", std::ssize(ids));
    RowMeta meta;
    meta.ncols = ncols_;
    meta.labels.resize(ids.size());
    meta.values.resize(ids.size() * static_cast<std::size_t>(ncols_));
    qx_index_export_rowmeta(handle(), ids.data(), static_cast<std::uint32_t>(n), meta.labels.data(),
                            meta.values.data());
    return meta;
  }

 private:
  static constexpr std::int64_t kIdLimit = std::int64_t{1} << 40;

  struct Stats {
    std::uint64_t n_base;
    std::uint32_t dim;
    std::uint32_t user_tag;
    std::int32_t n_parts;
  };
  Stats stats() const {
    Stats stats;
    qx_index_stats(handle(), &stats.n_base, &stats.dim, &stats.user_tag, &stats.n_parts);
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

  // Throws where so many bytes cannot be had.
  static void seek(double bytes) {
    constexpr double kMost = 0x1p+62;
    if (bytes > kMost) throw std::bad_alloc();
    ::operator delete(::operator new(static_cast<std::size_t>(bytes)));
  }

  static double power_of_two(std::int64_t least) {
    return static_cast<double>(std::bit_ceil(static_cast<std::uint64_t>(least)));
  }
  // At least what the delta takes with so many rows.
  double delta_bytes(std::int64_t rows) const {
    if (rows == 0) return 0;
    return 48 * power_of_two(rows) + 4 * power_of_two(rows) * static_cast<double>(dim_) * 2;
  }

  void check_width(const char* what, Floats floats, std::size_t rows) const {
    const auto width = static_cast<std::size_t>(dim_);
    require(floats.size() / width == rows && floats.size() % width == 0, [&] {
      return std::string(what) + " has " + text(floats.size()) + " floats, not " + text(rows) +
             " times the dimension " + text(dim_);
    });
  }

  void check_rows(const char* call, Floats vectors, Ids ids) const {
    check_width((std::string(call) + ": vectors").c_str(), vectors, ids.size());
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
    require(filter.mode_ != 2 || (filter.column_ >= 0 && filter.column_ < ncols_),
            [&] { return "column " + text(filter.column_) + " of an index with " + text(ncols_); });
  }

  // Returns k.
  std::int32_t check_search(Floats query, std::span<std::int64_t> ids,
                            std::span<float> scores) const {
    require(query.size() == static_cast<std::size_t>(dim_), [&] {
      return "the query has " + text(query.size()) + " floats, and the dimension is " + text(dim_);
    });
    require(ids.size() == scores.size(), [&] {
      return text(ids.size()) + " slots for ids and " + text(scores.size()) + " for scores";
    });
    return int32("k", std::ssize(ids));
  }

  std::int64_t ids_of_ivf(std::int64_t key) const {
    const auto found = ivf_ids_.find(key);
    require(found != ivf_ids_.end(), [&] { return "there is no IVF under key " + text(key); });
    return found->second;
  }

  // No more slots than there can be results.
  template <typename Search>
  static Hits hits(std::int64_t k, std::int64_t most, Search search) {
    require(k >= 0, [&] { return "k is " + text(k) + ", and must be 0 or more"; });
    const auto slots = static_cast<std::size_t>(k < most ? k : most);
    Hits hits{std::vector<std::int64_t>(slots), std::vector<float>(slots)};
    const std::size_t found = search(std::span(hits.ids), std::span(hits.scores));
    hits.ids.resize(found);
    hits.scores.resize(found);
    return hits;
  }

  // How many of the written slots have a row: an empty one, and all behind it, have this score.
  static std::size_t filled(std::span<const std::int64_t> ids, std::span<const float> scores,
                            std::int64_t written) {
    auto found = static_cast<std::size_t>(written);
    while (found > 0 && ids[found - 1] == -1 && scores[found - 1] == -1e30f) --found;
    return found;
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
  std::map<std::int64_t, std::int64_t> ivf_ids_;  // how many ids the lists of a key have
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
