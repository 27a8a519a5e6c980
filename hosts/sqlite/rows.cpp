#include "rows.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numeric>
#include <span>

namespace qx_sqlite {
namespace {

std::vector<QxColumn> columns_of(const Declaration& declaration) {
  std::vector<QxColumn> columns;
  for (const Column& column : declaration.columns) {
    if (!column.is_filter()) continue;
    const std::int32_t type = column.kind == ColumnKind::kReal   ? QX_REAL
                              : column.kind == ColumnKind::kText ? QX_TEXT
                                                                 : QX_INTEGER;
    columns.push_back({column.name.c_str(), type});
  }
  return columns;
}

// Reads rows, and their vectors in the order of their places.
class Filler {
 public:
  Filler(Storage& storage, std::int64_t dim, Batch& batch)
      : storage_(storage), dim_(static_cast<std::size_t>(dim)), batch_(batch) {}

  // At least the first `end` rows; all of them if places do not ascend with rowids.
  void fill(float* vectors, std::size_t end) {
    if (!batch_.is_full()) read_rows();
    const std::vector<std::int64_t>& places = batch_.places;
    if (!order_.empty()) end = order_.size();
    for (std::size_t run = 1; next_ < end; next_ += run) {
      const std::size_t row = row_at(next_);
      const auto continues = [&](std::size_t length) {
        const std::int64_t place = places[row] + static_cast<std::int64_t>(length);
        return next_ + length < end && row_at(next_ + length) == row + length &&
               places[row + length] == place && place % storage_.rows_of_chunk() != 0;
      };
      for (run = 1; continues(run);) ++run;
      storage_.read_vectors(&chunk_, places[row], {vectors + row * dim_, run * dim_});
    }
  }

  // For C: what is thrown waits.
  static std::int32_t call(void* self, std::int64_t first, std::int64_t count, float* vectors) {
    auto& filler = *static_cast<Filler*>(self);
    try {
      filler.fill(vectors, static_cast<std::size_t>(first + count));
      return 0;
    } catch (...) {
      filler.thrown = std::current_exception();
      return 1;
    }
  }

  std::exception_ptr thrown;

 private:
  void read_rows() {
    Statement(storage_.database(), storage_.select_rows("ORDER BY rowid", batch_.columns()))
        .each([&](const Statement& row) { batch_.add(row); });
    const std::vector<std::int64_t>& places = batch_.places;
    require_intact(batch_.is_full(), "the table ", storage_.table(),
                   " has fewer rows than it says");
    if (std::is_sorted(places.begin(), places.end())) return;
    order_.resize(places.size());
    std::iota(order_.begin(), order_.end(), std::size_t{0});
    std::sort(order_.begin(), order_.end(),
              [&](std::size_t a, std::size_t b) { return places[a] < places[b]; });
  }
  std::size_t row_at(std::size_t i) const { return order_.empty() ? i : order_[i]; }

  Storage& storage_;
  Chunk chunk_;
  std::size_t dim_;
  Batch& batch_;
  std::vector<std::size_t> order_;  // empty if places ascend with rowids
  std::size_t next_ = 0;
};

}  // namespace

void check_call(std::int32_t status) {
  if (status == QX_OK) return;
  if (status == QX_CANCELLED) throw SqlError(SQLITE_INTERRUPT, "interrupted");
  throw SqlError(SQLITE_ERROR, qx_collection_message());
}

void check_value(const Column& column, int type, sqlite3_value* value) {
  if (!column.is_filter() || type == SQLITE_NULL) return;
  const double number = sqlite3_value_double(value);
  const double beyond = std::ldexp(1, 63);
  const bool is_whole =
      type == SQLITE_INTEGER || (type == SQLITE_FLOAT && number == std::floor(number) &&
                                 number >= -beyond && number < beyond);
  bool fits = false;
  const char* what = "";
  switch (column.kind) {
    case ColumnKind::kText:
      fits = type == SQLITE_TEXT;
      what = "texts";
      break;
    case ColumnKind::kReal:
      fits = type == SQLITE_INTEGER || type == SQLITE_FLOAT;
      what = "numbers";
      break;
    case ColumnKind::kBoolean:
      fits = is_whole && (number == 0 || number == 1);
      what = "0 and 1";
      break;
    default:
      fits = is_whole;
      what = "integers of 64 bits";
  }
  if (fits) return;
  throw SqlError(SQLITE_MISMATCH,
                 joined("the column ", column.name, " takes ", what, ", and null"));
}

// ---- Batches ----

Batch::Batch(const Declaration& declaration, bool with_lists, std::size_t room)
    : rowids(room), places(room) {
  int at = Storage::kFirstValue;
  for (const Column& column : declaration.columns) {
    if (!column.is_filter()) continue;
    Values& values =
        columns_.emplace_back(Values{column.kind, column.name, at++, {}, {}, {}, {}, {}});
    values.nulls.resize(room);
    if (column.kind == ColumnKind::kText) {
      values.text_pointers.resize(room);
    } else if (column.kind == ColumnKind::kReal) {
      values.reals.resize(room);
    } else {
      values.integers.resize(room);
    }
  }
  if (!with_lists) return;
  list_at_ = at;
  lists.resize(room);
}

const std::vector<QxValues>& Batch::values() {
  pointers_.clear();
  for (const Values& column : columns_) {
    QxValues& values = pointers_.emplace_back(QxValues{});
    values.nulls = column.nulls.data();
    if (column.kind == ColumnKind::kText) {
      values.texts = column.text_pointers.data();
    } else if (column.kind == ColumnKind::kReal) {
      values.reals = column.reals.data();
    } else {
      values.integers = column.integers.data();
    }
  }
  return pointers_;
}

void Batch::add(const Statement& row) {
  const std::int64_t rowid = row.integer(0);
  sqlite3_value* const place = row.value(1);
  require_intact(sqlite3_value_type(place) == SQLITE_INTEGER, "the stored row ", rowid,
                 " is damaged: it has no place");
  require_intact(!is_full(), "there are more rows than there should be");
  rowids[rows_] = rowid;
  places[rows_] = sqlite3_value_int64(place);
  if (list_at_) {
    const std::int64_t list = row.type(*list_at_) == SQLITE_NULL ? -1 : row.integer(*list_at_);
    lists[rows_] = list < 0 || list >= QX_NO_LIST ? QX_NO_LIST : static_cast<std::uint32_t>(list);
  }
  for (Values& column : columns_) {
    sqlite3_value* const value = row.value(column.at);
    const int type = sqlite3_value_type(value);
    column.nulls[rows_] = type == SQLITE_NULL;
    if (type == SQLITE_NULL) continue;
    const bool is_text = column.kind == ColumnKind::kText;
    const bool is_real = column.kind == ColumnKind::kReal;
    const int wanted = is_text ? SQLITE_TEXT : is_real ? SQLITE_FLOAT : SQLITE_INTEGER;
    require_intact(type == wanted, "the stored row ", rowid,
                   " is damaged: a value of another type in ", column.name);
    if (is_text) {
      const std::string& text = column.texts.emplace_back(text_of(value));
      column.text_pointers[rows_] = {text.data(), std::ssize(text)};
    } else if (is_real) {
      column.reals[rows_] = sqlite3_value_double(value);
    } else {
      column.integers[rows_] = sqlite3_value_int64(value);
    }
  }
  ++rows_;
}

// ---- Loading ----

namespace {

// A collection, and what it was made of.
std::pair<CollectionPointer, Batch> load_batch(Storage& storage, const Declaration& declaration) {
  const Floats centroids = storage.centroids();
  Batch batch(declaration, !centroids.empty(), static_cast<std::size_t>(storage.count()));
  const QxLists lists = {std::ssize(centroids) / declaration.dim, centroids.data(),
                         batch.lists.data()};
  const std::vector<QxColumn> columns = columns_of(declaration);
  QxOptions options = {};
  options.dim = static_cast<std::int32_t>(declaration.dim);
  options.columns = columns.data();
  options.n_columns = static_cast<std::int32_t>(columns.size());
  options.metric = static_cast<std::int32_t>(declaration.metric);
  options.memory_limit = std::max<std::int64_t>(storage.number("memory").value_or(0), 0);
  Filler filler(storage, declaration.dim, batch);
  QxCollection* made = nullptr;
  const std::int32_t status =
      qx_collection_build(&options, batch.ids(batch.rowids.size()), batch.values().data(),
                          lists.count == 0 ? nullptr : &lists, Filler::call, &filler, &made);
  if (filler.thrown) std::rethrow_exception(filler.thrown);
  check_call(status);
  return {CollectionPointer(made, qx_collection_free), std::move(batch)};
}

// Long work lets SQLite's own machine call the host's progress handler, which may interrupt it.
class Patience {
 public:
  explicit Patience(sqlite3* database)
      : steps_(database,
               "WITH RECURSIVE n(i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n "
               "WHERE i < 1000) SELECT count(*) FROM n") {}
  static std::int32_t call(void* self, std::int64_t, std::int64_t) {
    auto& steps = static_cast<Patience*>(self)->steps_;
    return guarded([&] { steps.run(); }, [](const char*) {}) == SQLITE_OK ? 0 : 1;
  }

 private:
  Statement steps_;
};

std::int64_t lists_of(const QxCollection* collection) {
  QxCollectionStats stats;
  qx_collection_stats(collection, &stats);
  return stats.lists;
}

}  // namespace

CollectionPointer load_rows(Storage& storage, const Declaration& declaration) {
  return load_batch(storage, declaration).first;
}

void make_lists(Storage& storage, const Declaration& declaration,
                std::optional<std::int64_t> count) {
  if (count == 0) return storage.set_lists({}, {}, {});
  const auto [rows, batch] = load_batch(storage, declaration);
  Patience patience(storage.database());
  if (count) check_call(qx_collection_train(rows.get(), *count, Patience::call, &patience));
  const std::int64_t lists = lists_of(rows.get());
  if (lists == 0) return;
  Floats centroids(static_cast<std::size_t>(lists * declaration.dim));
  std::vector<std::uint32_t> of_rows(batch.rowids.size());
  check_call(qx_collection_lists(rows.get(), batch.ids(batch.rows()), lists, centroids.data(),
                                 of_rows.data()));
  storage.set_lists(centroids, batch.rowids, of_rows);
}

std::int64_t tuned_probes(Storage& storage, const Declaration& declaration, double recall) {
  const CollectionPointer rows = load_rows(storage, declaration);
  Patience patience(storage.database());
  QxSearch search = {};
  search.progress = Patience::call;
  search.progress_context = &patience;
  QxTuning tuning;
  check_call(qx_collection_tune(rows.get(), nullptr, 0, 10, recall, &search, &tuning));
  return tuning.probes;
}

void refresh_rows(Storage& storage, const Declaration& declaration, QxCollection* collection,
                  QxView* view, const std::vector<std::int64_t>& rowids) {
  Batch batch(declaration, false, rowids.size());
  Floats vectors;
  const auto dim = static_cast<std::size_t>(declaration.dim);
  std::vector<std::int64_t> gone;
  Chunk chunk;
  Statement one_row(storage.database(), storage.select_rows("WHERE rowid = ?1", batch.columns()));
  for (const std::int64_t rowid : rowids) {
    const std::size_t before = batch.rows();
    one_row.each([&](const Statement& row) { batch.add(row); }, rowid);
    if (batch.rows() == before) {
      gone.push_back(rowid);
      continue;
    }
    vectors.resize(vectors.size() + dim);
    storage.read_vectors(&chunk, batch.places[before], std::span(vectors).last(dim));
  }
  const QxIds removed = {std::ssize(gone), gone.data(), nullptr};
  const QxIds written = batch.ids(batch.rows());
  if (view != nullptr) {
    check_call(qx_view_remove(view, removed, nullptr));
    check_call(qx_view_upsert(view, written, vectors.data(), batch.values().data()));
  } else {
    check_call(qx_collection_remove(collection, removed, nullptr));
    check_call(qx_collection_upsert(collection, written, vectors.data(), batch.values().data()));
  }
}

}  // namespace qx_sqlite
