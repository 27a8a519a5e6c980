// A call sequence of all functions that reaches every place where the engine allocates, growth
// included.
#pragma once

#include <cstddef>
#include <cstdint>
#include <numeric>
#include <vector>

#include "qx_runtime.h"

namespace qx_test {

class Scenario {
 public:
  // Vectors and queries depend on `number`.
  explicit Scenario(std::int32_t n_rows = 20, std::int32_t dimension = 3, std::size_t number = 0)
      : rows(n_rows),
        dim(dimension),
        ids(static_cast<std::size_t>(rows)),
        vectors(ids.size() * static_cast<std::size_t>(dim)),
        values(2 * ids.size(), 1),
        part_starts{0, rows / 2},
        part_sizes{rows / 2, rows / 2},
        list_offsets{0, rows / 3, rows},
        out_ids(2 * ids.size()),
        out_values(2 * ids.size()),
        out_floats(2 * vectors.size()) {
    std::iota(ids.begin(), ids.end(), 0);
    for (std::size_t i = 0; i < vectors.size(); ++i) {
      vectors[i] = static_cast<float>((i + number) * 7919 % 1009) / 64.0f;
    }
  }

  // Every call that stores something, each often enough for its arrays and maps to grow.
  void write(QxIndex* index) const {
    qx_index_build(index, vectors.data(), rows, dim, ids.data(), part_keys.data(),
                   part_starts.data(), part_sizes.data(), 2);
    for (std::int64_t i = 0; i < rows; ++i) {
      const std::int64_t id = i + rows / 2;
      qx_index_insert(index, vectors.data() + dim, &id, 1);
      const std::int64_t other = -i;
      qx_index_delete(index, &other, 1);
    }
    qx_index_set_rowmeta(index, ids.data(), ids.data(), values.data(), 1, rows);
    qx_index_set_rowmeta(index, ids.data(), ids.data(), values.data(), 2, rows);
    for (std::int64_t key = 0; key < 10; ++key) {
      qx_index_set_ivf(index, key % 6, 2, 2, vectors.data(), ids.data(), list_offsets.data(), rows);
    }
  }

  // Every read that promises not to allocate. Calls note(result) after each.
  template <typename Note>
  void read_without_ivf(const QxIndex* index, std::int32_t k, Note note) {
    const auto unsigned_k = static_cast<std::uint32_t>(k);
    const auto n = static_cast<std::uint32_t>(rows);
    std::uint64_t n_base;
    std::uint32_t number;
    std::uint32_t other_number;
    std::int32_t n_parts;
    const float* const query = vectors.data();
    std::int64_t* const out = out_ids.data();
    float* const scores = out_floats.data();
    note(qx_index_stats(index, &n_base, &number, &other_number, &n_parts));
    note(static_cast<std::int64_t>(qx_index_snapshot(index)));
    note(qx_index_mutated(index));
    note(qx_index_sealed(index));
    note(qx_index_delta_count(index));
    note(qx_runtime_format_version());
    note(qx_tuner_defaults(&number, &other_number));
    note(qx_index_tuner_oversized(index, 1, out, out_values.data()));
    note(qx_index_export_base(index, scores, out));
    note(qx_index_search_full(index, query, k, out, scores));
    note(qx_index_search_partition(index, 2, query, k, out, scores));
    note(qx_index_scatter_topk(index, ids.data(), rows, query, k, out, scores));
    note(qx_index_search_mvcc(index, ids.data(), rows, query, unsigned_k, out, scores));
    note(qx_index_search_filtered(index, QX_FILTER_ALL, 0, 0, query, unsigned_k, out, scores));
    note(qx_index_search_filtered(index, QX_FILTER_COLUMN, 0, 1, query, unsigned_k, out, scores));
    note(qx_index_export_rowmeta(index, ids.data(), n, out, out_values.data()));
    note(qx_index_match_ids(index, QX_FILTER_LABEL, 0, 3, out));
    note(qx_index_visible_ids(index, out));
    note(qx_index_visible_count(index));
    note(qx_index_export_visible(index, scores, out));
    note(qx_index_has_ivf(index, 3));
  }

  std::int32_t search_ivf(const QxIndex* index, std::int32_t k) {
    return qx_index_search_ivf(index, 3, vectors.data(), k, out_ids.data(), out_floats.data());
  }

  void play() {
    QxIndex* const index = qx_index_new(static_cast<std::uint32_t>(dim), 0);
    write(index);
    search_ivf(index, 5);
    qx_index_free(index);
  }

  const std::int32_t rows;
  const std::int32_t dim;
  std::vector<std::int64_t> ids;
  std::vector<float> vectors;
  const std::vector<std::int64_t> values;
  const std::vector<std::int64_t> part_keys = {1, 2};
  const std::vector<std::int32_t> part_starts;
  const std::vector<std::int32_t> part_sizes;
  const std::vector<std::int32_t> list_offsets;
  std::vector<std::int64_t> out_ids;
  std::vector<std::int64_t> out_values;
  std::vector<float> out_floats;
};

}  // namespace qx_test
