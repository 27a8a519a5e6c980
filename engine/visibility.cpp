// Current reads without a predicate: search over listed ids; count, listing and export of what is
// visible.
#include "visibility.h"

#include <algorithm>
#include <cstring>

#include "scan.h"

int64_t qx_index_search_mvcc(const QxIndex* index, const int64_t* ids, int32_t n,
                             const float* query, uint32_t k, int64_t* out_ids, float* out_scores) {
  const auto results = static_cast<std::int32_t>(k);
  if (results < 1) return 0;
  qx::TopK topk(out_ids, out_scores, results);
  qx::Scan scan({query, qx::row_width(*index), n, qx::base_magnitude(*index)}, topk);
  qx::Changes lookups(*index);
  for (std::int64_t first = 0; first < n; first += qx::kBlock) {
    const std::int64_t count = std::min<std::int64_t>(qx::kBlock, n - first);
    qx::FoundRow rows[qx::kBlock];
    const std::uint64_t visible = qx::find_visible(*index, lookups, ids + first, count, rows);
    qx::for_each_bit(visible, [&](std::int64_t i) {
      const auto [in_delta, row] = rows[i];
      scan.add(qx::vector_of(*index, in_delta, row), ids[first + i], !in_delta);
    });
  }
  scan.finish();
  return results;
}

int64_t qx_index_visible_ids(const QxIndex* index, int64_t* out_ids) {
  std::int64_t count = 0;
  qx::walk_rows(*index, qx::EveryId(), [&](const qx::RowBlock& block) {
    count += qx::copy_selected(block.ids, block.visible, out_ids + count);
  });
  return count;
}

int64_t qx_index_visible_count(const QxIndex* index) {
  std::int64_t count = 0;
  qx::walk_rows(*index, qx::EveryId(),
                [&](const qx::RowBlock& block) { count += qx::count_bits(block.visible); });
  return count;
}

int64_t qx_index_export_visible(const QxIndex* index, float* out_vectors, int64_t* out_ids) {
  const std::int64_t width = qx::row_width(*index);
  std::int64_t count = 0;
  qx::walk_rows(*index, qx::EveryId(), [&](const qx::RowBlock& block) {
    qx::for_each_bit(block.visible, [&](std::int64_t i) {
      if (width > 0) {
        std::memcpy(out_vectors + count * width,
                    qx::vector_of(*index, block.in_delta, block.first + i),
                    static_cast<std::size_t>(width) * sizeof(float));
      }
      out_ids[count++] = block.ids[i];
    });
  });
  return count;
}
