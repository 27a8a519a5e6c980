// Labels and columns per id, the predicate over them, and the reads that it restricts.
#include <algorithm>
#include <cstdint>

#include "qx_index.h"
#include "scan.h"
#include "visibility.h"

namespace qx {
namespace {

// What a missing label or column value reads as, everywhere.
constexpr std::int64_t kMissing = -1;

// The predicate: every id in mode 0, a label's value in mode 1, a column's in the others. It judges
// the blocks of one walk.
class Predicate {
 public:
  Predicate(const QxIndex& index, std::uint32_t mode, std::int32_t column, std::int64_t value)
      : index_(index), mode_(mode), column_(column), value_(value) {}

  // Which of the ids pass. Neighbours are judged together, visible or not: metadata attached in
  // the order of the rows is then read in its own order.
  std::uint64_t _match(const std::int64_t* ids, std::int64_t count) {
    if (mode_ == 0) return first_bits(count);
    if (mode_ == 1) return have_value(index_.row_labels, ids, count);
    if (column_ < 0 || column_ >= index_.meta_ncols) return 0;
    return have_value(index_.meta_columns.at(column_), ids, count);
  }

  // Few rows that pass are found faster from the metadata, one entry after the other, than from the
  // rows. A sample tells whether they are few; of a predicate that missing metadata passes, those
  // that do not pass.
  bool pays_ahead(const QxIndex& index) const {
    constexpr std::int64_t kSample = 256;
    const Int64Map* const map = metadata();
    if (map == nullptr || !RowSet::pays(map->size(), index.n_base)) return false;
    const std::int64_t step = std::max<std::int64_t>(map->size() / kSample, 1);
    std::int64_t sampled = 0;
    std::int64_t marked = 0;
    for (std::int64_t i = 0; i < map->size(); i += step) {
      ++sampled;
      marked += is_marked(map->begin()[i]) ? 1 : 0;
    }
    return marked * 4 <= sampled;
  }

  void mark(const QxIndex& index, RowSet& rows, std::int64_t first, std::int64_t count) const {
    rows.reset(first, count, missing_passes());
    for_each_base_row(
        index, *metadata(), [&](const Int64Map::Entry& entry) { return is_marked(entry); },
        [&](std::int64_t row) { missing_passes() ? rows.remove(row) : rows.add(row); });
  }

 private:
  std::uint64_t have_value(const Int64Map& map, const std::int64_t* ids, std::int64_t count) {
    std::int64_t values[kBlock];
    map.get_batch(ids, count, kMissing, values, guess_);
    std::uint64_t mask = 0;
    for (std::int64_t i = 0; i < count; ++i) mask |= std::uint64_t{values[i] == value_} << i;
    return mask;
  }

  // The map that is asked, if there is one.
  const Int64Map* metadata() const {
    if (mode_ == 0) return nullptr;
    if (mode_ == 1) return &index_.row_labels;
    const bool exists =
        column_ >= 0 && column_ < index_.meta_ncols && column_ < index_.meta_columns.length;
    return exists ? &index_.meta_columns.at(column_) : nullptr;
  }

  // An id without metadata reads as kMissing. Where that passes, the entries tell which ids do not.
  bool missing_passes() const { return value_ == kMissing; }
  bool is_marked(const Int64Map::Entry& entry) const {
    return (entry.value == value_) != missing_passes();
  }

  const QxIndex& index_;
  const std::uint32_t mode_;
  const std::int32_t column_;
  const std::int64_t value_;
  std::int64_t guess_ = 0;
};

// Walks over the blocks of all rows; their masks are of the rows that are visible and pass.
template <typename Visit>
void walk_passing(const QxIndex& index, Predicate predicate, Visit&& visit) {
  walk_rows(index, predicate, visit);
}

}  // namespace
}  // namespace qx

int32_t qx_index_set_rowmeta(QxIndex* index, const int64_t* ids, const int64_t* labels,
                             const int64_t* values, int32_t ncols, int32_t n) {
  if (ncols < index->meta_ncols) return -1;
  while (index->meta_columns.length < ncols) index->meta_columns.append(qx::Int64Map());
  index->meta_ncols = ncols;
  index->row_labels.assign_batch(ids, n, [&](std::int64_t i) { return labels[i]; });
  for (std::int64_t c = 0; c < ncols; ++c) {
    index->meta_columns.at(c).assign_batch(ids, n,
                                           [&](std::int64_t i) { return values[i * ncols + c]; });
  }
  return 0;
}

int32_t qx_index_export_rowmeta(const QxIndex* index, const int64_t* ids, uint32_t n,
                                int64_t* out_labels, int64_t* out_values) {
  const std::int64_t ncols = index->meta_ncols;
  for (std::int64_t i = 0; i < static_cast<std::int32_t>(n); ++i) {
    out_labels[i] = index->row_labels.get(ids[i], qx::kMissing);
    for (std::int64_t c = 0; c < ncols; ++c) {
      out_values[i * ncols + c] = index->meta_columns.at(c).get(ids[i], qx::kMissing);
    }
  }
  return index->meta_ncols;
}

int64_t qx_index_search_filtered(const QxIndex* index, uint32_t mode, int32_t column, int64_t value,
                                 const float* query, uint32_t k, int64_t* out_ids,
                                 float* out_scores) {
  const auto results = static_cast<std::int32_t>(k);
  if (results < 1) return 0;
  qx::TopK topk(out_ids, out_scores, results);
  const std::int64_t rows = index->n_base + index->delta_ids.length;
  qx::Scan scan({query, qx::row_width(*index), rows, qx::base_magnitude(*index)}, topk);
  qx::walk_passing(*index, {*index, mode, column, value}, [&](const qx::RowBlock& block) {
    if (!block.in_delta && 2 * qx::count_bits(block.visible) > block.count) {
      scan.add_masked(qx::base_vector(*index, block.first), block.ids, block.count, block.visible,
                      index->n_base);
      return;
    }
    qx::for_each_bit(block.visible, [&](std::int64_t i) {
      const float* const vector = qx::vector_of(*index, block.in_delta, block.first + i);
      scan.add(vector, block.ids[i], !block.in_delta);
    });
  });
  scan.finish();
  return results;
}

int64_t qx_index_match_ids(const QxIndex* index, uint32_t mode, int32_t column, int64_t value,
                           int64_t* out_ids) {
  std::int64_t count = 0;
  qx::walk_passing(*index, {*index, mode, column, value}, [&](const qx::RowBlock& block) {
    count += qx::copy_selected(block.ids, block.visible, out_ids + count);
  });
  return count;
}
