// The host of the named tests: it passes the engine copies of its arrays next to unmapped pages,
// releases them when the call returns, and reads results from buffers filled with a pattern.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "qx_runtime.h"
#include "support/call.h"
#include "support/child.h"
#include "support/guarded.h"

#if defined(__SANITIZE_ADDRESS__)
#define QX_TEST_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QX_TEST_ADDRESS_SANITIZER 1
#endif
#endif
#if defined(QX_TEST_ADDRESS_SANITIZER)
#include <sanitizer/lsan_interface.h>
#endif

namespace qx_test {

using Ids = std::vector<std::int64_t>;
using Ints = std::vector<std::int32_t>;
using Floats = std::vector<float>;

// The contents of output buffers before a call; no test stores these values.
inline constexpr std::int64_t kUntouchedId = 0x5A5A5A5A5A5A5A5A;
inline constexpr float kUntouchedFloat = std::bit_cast<float>(0x7FD5A5A5);

// Slots after those that a call may write.
inline constexpr std::size_t kSpareSlots = 4;

inline std::uint32_t bits_of(float value) { return std::bit_cast<std::uint32_t>(value); }

inline bool same_bits(const Floats& a, const Floats& b) {
  return a.size() == b.size() &&
         (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

// A result slot. Scores are compared by their bits.
struct Hit {
  std::int64_t id;
  float score;

  friend bool operator==(const Hit& a, const Hit& b) {
    return a.id == b.id && bits_of(a.score) == bits_of(b.score);
  }
  friend void PrintTo(const Hit& hit, std::ostream* out) {
    *out << '(' << hit.id << ", " << hit.score << " = 0x" << std::hex << bits_of(hit.score)
         << std::dec << ')';
  }
};

inline constexpr Hit kEmptySlot{QX_EMPTY_ID, QX_EMPTY_SCORE};

// The result of a search, and the slots up to the last one that it wrote.
struct Found {
  std::int64_t returned;
  std::vector<Hit> slots;

  friend bool operator==(const Found&, const Found&) = default;
  friend void PrintTo(const Found& found, std::ostream* out) {
    *out << "returned " << found.returned << ' ' << testing::PrintToString(found.slots);
  }
};

inline Found found(std::vector<Hit> slots) {
  return {static_cast<std::int64_t>(slots.size()), std::move(slots)};
}

inline Found nothing_written() { return {0, {}}; }

// Exported rows: ids, and vectors compared by their bits.
struct Rows {
  Ids ids;
  Floats vectors;

  friend bool operator==(const Rows& a, const Rows& b) {
    return a.ids == b.ids && same_bits(a.vectors, b.vectors);
  }
  friend void PrintTo(const Rows& rows, std::ostream* out) {
    *out << testing::PrintToString(rows.ids) << ' ' << testing::PrintToString(rows.vectors);
  }
};

struct Stats {
  std::uint64_t n_base;
  std::uint32_t dim;
  std::uint32_t user_tag;
  std::int32_t n_parts;

  friend bool operator==(const Stats&, const Stats&) = default;
};

struct Partitions {
  Ids keys;
  Ints starts;
  Ints sizes;
};

struct Ivf {
  std::int32_t nlist;
  std::int32_t nprobe;
  Floats centroids;
  Ids list_ids;
  Ints list_offsets;
};

struct Predicate {
  std::uint32_t mode;
  std::int32_t column;
  std::int64_t value;
};

inline constexpr Predicate kEveryId{QX_FILTER_ALL, 0, 0};
constexpr Predicate has_label(std::int64_t label) { return {QX_FILTER_LABEL, 0, label}; }
constexpr Predicate has_value(std::int32_t column, std::int64_t value) {
  return {QX_FILTER_COLUMN, column, value};
}

struct Metadata {
  std::int32_t ncols;
  Ids labels;
  Ids values;

  friend bool operator==(const Metadata&, const Metadata&) = default;
};

// A handle that is released with its scope, and converts to the plain handle.
class Index {
 public:
  explicit Index(std::uint32_t dim, std::uint32_t user_tag = 0)
      : handle_(qx_index_new(dim, user_tag)) {}
  Index(const Index&) = delete;
  Index& operator=(const Index&) = delete;
  ~Index() { qx_index_free(handle_); }

  operator QxIndex*() const { return handle_; }
  QxIndex* operator->() const { return handle_; }

 private:
  QxIndex* handle_;
};

// ---- Writes ------------------------------------------------------------------------------------

inline std::int32_t build(QxIndex* index, std::int32_t dim, const Ids& ids, const Floats& vectors,
                          const Partitions& parts = {}) {
  return call_c(qx_index_build, index, Guarded(vectors).data(), ids.size(), dim,
                Guarded(ids).data(), Guarded(parts.keys).data(), Guarded(parts.starts).data(),
                Guarded(parts.sizes).data(), parts.keys.size());
}

// A build that must succeed.
inline void seal(QxIndex* index, std::int32_t dim, const Ids& ids, const Floats& vectors,
                 const Partitions& parts = {}) {
  ASSERT_EQ(build(index, dim, ids, vectors, parts), 0);
}

// The same for a base that another build will replace: by contract its arrays are never released,
// so they are not reported as a leak.
inline void seal_to_be_replaced(QxIndex* index, std::int32_t dim, const Ids& ids,
                                const Floats& vectors, const Partitions& parts = {}) {
#if defined(QX_TEST_ADDRESS_SANITIZER)
  const __lsan::ScopedDisabler arrays_stay;
#endif
  seal(index, dim, ids, vectors, parts);
}

inline std::uint64_t insert(QxIndex* index, const Ids& ids, const Floats& vectors) {
  return call_c(qx_index_insert, index, Guarded(vectors).data(), Guarded(ids).data(), ids.size());
}

inline std::uint64_t delete_ids(QxIndex* index, const Ids& ids) {
  return call_c(qx_index_delete, index, Guarded(ids).data(), ids.size());
}

inline std::int32_t set_ivf(QxIndex* index, std::int64_t key, const Ivf& ivf) {
  return call_c(qx_index_set_ivf, index, key, ivf.nlist, ivf.nprobe, Guarded(ivf.centroids).data(),
                Guarded(ivf.list_ids).data(), Guarded(ivf.list_offsets).data(),
                ivf.list_ids.size());
}

inline std::int32_t set_rowmeta(QxIndex* index, const Ids& ids, const Ids& labels,
                                const Ids& values, std::int32_t ncols) {
  return call_c(qx_index_set_rowmeta, index, Guarded(ids).data(), Guarded(labels).data(),
                Guarded(values).data(), ncols, ids.size());
}

// ---- Reads -------------------------------------------------------------------------------------

// Calls a search with buffers for k results and some spare slots.
template <typename Call>
Found run_search(std::int64_t k, Call call) {
  constexpr std::int64_t kMostSlots = 1000;
  const std::int64_t wanted = k < 1 || k > kMostSlots ? 0 : k;
  const std::size_t slots = static_cast<std::size_t>(wanted) + kSpareSlots;
  Guarded<std::int64_t> ids(slots, kUntouchedId);
  Guarded<float> scores(slots, kUntouchedFloat);
  Found result{call(ids.data(), scores.data()), {}};
  EXPECT_TRUE(ids.margins_intact() && scores.margins_intact());
  for (std::size_t i = 0; i < slots; ++i) result.slots.push_back({ids[i], scores[i]});
  const Hit untouched{kUntouchedId, kUntouchedFloat};
  while (!result.slots.empty() && result.slots.back() == untouched) result.slots.pop_back();
  return result;
}

// The same for a search that takes these arguments before k.
template <typename Search, typename... Arguments>
Found best_by(Search search, std::int64_t k, Arguments... arguments) {
  return run_search(k, [&](std::int64_t* ids, float* scores) {
    return call_c(search, arguments..., k, ids, scores);
  });
}

inline Found search_full(QxIndex* index, const Floats& query, std::int32_t k) {
  return best_by(qx_index_search_full, k, index, Guarded(query).data());
}

inline Found search_partition(QxIndex* index, std::int64_t key, const Floats& query,
                              std::int32_t k) {
  return best_by(qx_index_search_partition, k, index, key, Guarded(query).data());
}

inline Found scatter(QxIndex* index, const Ids& candidates, const Floats& query, std::int32_t k) {
  return best_by(qx_index_scatter_topk, k, index, Guarded(candidates).data(), candidates.size(),
                 Guarded(query).data());
}

inline Found search_ivf(QxIndex* index, std::int64_t key, const Floats& query, std::int32_t k) {
  return best_by(qx_index_search_ivf, k, index, key, Guarded(query).data());
}

inline Found search_mvcc(QxIndex* index, const Ids& candidates, const Floats& query,
                         std::uint32_t k) {
  return best_by(qx_index_search_mvcc, k, index, Guarded(candidates).data(), candidates.size(),
                 Guarded(query).data());
}

inline Found search_filtered(QxIndex* index, const Predicate& predicate, const Floats& query,
                             std::uint32_t k) {
  return best_by(qx_index_search_filtered, k, index, predicate.mode, predicate.column,
                 predicate.value, Guarded(query).data());
}

// The elements of a buffer up to the last one that a call wrote.
template <typename T>
std::vector<T> written(const Guarded<T>& buffer, T untouched) {
  EXPECT_TRUE(buffer.margins_intact());
  std::vector<T> values = buffer.values();
  using Bytes = std::array<std::byte, sizeof(T)>;
  while (!values.empty() &&
         std::bit_cast<Bytes>(values.back()) == std::bit_cast<Bytes>(untouched)) {
    values.pop_back();
  }
  return values;
}

// Calls a listing that writes up to `most` ids; it must return the number that it wrote.
template <typename Call>
Ids run_listing(std::int64_t most, Call call) {
  Guarded<std::int64_t> out(static_cast<std::size_t>(most) + kSpareSlots, kUntouchedId);
  const std::int64_t returned = call(out.data());
  Ids ids = written(out, kUntouchedId);
  EXPECT_EQ(returned, static_cast<std::int64_t>(ids.size()));
  return ids;
}

inline Ids visible_ids(QxIndex* index) {
  return run_listing(qx_index_visible_count(index),
                     [&](std::int64_t* ids) { return qx_index_visible_ids(index, ids); });
}

inline Ids match_ids(QxIndex* index, const Predicate& predicate) {
  return run_listing(qx_index_visible_count(index), [&](std::int64_t* ids) {
    return qx_index_match_ids(index, predicate.mode, predicate.column, predicate.value, ids);
  });
}

inline Stats stats(QxIndex* index) {
  Stats now{~std::uint64_t{0}, ~0u, ~0u, -1};
  EXPECT_EQ(qx_index_stats(index, &now.n_base, &now.dim, &now.user_tag, &now.n_parts), 0);
  return now;
}

// Calls an export of up to `most` rows.
template <typename Call>
Rows run_export(QxIndex* index, std::int64_t most, Call call) {
  const auto dim = static_cast<std::int32_t>(stats(index).dim);
  const auto width = static_cast<std::size_t>(dim < 1 ? 0 : dim);
  Guarded<float> out(static_cast<std::size_t>(most) * width + kSpareSlots, kUntouchedFloat);
  Ids ids = run_listing(most, [&](std::int64_t* out_ids) { return call(out.data(), out_ids); });
  return {std::move(ids), written(out, kUntouchedFloat)};
}

inline Rows export_base(QxIndex* index) {
  const auto n_base = static_cast<std::int64_t>(stats(index).n_base);
  return run_export(index, n_base, [&](float* vectors, std::int64_t* ids) {
    return qx_index_export_base(index, vectors, ids);
  });
}

inline Rows export_visible(QxIndex* index) {
  return run_export(index, qx_index_visible_count(index), [&](float* vectors, std::int64_t* ids) {
    return qx_index_export_visible(index, vectors, ids);
  });
}

inline Metadata export_rowmeta(QxIndex* index, const Ids& ids) {
  const auto n = static_cast<std::uint32_t>(ids.size());
  const std::int32_t columns = qx_index_export_rowmeta(index, nullptr, 0, nullptr, nullptr);
  const std::size_t most = ids.size() * static_cast<std::size_t>(columns);
  const Guarded<std::int64_t> listed(ids);
  Guarded<std::int64_t> labels(ids.size() + kSpareSlots, kUntouchedId);
  Guarded<std::int64_t> values(most + kSpareSlots, kUntouchedId);
  const std::int32_t returned =
      qx_index_export_rowmeta(index, listed.data(), n, labels.data(), values.data());
  return {returned, written(labels, kUntouchedId), written(values, kUntouchedId)};
}

// ---- The whole state ---------------------------------------------------------------------------

// Everything that the accessors and the exports return: equal before and after a call that must not
// change anything.
struct Observed {
  Stats stats;
  std::uint64_t snapshot;
  std::uint32_t mutated;
  std::uint32_t sealed;
  std::int64_t delta_count;
  Rows base;
  Rows visible;

  friend bool operator==(const Observed&, const Observed&) = default;
};

inline Observed observe(QxIndex* index) {
  return {stats(index),           qx_index_snapshot(index),    qx_index_mutated(index),
          qx_index_sealed(index), qx_index_delta_count(index), export_base(index),
          export_visible(index)};
}

// True if code ends its process because of an index into an array of `length` elements.
inline testing::AssertionResult ends_out_of_bounds(std::int64_t index, std::int64_t length,
                                                   const std::function<void()>& body) {
  const ChildEnd end = run_in_child(body);
  if (end.trapped && is_bounds_line(end.standard_error, index, length)) {
    return testing::AssertionSuccess();
  }
  return testing::AssertionFailure()
         << (end.trapped ? "trapped" : "did not trap") << ", exit status " << end.exit_status
         << ", standard error: " << end.standard_error;
}

}  // namespace qx_test
