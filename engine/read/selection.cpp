#include "read/selection.h"

namespace qx {

bool Selection::next() {
  first_ += count_;
  if (in_delta_ && first_ == rows_) enter_base();
  count_ = std::min(span_rows_, rows_ - first_);
  if (count_ == 0) return false;
  select();
  return true;
}

// Where nothing has changed and every id passes, no row is tested.
void Selection::enter_base() {
  const std::int64_t changes = visibility_.changes();
  const bool marks = RowBitmap::is_worthwhile(changes, index_.n_base);
  hidden_ = changes == 0 ? Test::kNone : marks ? Test::kMarked : Test::kLookup;
  passing_ = filter_.passes_all()               ? Test::kNone
             : prefers_marking(index_, filter_) ? Test::kMarked
                                                : Test::kLookup;
  in_delta_ = false;
  all_ids_ = index_.base_ids;
  rows_ = index_.n_base;
  first_ = count_ = 0;
  takes_all_ = hidden_ == Test::kNone && passing_ == Test::kNone;
  span_rows_ = takes_all_ ? rows_ : has_marks() ? RowBitmap::kMaxRows : kLookupSpan;
}

void Selection::select() {
  if (takes_all_) return;
  if (passing_ == Test::kMarked) {
    mark_passing(index_, filter_, first_, count_, bitmap_);
  } else {
    bitmap_.reset(first_, count_, true);
  }
  if (hidden_ == Test::kMarked) visibility_.clear_hidden(bitmap_);
  if (has_marks()) recompute_duplicates();
  if (passing_ == Test::kLookup || hidden_ == Test::kLookup) apply_lookups();
}

// Tests what no bit has been marked for, except where no row of a mask is left.
void Selection::apply_lookups() {
  for (std::int64_t offset = 0; offset < count_; offset += kMaskRows) {
    const std::int64_t rows = std::min(kMaskRows, count_ - offset);
    const std::int64_t* const ids = all_ids_ + first_ + offset;
    std::uint64_t mask = bitmap_.mask(offset) & first_bits(rows);
    if (mask != 0 && hidden_ == Test::kLookup) {
      mask &= ~(in_delta_ ? visibility_.hidden_delta_rows(ids, rows)
                          : visibility_.hidden_base_rows(ids, rows));
    }
    if (mask != 0 && passing_ == Test::kLookup) {
      mask &= _match(index_, filter_, ids, rows, metadata_);
    }
    bitmap_.set_mask(offset, mask);
  }
}

// Bits are marked through id_to_row, which knows only the last row of an id. Recomputes those of
// the duplicates before it, by lookups.
void Selection::recompute_duplicates() {
  const Array<std::int64_t>& all = index_.duplicate_rows;
  const std::int64_t* const all_end = all.data + all.length;
  const std::int64_t* next = std::lower_bound<const std::int64_t*>(all.data, all_end, first_);
  const std::int64_t* const end = std::lower_bound(next, all_end, first_ + count_);
  while (next != end) {
    const std::int64_t count = std::min<std::int64_t>(kMaskRows, end - next);
    std::int64_t ids[kMaskRows];
    for (std::int64_t i = 0; i < count; ++i) ids[i] = index_.base_ids[next[i]];
    std::uint64_t mask = first_bits(count);
    if (hidden_ == Test::kMarked) mask &= ~visibility_.hidden_base_rows(ids, count);
    if (passing_ == Test::kMarked) mask &= _match(index_, filter_, ids, count, metadata_);
    for (std::int64_t i = 0; i < count; ++i) {
      (mask >> i & 1) != 0 ? bitmap_.set(next[i]) : bitmap_.clear(next[i]);
    }
    next += count;
  }
}

}  // namespace qx
