// Rows on their way from the tables into a collection.
#pragma once

#include <qx_collection.h>

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "declaration.h"
#include "storage.h"

namespace qx_sqlite {

struct FreeView {
  void operator()(QxView* view) const { qx_view_free(view); }
};
using ViewPointer = std::unique_ptr<QxView, FreeView>;
using CollectionPointer = std::shared_ptr<QxCollection>;

// Throws what is wrong with a call of the collection.
void check_call(std::int32_t status);

// A value of a column, as a collection takes it, or as the error says.
void check_value(const Column& column, int type, sqlite3_value* value);

// Ids and values, without vectors.
class Batch {
 public:
  // With room for so many rows.
  Batch(const Declaration& declaration, bool with_lists, std::size_t room);
  Storage::Columns columns() const {
    return list_at_ ? Storage::Columns::kFiltersAndList : Storage::Columns::kFilters;
  }
  // Of Storage::select_rows, with these columns. Throws where the row is damaged, or there is no
  // room.
  void add(const Statement& row);

  // As many as there is room for.
  std::vector<std::int64_t> rowids;
  std::vector<std::int64_t> places;
  std::vector<std::uint32_t> lists;  // none without lists

  std::size_t rows() const { return rows_; }
  bool is_full() const { return rows_ == rowids.size(); }
  QxIds ids(std::size_t rows) const {
    return {static_cast<std::int64_t>(rows), rowids.data(), nullptr};
  }
  const std::vector<QxValues>& values();

 private:
  struct Values {
    ColumnKind kind;
    std::string name;
    int at;  // in the row
    std::vector<std::int64_t> integers;
    std::vector<double> reals;
    std::vector<std::uint8_t> nulls;
    std::deque<std::string> texts;
    std::vector<QxText> text_pointers;
  };
  std::vector<Values> columns_;
  std::size_t rows_ = 0;
  std::optional<int> list_at_;
  std::vector<QxValues> pointers_;
};

// A collection with all rows of a table. Throws where they are damaged, or need more memory than
// the table may have.
CollectionPointer load_rows(Storage& storage, const Declaration& declaration);

// Divides the rows into so many lists, and stores them; 0: none. Without a number, stores the lists
// of rows that have been written since.
void make_lists(Storage& storage, const Declaration& declaration,
                std::optional<std::int64_t> count);
// The fewest lists that searches must probe to find so much of the ten best rows.
std::int64_t tuned_probes(Storage& storage, const Declaration& declaration, double recall);

// Brings rows of a collection, or of a view of it, to what the table has now.
void refresh_rows(Storage& storage, const Declaration& declaration, QxCollection* collection,
                  QxView* view, const std::vector<std::int64_t>& rowids);

}  // namespace qx_sqlite
