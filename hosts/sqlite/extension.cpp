// The loadable extension: the virtual table module `qx` and its functions, as SQLite calls them.
// The decisions are made in the other files; exceptions become SQL errors here and go no further.
#include <sqlite3ext.h>
SQLITE_EXTENSION_INIT1

#include <algorithm>
#include <charconv>
#include <cmath>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <sstream>
#include <string>

#include "database.h"
#include "declaration.h"
#include "plan.h"
#include "program.h"
#include "shared.h"
#include "storage.h"
#include "vectors.h"

namespace qx_sqlite {
namespace {

struct Table : sqlite3_vtab {
  Table(sqlite3* db, const char* schema, const char* name, Declaration declared)
      : sqlite3_vtab{},
        database(db),
        declaration(std::move(declared)),
        storage(db, schema, name, declaration),
        reader(storage, declaration) {}

  // Whatever is read includes what this connection has written.
  void flush() {
    storage.check();
    storage.flush();
  }

  sqlite3* database;
  Declaration declaration;
  Storage storage;
  Reader reader;
  Programs programs;
};

struct Hit {
  std::int64_t rowid;
  float score;
};

// A scan of the rows, or the hits of a search.
class Cursor : public sqlite3_vtab_cursor {
 public:
  void start(int plan_number, const char* plan, int count, sqlite3_value** arguments);
  void advance();
  bool at_end() const { return searching_ ? at_ >= hits_.size() : !has_row_; }
  void read_rowid(sqlite3_int64* rowid);
  void read_column(sqlite3_context* context, int column);

 private:
  Table* table() const { return static_cast<Table*>(pVtab); }
  void read_hidden(sqlite3_context* context, int column) const;
  void find(const Search& search);

  // Of a scan, its rows; of a search, the row of the present hit, once it is asked for.
  Statement rows_;
  Chunk chunk_;
  bool row_read_ = false;  // of a scan, any
  bool has_row_ = false;
  // Of a scan of all rows that nobody reads, how many there are; and at which of them rows_ is.
  bool may_count_ = false;
  std::optional<std::int64_t> total_;
  std::size_t stepped_ = 0;

  bool searching_ = false;
  std::int64_t k_ = 0;
  std::vector<Hit> hits_;
  std::size_t at_ = 0;
};

Table* table_of(sqlite3_vtab* table) { return static_cast<Table*>(table); }
Cursor* cursor_of(sqlite3_vtab_cursor* cursor) { return static_cast<Cursor*>(cursor); }

// Calls what may throw; its error is left in a message of SQLite's.
template <typename Function>
int guarded_in(char** message, Function function) {
  return guarded(function, [&](const char* text) {
    sqlite3_free(*message);
    *message = sqlite3_mprintf("%s", text);
  });
}

// A function of a table, or of a cursor, as SQLite calls it.
template <auto function, typename... Given>
int of_table(sqlite3_vtab* table, Given... given) {
  return guarded_in(&table->zErrMsg, [&] { return function(*table_of(table), given...); });
}
template <auto method, typename... Given>
int of_cursor(sqlite3_vtab_cursor* cursor, Given... given) {
  return guarded_in(&cursor->pVtab->zErrMsg, [&] { (cursor_of(cursor)->*method)(given...); });
}

// ---- Lifecycle of a table ----

template <bool create>
int open_table(sqlite3* database, void*, int count, const char* const* arguments,
               sqlite3_vtab** out, char** message) {
  return guarded_in(message, [&] {
    const std::span given(arguments, static_cast<std::size_t>(count));
    const std::string name = given[2];
    auto table = std::make_unique<Table>(database, given[1], given[2],
                                         read_declaration(name, given.subspan(3)));
    const int declared = sqlite3_declare_vtab(database, table->declaration.schema(name).c_str());
    if (declared != SQLITE_OK) throw SqlError(declared, sqlite3_errmsg(database));
    sqlite3_vtab_config(database, SQLITE_VTAB_CONSTRAINT_SUPPORT, 1);
    // It reads and writes its own tables alone, whoever has written the schema.
    sqlite3_vtab_config(database, SQLITE_VTAB_INNOCUOUS);
    if (create) table->storage.create();
    *out = table.release();
  });
}

int disconnect_table(sqlite3_vtab* table) {
  delete table_of(table);
  return SQLITE_OK;
}
int destroy_table(sqlite3_vtab* table) {
  const int result = of_table<[](Table& own) { own.storage.drop(); }>(table);
  return result == SQLITE_OK ? disconnect_table(table) : result;
}
int is_shadow_name(const char* suffix) {
  return std::any_of(Storage::kTables.begin(), Storage::kTables.end(),
                     [&](const char* own) { return sqlite3_stricmp(suffix, own) == 0; });
}

// ---- Reading ----

int best_index(Table& table, sqlite3_index_info* info) {
  table.programs.forget();
  return choose_plan(table.declaration, info);
}

int open_cursor(sqlite3_vtab*, sqlite3_vtab_cursor** out) {
  *out = new (std::nothrow) Cursor{};
  return *out == nullptr ? SQLITE_NOMEM : SQLITE_OK;
}
int close_cursor(sqlite3_vtab_cursor* cursor) {
  Table& table = *table_of(cursor->pVtab);
  table.programs.release(cursor_of(cursor));
  delete cursor_of(cursor);
  table.reader.release_snapshot();
  return SQLITE_OK;
}

void Cursor::start(int plan_number, const char* plan, int count, sqlite3_value** arguments) {
  const Declaration& declaration = table()->declaration;
  require(plan_number != kRefused, "k, score, distance and filter belong to a search: write '",
          declaration.columns[static_cast<std::size_t>(declaration.vector_column)].name,
          " MATCH query' beside them");
  searching_ = plan_number == kSearch;
  row_read_ = false;
  at_ = stepped_ = 0;
  may_count_ = plan_number == kRowids && count == 0;
  total_.reset();
  hits_.clear();
  table()->flush();
  chunk_.close();
  Storage& storage = table()->storage;
  if (!searching_) {
    rows_ = Statement(table()->database, plan_number == kScan ? storage.select_rows(plan)
                                                              : storage.select_rowids(plan));
    for (int i = 0; i < count; ++i) rows_.bind(i + 1, arguments[i]);
    has_row_ = rows_.step();
    return;
  }
  const Search search = read_search(declaration, plan, count, arguments, [&](int query) {
    return table()->programs.origins(table()->database, pVtab, storage.table(), plan, query, this);
  });
  k_ = search.k;
  if (!search.nothing_passes && search.k > 0) find(search);
}

// What users of a metric expect.
double distance_of(Metric metric, float score) {
  if (metric == Metric::kEuclidean) return std::sqrt(static_cast<double>(score));
  return metric == Metric::kCosine ? 1 - static_cast<double>(score) : -static_cast<double>(score);
}
double score_of(Metric metric, float score) {
  return metric == Metric::kEuclidean ? -distance_of(metric, score) : static_cast<double>(score);
}

// A limit of the collection that no hit up to this distance is beyond, for all roundings.
float limit_of(Metric metric, double distance) {
  constexpr double kMost = std::numeric_limits<float>::max(), kRounding = 1e-15;
  constexpr float kInfinity = std::numeric_limits<float>::infinity();
  const auto limit = [&](double number) {
    return static_cast<float>(std::clamp(number, -kMost, kMost));
  };
  if (metric == Metric::kEuclidean) {
    const double square = std::max(distance, 0.0) * std::max(distance, 0.0) * (1 + kRounding);
    return std::min(std::nextafter(limit(square), kInfinity), limit(kMost));
  }
  const double score = metric == Metric::kCosine ? 1 - distance - kRounding : -distance;
  return std::max(std::nextafter(limit(score), -kInfinity), limit(-kMost));
}

std::int32_t is_in_range(void* context, std::int64_t rowid, const QxText*) {
  const Search& search = *static_cast<const Search*>(context);
  return rowid >= search.first && rowid <= search.last &&
         std::find(search.without.begin(), search.without.end(), rowid) == search.without.end();
}

void Cursor::find(const Search& search) {
  constexpr std::int64_t kFew = 1024, kMore = 16;
  const Reader::Rows rows = table()->reader.rows();
  const Metric metric = table()->declaration.metric;
  QxSearch how = {};
  if (!search.filter.empty()) how.filter = search.filter.c_str();
  const QxIds among =
      search.among ? QxIds{std::ssize(*search.among), search.among->data(), nullptr} : QxIds{};
  if (search.among) how.among = &among;
  if (search.has_range()) how.accept = is_in_range;
  how.accept_context = const_cast<Search*>(&search);
  QxCollectionStats stats;
  qx_collection_stats(rows.collection.get(), &stats);
  how.probes = static_cast<std::int32_t>(
      std::clamp<std::int64_t>(table()->storage.number("probes").value_or(0), 0, stats.lists));
  const float limit = limit_of(metric, search.farthest);
  if (search.farthest < std::numeric_limits<double>::infinity()) how.limit = &limit;
  const auto passes = [&](float score) {
    return std::all_of(search.tests.begin(), search.tests.end(), [&](const ScoreTest& test) {
      return test.passes(score_of(metric, score), distance_of(metric, score));
    });
  };
  // More than k, as long as tests leave some of the best out.
  for (std::int64_t k = how.limit ? std::min(search.k, kFew) : search.k;; k *= kMore) {
    QxHits* found = nullptr;
    check_call(qx_collection_search(rows.collection.get(), rows.view, search.query.data(), 1, k,
                                    &how, &found));
    const std::unique_ptr<QxHits, void (*)(QxHits*)> owned(found, qx_hits_free);
    const std::int64_t count = found->counts[0];
    hits_.clear();
    for (std::int64_t i = 0; i < count && std::ssize(hits_) < search.k; ++i) {
      if (passes(found->scores[i])) hits_.push_back({found->ids[i], found->scores[i]});
    }
    if (count < k || std::ssize(hits_) == search.k) return;
  }
}

void Cursor::advance() {
  constexpr std::size_t kMany = 1000;
  ++at_;
  if (searching_) {
    row_read_ = false;
    return;
  }
  if (at_ == kMany && may_count_ && !row_read_) total_ = table()->storage.count();
  if (total_) {
    has_row_ = at_ < static_cast<std::size_t>(*total_);
  } else {
    has_row_ = rows_.step();
    stepped_ = at_;
  }
}

void Cursor::read_rowid(sqlite3_int64* rowid) {
  if (searching_) {
    *rowid = hits_[at_].rowid;
    return;
  }
  row_read_ = true;
  for (; stepped_ < at_; ++stepped_) {
    if (!rows_.step()) throw SqlError(SQLITE_ABORT, "a row was deleted while it was read");
  }
  *rowid = rows_.integer(0);
}

void Cursor::read_column(sqlite3_context* context, int column) {
  const Declaration& declaration = table()->declaration;
  // An UPDATE reads what it does not change.
  const bool is_vector = column == declaration.vector_column;
  if (sqlite3_vtab_nochange(context) != 0 &&
      (is_vector || column >= declaration.command_column())) {
    return;
  }
  if (column >= declaration.command_column()) return read_hidden(context, column);
  Storage& storage = table()->storage;
  if (searching_ && !row_read_) {
    if (!rows_) rows_ = Statement(table()->database, storage.select_rows("WHERE rowid = ?1"));
    rows_.reset();
    rows_.bind(1, hits_[at_].rowid);
    has_row_ = rows_.step();
    row_read_ = true;
  }
  if (!has_row_) return;
  if (!is_vector) {
    const int at = Storage::kFirstValue + column - (column > declaration.vector_column ? 1 : 0);
    return sqlite3_result_value(context, rows_.value(at));
  }
  Floats vector = storage.read_vector(&chunk_, rows_.integer(1));
  turn_order(vector);
  sqlite3_result_blob64(context, vector.data(), vector.size() * sizeof(float), SQLITE_TRANSIENT);
}

void Cursor::read_hidden(sqlite3_context* context, int column) const {
  if (!searching_) return;
  const Declaration& declaration = table()->declaration;
  const float score = hits_[at_].score;
  if (column == declaration.score_column()) {
    sqlite3_result_double(context, score_of(declaration.metric, score));
  }
  if (column == declaration.distance_column()) {
    sqlite3_result_double(context, distance_of(declaration.metric, score));
  }
  if (column == declaration.k_column()) sqlite3_result_int64(context, k_);
}

// ---- Commands: INSERT INTO words(words) VALUES ('rebuild') ----

// Of a command as in 'probes=8': the number after a name.
template <typename Number>
std::optional<Number> argument_of(std::string_view text, std::string_view name) {
  if (!text.starts_with(name) || !text.substr(name.size()).starts_with('=')) return std::nullopt;
  const std::string_view value = text.substr(name.size() + 1);
  const char* const end = value.data() + value.size();
  Number number = 0;
  const auto [rest, error] = std::from_chars(value.data(), end, number);
  return error == std::errc() && rest == end && number >= 0 ? std::optional(number) : std::nullopt;
}

void run_command(Table& table, std::string_view text) {
  Storage& storage = table.storage;
  if (text == "migrate") return storage.migrate();
  table.flush();
  const auto number = [&](const char* name) { return argument_of<std::int64_t>(text, name); };
  if (text == "optimize") {
    storage.optimize();
    return make_lists(storage, table.declaration, std::nullopt);
  }
  if (const auto probes = number("probes")) return storage.set("probes", probes);
  if (const auto recall = argument_of<double>(text, "recall")) {
    return storage.set("probes", tuned_probes(storage, table.declaration, *recall));
  }
  if (const auto memory = number("memory")) {
    storage.set("memory", memory);
  } else if (const auto lists = number("lists")) {
    make_lists(storage, table.declaration, lists);
    if (!storage.number("probes")) storage.set("probes", 8);
  } else {
    require(
        text == "rebuild",
        "the command is unknown or incomplete: there is 'optimize', 'memory=BYTES', 'lists=256', "
        "'probes=8', 'recall=0.95', 'rebuild' and 'migrate'");
  }
  storage.note_all();
}

// ---- Writing ----

// Checks a row, and gives its vector, or none where an UPDATE does not change it.
Floats checked(const Declaration& declaration, sqlite3_value** row, bool had_row) {
  for (int hidden = declaration.k_column(); hidden <= declaration.filter_column(); ++hidden) {
    // An UPDATE with FROM gives what it has read.
    require(had_row || sqlite3_value_type(row[hidden]) == SQLITE_NULL,
            "k, score, distance and filter cannot be written");
  }
  for (std::size_t i = 0; i < declaration.columns.size(); ++i) {
    check_value(declaration.columns[i], sqlite3_value_type(row[i]), row[i]);
  }
  const int at = declaration.vector_column;
  if (sqlite3_value_nochange(row[at]) != 0) return {};
  return vector_of(row[at], declaration.dim,
                   declaration.columns[static_cast<std::size_t>(at)].name);
}

std::optional<std::int64_t> checked_rowid(sqlite3_value* value) {
  const int type = sqlite3_value_type(value);
  if (type == SQLITE_NULL) return std::nullopt;
  if (type != SQLITE_INTEGER) throw SqlError(SQLITE_MISMATCH, "a rowid is no integer");
  return sqlite3_value_int64(value);
}

void update(Table& table, int count, sqlite3_value** arguments, sqlite3_int64* rowid) {
  using Conflict = Storage::Conflict;
  const bool had_row = sqlite3_value_type(arguments[0]) != SQLITE_NULL;
  const std::int64_t old_rowid = sqlite3_value_int64(arguments[0]);
  table.reader.note_writing();
  if (count == 1) {
    table.storage.check();
    return table.storage.remove(old_rowid);
  }
  sqlite3_value** const row = arguments + 2;
  sqlite3_value* const command = row[table.declaration.command_column()];
  if (!had_row && sqlite3_value_type(command) != SQLITE_NULL) {
    *rowid = sqlite3_last_insert_rowid(table.database);
    return run_command(table, text_of(command));
  }
  table.storage.check();
  const Floats vector = checked(table.declaration, row, had_row);
  const std::optional<std::int64_t> new_rowid = checked_rowid(arguments[1]);
  const Conflict conflict = sqlite3_vtab_on_conflict(table.database) == SQLITE_REPLACE
                                ? Conflict::kReplace
                                : Conflict::kFail;
  if (!had_row) {
    *rowid = table.storage.insert(new_rowid, row, conflict, vector);
  } else {
    table.storage.update(old_rowid, new_rowid.value_or(old_rowid), row, conflict, vector);
  }
}

// ---- The module ----

// SQLite calls it where MATCH is no search of its own.
void refuse_match(sqlite3_context* context, int, sqlite3_value**) {
  sqlite3_result_error(context,
                       "MATCH is a search: WHERE vectors MATCH query AND k = N, of the column of "
                       "vectors, once, without OR and NOT",
                       -1);
}
int find_function(sqlite3_vtab*, int, const char* name,
                  void (**function)(sqlite3_context*, int, sqlite3_value**), void**) {
  if (sqlite3_stricmp(name, "match") != 0) return 0;
  *function = refuse_match;
  return 1;
}

void forget(Table& table) { table.storage.forget(); }
void finish(Table& table) {
  table.storage.forget();
  table.reader.release();
}

constexpr sqlite3_module kModule = {
    .iVersion = 3,
    .xCreate = open_table<true>,
    .xConnect = open_table<false>,
    .xBestIndex = of_table<best_index>,
    .xDisconnect = disconnect_table,
    .xDestroy = destroy_table,
    .xOpen = open_cursor,
    .xClose = close_cursor,
    .xFilter = of_cursor<&Cursor::start>,
    .xNext = of_cursor<&Cursor::advance>,
    .xEof = [](sqlite3_vtab_cursor* cursor) { return int{cursor_of(cursor)->at_end()}; },
    .xColumn = of_cursor<&Cursor::read_column>,
    .xRowid = of_cursor<&Cursor::read_rowid>,
    .xUpdate = of_table<update>,
    .xBegin = of_table<forget>,
    .xSync = of_table<[](Table& table) { table.storage.flush(); }>,
    .xCommit = of_table<finish>,
    .xRollback = of_table<finish>,
    .xFindFunction = find_function,
    .xRename = of_table<[](Table& table, const char* name) {
      table.flush();
      table.storage.rename(name);
    }>,
    .xSavepoint = of_table<[](Table& table, int) { table.storage.flush(); }>,
    .xRelease = [](sqlite3_vtab*, int) { return SQLITE_OK; },
    .xRollbackTo = of_table<[](Table& table, int) { table.storage.forget(); }>,
    .xShadowName = is_shadow_name,
};

}  // namespace
}  // namespace qx_sqlite

extern "C" __attribute__((visibility("default"))) int sqlite3_qx_init(
    sqlite3* database, char** message, const sqlite3_api_routines* api) {
  SQLITE_EXTENSION_INIT2(api);
  const int result = qx_sqlite::guarded_in(message, [&] {
    qx_sqlite::register_vector_functions(database);
    return sqlite3_create_module_v2(database, "qx", &qx_sqlite::kModule, nullptr, nullptr);
  });
  // What connections share outlives the one that loaded the extension.
  return result == SQLITE_OK ? SQLITE_OK_LOAD_PERMANENTLY : result;
}
