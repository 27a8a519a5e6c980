// Which rows a current read takes, in walk order: the delta rows in delta order, then the base rows
// in base order, span by span. How it finds out is decided here. It knows nothing of vectors.
#pragma once

#include "read/filter.h"
#include "read/visibility.h"

namespace qx {

// Use: while (selection.next()) read(selection.span()). Takes 64 KiB of stack.
class Selection {
 public:
  // Of the visible rows that pass the filter.
  // cppcheck-suppress uninitMemberVar ; bitmap_ is set for each span that is tested
  Selection(const QxIndex& index, const Filter& filter) : index_(index), filter_(filter) {}

  // Moves to the next span. Returns false after the last one.
  bool next();

  // The span, until the next call of next().
  RowSpan span() const {
    return {{in_delta_, first_}, count_, all_ids_ + first_, takes_all_ ? nullptr : bitmap_.words()};
  }

 private:
  // Rows of a span that are looked up one by one: their ids stay in the first-level cache until the
  // rows are read.
  static constexpr std::int64_t kLookupSpan = std::min<std::int64_t>(1024, RowBitmap::kMaxRows);

  // How base rows are tested: not at all, by bits marked from ids, or by a lookup for each row.
  enum class Test { kNone, kMarked, kLookup };

  bool has_marks() const { return hidden_ == Test::kMarked || passing_ == Test::kMarked; }
  void enter_base();
  void select();
  void apply_lookups();
  void recompute_duplicates();

  const QxIndex& index_;
  Filter filter_;
  Visibility visibility_{index_};
  Int64Map::Cursor metadata_;
  Test hidden_ = Test::kLookup;
  Test passing_ = Test::kLookup;

  bool in_delta_ = true;
  bool takes_all_ = false;
  const std::int64_t* all_ids_ = index_.delta_ids.data;
  std::int64_t rows_ = index_.delta_ids.length;  // of the delta, or of the base
  std::int64_t span_rows_ = kLookupSpan;         // at most
  std::int64_t first_ = 0;
  std::int64_t count_ = 0;
  RowBitmap bitmap_;
};

}  // namespace qx
