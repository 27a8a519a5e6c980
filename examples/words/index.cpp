#include "index.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <stdexcept>

namespace {

// A broken condition is a fault of this program, never of its user: it must not reach the engine,
// which trusts its host.
void require(bool condition, const char* what) {
  if (!condition) throw std::logic_error(what);
}

std::int32_t count_of(std::size_t size) {
  require(size <= static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()),
          "too many elements for one engine call");
  return static_cast<std::int32_t>(size);
}

// The output arrays of a search, and what the engine wrote to them.
struct Slots {
  explicit Slots(std::int32_t k)
      : ids(static_cast<std::size_t>(k)), scores(static_cast<std::size_t>(k)) {}

  Hits hits(std::int64_t written) const {
    Hits result;
    for (std::size_t i = 0; i < static_cast<std::size_t>(written); ++i) {
      if (!is_empty(i)) result.push_back({ids[i], scores[i]});
    }
    return result;
  }

  bool is_empty(std::size_t slot) const {
    return ids[slot] == QX_EMPTY_ID && scores[slot] == QX_EMPTY_SCORE;
  }

  std::vector<std::int64_t> ids;
  std::vector<float> scores;
};

}  // namespace

bool identical(const Hits& left, const Hits& right) {
  const auto same_bits = [](const Hit& a, const Hit& b) {
    return a.id == b.id &&
           std::bit_cast<std::uint32_t>(a.score) == std::bit_cast<std::uint32_t>(b.score);
  };
  return std::equal(left.begin(), left.end(), right.begin(), right.end(), same_bits);
}

Index::Index(std::int32_t dimension, std::uint32_t user_tag, CallLog& log)
    : log_(log), dimension_(dimension), handle_(nullptr) {
  require(dimension > 0, "an index needs a dimension of at least 1");
  const CallTimer timer(log_, "qx_index_new");
  handle_ = qx_index_new(static_cast<std::uint32_t>(dimension), user_tag);
}

void Index::release() {
  if (handle_ == nullptr) return;
  const CallTimer timer(log_, "qx_index_free");
  qx_index_free(handle_);
  handle_ = nullptr;
}

std::size_t Index::row_floats(std::size_t rows) const {
  return rows * static_cast<std::size_t>(dimension_);
}

void Index::check_search(std::span<const float> query, std::int32_t k) const {
  require(query.size() == row_floats(1), "the query has another dimension than the index");
  require(k >= 1, "k is below 1");
}

IndexStats Index::stats() const {
  IndexStats stats;
  const CallTimer timer(log_, "qx_index_stats");
  qx_index_stats(handle_, &stats.base_rows, &stats.dimension, &stats.user_tag, &stats.partitions);
  return stats;
}

std::uint64_t Index::snapshot() const {
  const CallTimer timer(log_, "qx_index_snapshot");
  return qx_index_snapshot(handle_);
}

bool Index::mutated() const {
  const CallTimer timer(log_, "qx_index_mutated");
  return qx_index_mutated(handle_) == 1;
}

bool Index::sealed() const {
  const CallTimer timer(log_, "qx_index_sealed");
  return qx_index_sealed(handle_) == 1;
}

std::int64_t Index::delta_count() const {
  const CallTimer timer(log_, "qx_index_delta_count");
  return qx_index_delta_count(handle_);
}

bool Index::build(const Rows& rows, const Partitions& partitions) {
  require(rows.vectors.size() == row_floats(rows.ids.size()), "rows of another dimension");
  require(partitions.keys.size() == partitions.starts.size() &&
              partitions.keys.size() == partitions.sizes.size(),
          "a partition table with columns of different lengths");
  const CallTimer timer(log_, "qx_index_build");
  return qx_index_build(handle_, rows.vectors.data(), static_cast<std::int64_t>(rows.ids.size()),
                        dimension_, rows.ids.data(), partitions.keys.data(),
                        partitions.starts.data(), partitions.sizes.data(),
                        count_of(partitions.keys.size())) == 0;
}

Rows Index::export_base() const {
  const std::size_t count = static_cast<std::size_t>(stats().base_rows);
  Rows rows{std::vector<float>(row_floats(count)), std::vector<std::int64_t>(count)};
  const CallTimer timer(log_, "qx_index_export_base");
  qx_index_export_base(handle_, rows.vectors.data(), rows.ids.data());
  return rows;
}

Hits Index::search_full(std::span<const float> query, std::int32_t k) const {
  check_search(query, k);
  Slots slots(k);
  std::int32_t written = 0;
  {
    const CallTimer timer(log_, "qx_index_search_full");
    written = qx_index_search_full(handle_, query.data(), k, slots.ids.data(), slots.scores.data());
  }
  return slots.hits(written);
}

Hits Index::search_partition(std::int64_t key, std::span<const float> query, std::int32_t k) const {
  check_search(query, k);
  Slots slots(k);
  std::int32_t written = 0;
  {
    const CallTimer timer(log_, "qx_index_search_partition");
    written = qx_index_search_partition(handle_, key, query.data(), k, slots.ids.data(),
                                        slots.scores.data());
  }
  return slots.hits(written);
}

Hits Index::search_candidates(std::span<const std::int64_t> ids, std::span<const float> query,
                              std::int32_t k) const {
  check_search(query, k);
  Slots slots(k);
  std::int32_t written = 0;
  {
    const CallTimer timer(log_, "qx_index_scatter_topk");
    written = qx_index_scatter_topk(handle_, ids.data(), count_of(ids.size()), query.data(), k,
                                    slots.ids.data(), slots.scores.data());
  }
  return slots.hits(written);
}

Oversized Index::oversized_partitions(std::int32_t threshold) const {
  const std::size_t count = static_cast<std::size_t>(stats().partitions);
  Oversized found{std::vector<std::int64_t>(count), std::vector<std::int64_t>(count)};
  std::int32_t listed = 0;
  {
    const CallTimer timer(log_, "qx_index_tuner_oversized");
    listed = qx_index_tuner_oversized(handle_, threshold, found.keys.data(), found.sizes.data());
  }
  found.keys.resize(static_cast<std::size_t>(listed));
  found.sizes.resize(static_cast<std::size_t>(listed));
  return found;
}

std::uint64_t Index::insert(const Rows& rows) {
  require(rows.vectors.size() == row_floats(rows.ids.size()), "rows of another dimension");
  const CallTimer timer(log_, "qx_index_insert");
  return qx_index_insert(handle_, rows.vectors.data(), rows.ids.data(), count_of(rows.ids.size()));
}

std::uint64_t Index::erase(std::span<const std::int64_t> ids) {
  const CallTimer timer(log_, "qx_index_delete");
  return qx_index_delete(handle_, ids.data(), count_of(ids.size()));
}

void Index::set_ivf(std::int64_t key, std::int32_t probes, const IvfLists& lists) {
  require(!lists.offsets.empty() && lists.offsets.front() == 0 &&
              std::is_sorted(lists.offsets.begin(), lists.offsets.end()) &&
              lists.offsets.back() == count_of(lists.ids.size()),
          "the offsets of the lists point outside the ids");
  require(lists.centroids.size() == row_floats(static_cast<std::size_t>(lists.count())),
          "centroids of another dimension");
  const CallTimer timer(log_, "qx_index_set_ivf");
  qx_index_set_ivf(handle_, key, lists.count(), probes, lists.centroids.data(), lists.ids.data(),
                   lists.offsets.data(), count_of(lists.ids.size()));
}

bool Index::has_ivf(std::int64_t key) const {
  const CallTimer timer(log_, "qx_index_has_ivf");
  return qx_index_has_ivf(handle_, key) == 1;
}

void Index::clear_ivf() {
  const CallTimer timer(log_, "qx_index_clear_ivf");
  qx_index_clear_ivf(handle_);
}

bool Index::set_ivf_probes(std::int64_t key, std::int32_t probes) {
  const CallTimer timer(log_, "qx_index_set_ivf_nprobe");
  return qx_index_set_ivf_nprobe(handle_, key, probes) == 0;
}

Hits Index::search_ivf(std::int64_t key, std::span<const float> query, std::int32_t k) const {
  check_search(query, k);
  Slots slots(k);
  std::int32_t written = 0;
  {
    const CallTimer timer(log_, "qx_index_search_ivf");
    written =
        qx_index_search_ivf(handle_, key, query.data(), k, slots.ids.data(), slots.scores.data());
  }
  return slots.hits(written);
}

bool Index::set_metadata(std::span<const std::int64_t> ids, const Metadata& metadata) {
  require(metadata.columns >= 0 && metadata.labels.size() == ids.size() &&
              metadata.values.size() == ids.size() * static_cast<std::size_t>(metadata.columns),
          "metadata of another shape than the ids");
  const CallTimer timer(log_, "qx_index_set_rowmeta");
  return qx_index_set_rowmeta(handle_, ids.data(), metadata.labels.data(), metadata.values.data(),
                              metadata.columns, count_of(ids.size())) == 0;
}

Metadata Index::export_metadata(std::span<const std::int64_t> ids) const {
  Metadata metadata;
  metadata.columns = qx_index_export_rowmeta(handle_, nullptr, 0, nullptr, nullptr);
  metadata.labels.resize(ids.size());
  metadata.values.resize(ids.size() * static_cast<std::size_t>(metadata.columns));
  const CallTimer timer(log_, "qx_index_export_rowmeta");
  qx_index_export_rowmeta(handle_, ids.data(), static_cast<std::uint32_t>(count_of(ids.size())),
                          metadata.labels.data(), metadata.values.data());
  return metadata;
}

Hits Index::search_current(std::span<const std::int64_t> ids, std::span<const float> query,
                           std::int32_t k) const {
  check_search(query, k);
  Slots slots(k);
  std::int64_t written = 0;
  {
    const CallTimer timer(log_, "qx_index_search_mvcc");
    written =
        qx_index_search_mvcc(handle_, ids.data(), count_of(ids.size()), query.data(),
                             static_cast<std::uint32_t>(k), slots.ids.data(), slots.scores.data());
  }
  return slots.hits(written);
}

Hits Index::search_filtered(const Filter& filter, std::span<const float> query,
                            std::int32_t k) const {
  check_search(query, k);
  Slots slots(k);
  std::int64_t written = 0;
  {
    const CallTimer timer(log_, "qx_index_search_filtered");
    written = qx_index_search_filtered(handle_, filter.mode, filter.column, filter.value,
                                       query.data(), static_cast<std::uint32_t>(k),
                                       slots.ids.data(), slots.scores.data());
  }
  return slots.hits(written);
}

std::size_t Index::visible_room() const {
  return static_cast<std::size_t>(qx_index_visible_count(handle_));
}

std::vector<std::int64_t> Index::match_ids(const Filter& filter) const {
  std::vector<std::int64_t> ids(visible_room());
  std::int64_t matched = 0;
  {
    const CallTimer timer(log_, "qx_index_match_ids");
    matched = qx_index_match_ids(handle_, filter.mode, filter.column, filter.value, ids.data());
  }
  ids.resize(static_cast<std::size_t>(matched));
  return ids;
}

std::vector<std::int64_t> Index::visible_ids() const {
  std::vector<std::int64_t> ids(visible_room());
  const CallTimer timer(log_, "qx_index_visible_ids");
  qx_index_visible_ids(handle_, ids.data());
  return ids;
}

std::int64_t Index::visible_count() const {
  const CallTimer timer(log_, "qx_index_visible_count");
  return qx_index_visible_count(handle_);
}

Rows Index::export_visible() const {
  const std::size_t count = visible_room();
  Rows rows{std::vector<float>(row_floats(count)), std::vector<std::int64_t>(count)};
  const CallTimer timer(log_, "qx_index_export_visible");
  qx_index_export_visible(handle_, rows.vectors.data(), rows.ids.data());
  return rows;
}

std::int32_t engine_format_version(CallLog& log) {
  const CallTimer timer(log, "qx_runtime_format_version");
  return qx_runtime_format_version();
}

TunerDefaults engine_tuner_defaults(CallLog& log) {
  TunerDefaults defaults;
  const CallTimer timer(log, "qx_tuner_defaults");
  qx_tuner_defaults(&defaults.first, &defaults.second);
  return defaults;
}
