// A C++ owner of one engine index: one method for each C function, with vectors instead of bare
// arrays. It sizes every output array as the contract asks, checks every shape before the engine
// sees it, and times every call. It knows nothing of words.
#ifndef WORDS_INDEX_H
#define WORDS_INDEX_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "call_log.h"
#include "qx_runtime.h"

struct Hit {
  std::int64_t id;
  float score;
};
using Hits = std::vector<Hit>;

// True if both hold the same ids in the same order with the same bits of every score.
bool identical(const Hits& left, const Hits& right);

// Rows with their ids: ids.size() times the dimension floats, row-major.
struct Rows {
  std::vector<float> vectors;
  std::vector<std::int64_t> ids;
};

// The partition table of a base: three arrays of one length, keys ascending.
struct Partitions {
  std::vector<std::int64_t> keys;
  std::vector<std::int32_t> starts;
  std::vector<std::int32_t> sizes;
};

// An inverted file: the list c is ids[offsets[c]] up to, but not including, ids[offsets[c + 1]].
struct IvfLists {
  std::vector<float> centroids;
  std::vector<std::int64_t> ids;
  std::vector<std::int32_t> offsets;

  std::int32_t count() const { return static_cast<std::int32_t>(offsets.size()) - 1; }
};

// Labels of ids and their column values, row-major.
struct Metadata {
  std::int32_t columns = 0;
  std::vector<std::int64_t> labels;
  std::vector<std::int64_t> values;
};

// The test of a filtered read.
struct Filter {
  std::uint32_t mode;
  std::int32_t column;
  std::int64_t value;

  static Filter every_row() { return {QX_FILTER_ALL, 0, 0}; }
  static Filter label(std::int64_t value) { return {QX_FILTER_LABEL, 0, value}; }
  static Filter column_value(std::int32_t column, std::int64_t value) {
    return {QX_FILTER_COLUMN, column, value};
  }
};

struct IndexStats {
  std::uint64_t base_rows = 0;
  std::uint32_t dimension = 0;
  std::uint32_t user_tag = 0;
  std::int32_t partitions = 0;
};

// Partitions that are too large, and their sizes.
struct Oversized {
  std::vector<std::int64_t> keys;
  std::vector<std::int64_t> sizes;
};

class Index {
 public:
  // The log outlives the index.
  Index(std::int32_t dimension, std::uint32_t user_tag, CallLog& log);
  ~Index() { release(); }
  Index(const Index&) = delete;
  Index& operator=(const Index&) = delete;

  // Frees the engine's index before this object ends. No other method may follow.
  void release();

  IndexStats stats() const;
  std::uint64_t snapshot() const;
  bool mutated() const;
  bool sealed() const;
  std::int64_t delta_count() const;

  // Returns false if the engine refuses the rows.
  bool build(const Rows& rows, const Partitions& partitions);
  Rows export_base() const;

  // Exact search of the sealed base. k is at least 1 here and below; empty slots are left out.
  Hits search_full(std::span<const float> query, std::int32_t k) const;
  Hits search_partition(std::int64_t key, std::span<const float> query, std::int32_t k) const;
  Hits search_candidates(std::span<const std::int64_t> ids, std::span<const float> query,
                         std::int32_t k) const;
  Oversized oversized_partitions(std::int32_t threshold) const;

  // Both return the snapshot after the call.
  std::uint64_t insert(const Rows& rows);
  std::uint64_t erase(std::span<const std::int64_t> ids);

  void set_ivf(std::int64_t key, std::int32_t probes, const IvfLists& lists);
  bool has_ivf(std::int64_t key) const;
  void clear_ivf();
  bool set_ivf_probes(std::int64_t key, std::int32_t probes);
  Hits search_ivf(std::int64_t key, std::span<const float> query, std::int32_t k) const;

  // Returns false if the metadata has fewer columns than the index already has.
  bool set_metadata(std::span<const std::int64_t> ids, const Metadata& metadata);
  Metadata export_metadata(std::span<const std::int64_t> ids) const;

  // What is visible now.
  Hits search_current(std::span<const std::int64_t> ids, std::span<const float> query,
                      std::int32_t k) const;
  Hits search_filtered(const Filter& filter, std::span<const float> query, std::int32_t k) const;
  std::vector<std::int64_t> match_ids(const Filter& filter) const;
  std::vector<std::int64_t> visible_ids() const;
  std::int64_t visible_count() const;
  Rows export_visible() const;

  CallLog& log() const { return log_; }

 private:
  void check_search(std::span<const float> query, std::int32_t k) const;
  std::size_t visible_room() const;
  std::size_t row_floats(std::size_t rows) const;

  CallLog& log_;
  std::int32_t dimension_;
  QxIndex* handle_;
};

// The two functions that need no index.
std::int32_t engine_format_version(CallLog& log);
struct TunerDefaults {
  std::uint32_t first = 0;
  std::uint32_t second = 0;
};
TunerDefaults engine_tuner_defaults(CallLog& log);

#endif
