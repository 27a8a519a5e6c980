// A call sequence that reaches every place where the engine allocates, growth included.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qx_runtime.h"

namespace qx_test {

struct Scenario {
  static constexpr std::int32_t kRows = 20;
  static constexpr std::int32_t kDim = 3;

  std::vector<float> vectors = std::vector<float>(std::size_t{kRows} * kDim, 0.5f);
  std::vector<std::int64_t> ids;
  std::vector<std::int64_t> values = std::vector<std::int64_t>(std::size_t{kRows} * 2, 1);
  std::vector<std::int64_t> part_keys = {1, 2};
  std::vector<std::int32_t> part_starts = {0, 10};
  std::vector<std::int32_t> part_sizes = {10, 10};
  std::vector<std::int32_t> list_offsets = {0, 8, kRows};
  std::vector<std::int64_t> out_ids = std::vector<std::int64_t>(2 * std::size_t{kRows});
  std::vector<std::int64_t> out_values = std::vector<std::int64_t>(2 * std::size_t{kRows});
  std::vector<float> out_floats = std::vector<float>(2 * std::size_t{kRows} * kDim);

  Scenario() {
    for (std::int64_t i = 0; i < kRows; ++i) ids.push_back(i);
  }

  // Every call that stores something, each often enough for its arrays and maps to grow.
  void write(QxIndex* index) {
    qx_index_build(index, vectors.data(), kRows, kDim, ids.data(), part_keys.data(),
                   part_starts.data(), part_sizes.data(), 2);
    for (std::int64_t i = 0; i < kRows; ++i) {
      const std::int64_t id = i + kRows / 2;
      qx_index_insert(index, vectors.data(), &id, 1);
      const std::int64_t other = -i;
      qx_index_delete(index, &other, 1);
    }
    qx_index_set_rowmeta(index, ids.data(), ids.data(), values.data(), 1, kRows);
    qx_index_set_rowmeta(index, ids.data(), ids.data(), values.data(), 2, kRows);
    for (std::int64_t key = 0; key < 10; ++key) {
      qx_index_set_ivf(index, key % 6, 2, 2, vectors.data(), ids.data(), list_offsets.data(),
                       kRows);
    }
  }

  // Every read that promises not to allocate.
  void read_without_ivf(QxIndex* index) {
    std::uint64_t n_base;
    std::uint32_t number;
    std::uint32_t other_number;
    std::int32_t n_parts;
    std::int64_t* const out = out_ids.data();
    float* const scores = out_floats.data();
    qx_index_stats(index, &n_base, &number, &other_number, &n_parts);
    qx_index_snapshot(index);
    qx_index_mutated(index);
    qx_index_sealed(index);
    qx_index_delta_count(index);
    qx_runtime_format_version();
    qx_tuner_defaults(&number, &other_number);
    qx_index_tuner_oversized(index, 1, out, out_values.data());
    qx_index_export_base(index, scores, out);
    qx_index_search_full(index, vectors.data(), 5, out, scores);
    qx_index_search_partition(index, 2, vectors.data(), 5, out, scores);
    qx_index_scatter_topk(index, ids.data(), kRows, vectors.data(), 5, out, scores);
    qx_index_search_mvcc(index, ids.data(), kRows, vectors.data(), 5, out, scores);
    qx_index_search_filtered(index, 2, 0, 1, vectors.data(), 5, out, scores);
    qx_index_export_rowmeta(index, ids.data(), kRows, out, out_values.data());
    qx_index_match_ids(index, 1, 0, 3, out);
    qx_index_visible_ids(index, out);
    qx_index_visible_count(index);
    qx_index_export_visible(index, scores, out);
    qx_index_has_ivf(index, 3);
  }

  void search_ivf(QxIndex* index) {
    qx_index_search_ivf(index, 3, vectors.data(), 5, out_ids.data(), out_floats.data());
  }

  void play() {
    QxIndex* const index = qx_index_new(kDim, 0);
    write(index);
    search_ivf(index);
    qx_index_free(index);
  }
};

}  // namespace qx_test
