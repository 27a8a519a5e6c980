#include "read/visibility.h"

namespace qx {
namespace {

// What an absent tombstone, and an absent delta row, read as.
constexpr std::int64_t kNoTombstone = 0;
constexpr std::int64_t kNoRow = -1;

bool is_deleted(std::int64_t tombstone) { return tombstone != kNoTombstone; }
bool is_row(std::int64_t row) { return row >= 0; }

}  // namespace

std::uint64_t Visibility::hidden_delta_rows(const std::int64_t* ids, std::int64_t count) {
  if (index_.deleted_at.size() == 0) return 0;
  std::int64_t stamps[kMaskRows];
  index_.deleted_at.get_batch(ids, count, kNoTombstone, stamps, tombstones_);
  std::uint64_t mask = 0;
  for (std::int64_t i = 0; i < count; ++i) mask |= std::uint64_t{is_deleted(stamps[i])} << i;
  return mask;
}

std::uint64_t Visibility::hidden_base_rows(const std::int64_t* ids, std::int64_t count) {
  std::int64_t rows[kMaskRows];
  index_.delta_pos.get_batch(ids, count, kNoRow, rows, delta_rows_);
  std::uint64_t superseded = 0;
  for (std::int64_t i = 0; i < count; ++i) superseded |= std::uint64_t{is_row(rows[i])} << i;
  return superseded | hidden_delta_rows(ids, count);
}

void Visibility::clear_hidden(RowBitmap& bitmap) const {
  const auto clear = [&](std::int64_t row) { bitmap.clear(row); };
  const auto has_row = [](std::int64_t row) { return is_row(row); };
  const auto has_tombstone = [](std::int64_t tombstone) { return is_deleted(tombstone); };
  for_each_base_row(index_, index_.delta_pos, has_row, clear);
  for_each_base_row(index_, index_.deleted_at, has_tombstone, clear);
}

std::uint64_t Visibility::find(const std::int64_t* ids, std::int64_t count, Row* rows) {
  std::int64_t delta_rows[kMaskRows];
  for (std::int64_t i = 0; i < count; ++i) prefetch_base_row_of(index_, ids[i]);
  index_.delta_pos.get_batch(ids, count, kNoRow, delta_rows, delta_rows_);
  std::uint64_t found = 0;
  for (std::int64_t i = 0; i < count; ++i) {
    const bool in_delta = is_row(delta_rows[i]);
    rows[i] = {in_delta, in_delta ? delta_rows[i] : base_row_of(index_, ids[i])};
    found |= std::uint64_t{is_row(rows[i].number)} << i;
  }
  return found & ~hidden_delta_rows(ids, count);
}

}  // namespace qx
