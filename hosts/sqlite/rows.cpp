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

// Writes the vectors of rows, chunk by chunk.
class Filler {
 public:
  Filler(Storage& storage, std::int64_t dim, const Batch& batch)
      : chunks_(storage.all_chunks()), storage_(storage), dim_(dim), batch_(batch) {}

  void fill(float* vectors) {
    const std::vector<std::size_t> order = order_of_places();
    const auto place = [&](std::size_t i) { return batch_.places[order.empty() ? i : order[i]]; };
    const std::int64_t rows = storage_.rows_of_chunk();
    const auto bytes = static_cast<std::size_t>(dim_) * sizeof(float);
    std::size_t next = 0;
    while (next < batch_.rowids.size() && chunks_.step()) {
      const std::int64_t number = chunks_.integer(0);
      const std::span<const std::byte> chunk = chunks_.blob(1);
      require_intact(number >= 0 && number < Storage::kMostPlaces, "the vectors of ",
                     storage_.table(), " are damaged: there is a chunk ", number);
      require_intact(chunk.size() == static_cast<std::size_t>(rows) * bytes, "the vectors of ",
                     storage_.table(), " are damaged: a chunk has ", chunk.size(), " bytes");
      const std::int64_t first = number * rows;
      for (; next < batch_.rowids.size() && place(next) < first + rows; ++next) {
        if (place(next) < first) break;
        const std::size_t row = order.empty() ? next : order[next];
        std::memcpy(vectors + row * static_cast<std::size_t>(dim_),
                    chunk.data() + static_cast<std::size_t>(place(next) - first) * bytes, bytes);
      }
    }
    require_intact(next == batch_.rowids.size(), "the vectors of ", storage_.table(),
                   " are damaged: a row has none");
    turn_order({vectors, batch_.rowids.size() * static_cast<std::size_t>(dim_)});
  }

  // For C: what is thrown waits.
  static std::int32_t call(void* self, float* vectors) {
    auto& filler = *static_cast<Filler*>(self);
    try {
      filler.fill(vectors);
      return 0;
    } catch (...) {
      filler.thrown = std::current_exception();
      return 1;
    }
  }

  std::exception_ptr thrown;

 private:
  // Empty if places ascend with rowids.
  std::vector<std::size_t> order_of_places() const {
    std::vector<std::size_t> order;
    if (std::is_sorted(batch_.places.begin(), batch_.places.end())) return order;
    order.resize(batch_.places.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::sort(order.begin(), order.end(),
              [&](std::size_t a, std::size_t b) { return batch_.places[a] < batch_.places[b]; });
    return order;
  }

  Statement chunks_;
  Storage& storage_;
  std::int64_t dim_;
  const Batch& batch_;
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
  const bool is_whole =
      type == SQLITE_INTEGER || (type == SQLITE_FLOAT && number == std::floor(number) &&
                                 number >= -0x1p63 && number < 0x1p63);
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

Batch::Batch(const Declaration& declaration) {
  int at = Storage::kFirstValue;
  for (const Column& column : declaration.columns) {
    if (column.is_filter())
      columns_.push_back({column.kind, column.name, at++, {}, {}, {}, {}, {}});
  }
}

void Batch::add(const Statement& row) {
  const std::int64_t rowid = row.integer(0);
  require_intact(row.type(1) == SQLITE_INTEGER, "the stored row ", rowid,
                 " is damaged: it has no place");
  rowids.push_back(rowid);
  places.push_back(row.integer(1));
  const std::int64_t list = row.type(2) == SQLITE_NULL ? -1 : row.integer(2);
  lists.push_back(list < 0 || list >= QX_NO_LIST ? QX_NO_LIST : static_cast<std::uint32_t>(list));
  for (Values& column : columns_) {
    const int type = row.type(column.at);
    column.nulls.push_back(type == SQLITE_NULL);
    const bool is_text = column.kind == ColumnKind::kText;
    const bool is_real = column.kind == ColumnKind::kReal;
    const int wanted = is_text ? SQLITE_TEXT : is_real ? SQLITE_FLOAT : SQLITE_INTEGER;
    require_intact(type == SQLITE_NULL || type == wanted, "the stored row ", rowid,
                   " is damaged: a value of another type in ", column.name);
    if (is_text) {
      const std::string_view text = row.text(column.at);
      column.texts.emplace_back(text);
    } else if (is_real) {
      column.reals.push_back(row.real(column.at));
    } else {
      column.integers.push_back(row.integer(column.at));
    }
  }
}

const std::vector<QxValues>& Batch::values() {
  pointers_.clear();
  for (Values& column : columns_) {
    column.text_pointers.clear();
    for (const std::string& text : column.texts) {
      column.text_pointers.push_back({text.data(), std::ssize(text)});
    }
    QxValues values = {};
    values.nulls = column.nulls.data();
    if (column.kind == ColumnKind::kText) {
      values.texts = column.text_pointers.data();
    } else if (column.kind == ColumnKind::kReal) {
      values.reals = column.reals.data();
    } else {
      values.integers = column.integers.data();
    }
    pointers_.push_back(values);
  }
  return pointers_;
}

// ---- Loading ----

namespace {

CollectionPointer load_batch(Storage& storage, const Declaration& declaration, Batch& batch) {
  Statement(storage.database(), storage.select_rows("ORDER BY rowid", true))
      .each([&](const Statement& row) { batch.add(row); });
  const Floats centroids = storage.centroids();
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
      qx_collection_build(&options, batch.ids(), batch.values().data(),
                          lists.count == 0 ? nullptr : &lists, Filler::call, &filler, &made);
  if (filler.thrown) std::rethrow_exception(filler.thrown);
  check_call(status);
  return {made, [](QxCollection* collection) { qx_collection_free(collection); }};
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
  Batch batch(declaration);
  return load_batch(storage, declaration, batch);
}

void make_lists(Storage& storage, const Declaration& declaration,
                std::optional<std::int64_t> count) {
  if (count == 0) return storage.set_lists({}, {}, {});
  Batch batch(declaration);
  const CollectionPointer rows = load_batch(storage, declaration, batch);
  Patience patience(storage.database());
  if (count) check_call(qx_collection_train(rows.get(), *count, Patience::call, &patience));
  const std::int64_t lists = lists_of(rows.get());
  if (lists == 0) return;
  Floats centroids(static_cast<std::size_t>(lists * declaration.dim));
  std::vector<std::uint32_t> of_rows(batch.rowids.size());
  check_call(qx_collection_lists(rows.get(), batch.ids(), lists, centroids.data(), of_rows.data()));
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
  Batch batch(declaration);
  Floats vectors;
  std::vector<std::int64_t> gone;
  Chunk chunk;
  Statement one_row(storage.database(), storage.select_rows("WHERE rowid = ?1", true));
  for (const std::int64_t rowid : rowids) {
    const std::size_t before = batch.rowids.size();
    one_row.each([&](const Statement& row) { batch.add(row); }, rowid);
    if (batch.rowids.size() == before) {
      gone.push_back(rowid);
      continue;
    }
    const Floats vector = storage.read_vector(&chunk, batch.places.back());
    vectors.insert(vectors.end(), vector.begin(), vector.end());
  }
  const QxIds removed = {std::ssize(gone), gone.data(), nullptr};
  const QxValues* const values = batch.values().data();
  if (view != nullptr) {
    check_call(qx_view_remove(view, removed, nullptr));
    check_call(qx_view_upsert(view, batch.ids(), vectors.data(), values));
  } else {
    check_call(qx_collection_remove(collection, removed, nullptr));
    check_call(qx_collection_upsert(collection, batch.ids(), vectors.data(), values));
  }
}

}  // namespace qx_sqlite
