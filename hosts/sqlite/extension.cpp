// The loadable extension: the virtual table module `qx` and its functions, as SQLite calls them.
// The decisions are made in the other files; exceptions become SQL errors here and go no further.
#include <sqlite3ext.h>
SQLITE_EXTENSION_INIT1

#include <algorithm>
#include <charconv>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <sstream>
#include <string>

#include "database.h"
#include "declaration.h"
#include "ivf_state.h"
#include "live_rows.h"
#include "plan.h"
#include "storage.h"
#include "vectors.h"

namespace qx_sqlite {
namespace {

constexpr std::int64_t kMostLists = 65536;
constexpr const char* kSteps =
    "WITH RECURSIVE n(i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n WHERE i < 1000) "
    "SELECT count(*) FROM n";

struct Table : sqlite3_vtab {
  Table(sqlite3* db, const char* schema, const char* name, Declaration declared)
      : sqlite3_vtab{},
        database(db),
        declaration(std::move(declared)),
        storage(db, schema, name, declaration),
        live(storage, declaration) {}

  sqlite3* database;
  Declaration declaration;
  Storage storage;
  LiveRows live;
};

// A scan of the rows, or the hits of a search.
class Cursor : public sqlite3_vtab_cursor {
 public:
  void start(int plan_number, const char* plan, int count, sqlite3_value** arguments);
  void advance();
  bool at_end() const { return searching_ ? at_ >= hits_.size() : !has_row_; }
  void read_rowid(sqlite3_int64* rowid) const {
    *rowid = searching_ ? hits_.ids[at_] : rows_.integer(0);
  }
  void read_column(sqlite3_context* context, int column);

 private:
  Table* table() const { return static_cast<Table*>(pVtab); }
  void read_hidden(sqlite3_context* context, int column) const;

  // Of a scan, its rows; of a search, the row of the present hit, once it is asked for.
  Statement rows_;
  bool row_read_ = false;
  bool has_row_ = false;

  bool searching_ = false;
  std::int64_t k_ = 0;
  qx::Hits hits_;
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
    if (create) table->storage.create();
    table->storage.check();
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
  return choose_plan(table.declaration, table.live, info);
}

int open_cursor(sqlite3_vtab*, sqlite3_vtab_cursor** out) {
  *out = new (std::nothrow) Cursor{};
  return *out == nullptr ? SQLITE_NOMEM : SQLITE_OK;
}
int close_cursor(sqlite3_vtab_cursor* cursor) {
  delete cursor_of(cursor);
  return SQLITE_OK;
}

void Cursor::start(int plan_number, const char* plan, int count, sqlite3_value** arguments) {
  searching_ = plan_number == kSearch;
  row_read_ = false;
  at_ = 0;
  Storage& storage = table()->storage;
  rows_ = Statement(table()->database,
                    storage.select_rows(plan_number == kScan ? "" : "WHERE rowid = ?1"));
  if (!searching_) {
    if (plan_number == kOneRow) rows_.bind(1, arguments[0]);
    has_row_ = rows_.step();
    return;
  }
  const Search search = read_search(table()->declaration, plan, count, arguments);
  k_ = search.k;
  hits_ = {};
  if (search.nothing_passes) return;
  table()->live.catch_up();
  hits_ = table()->live.search(search.query, search.k, search.conditions);
}

void Cursor::advance() {
  if (searching_) {
    ++at_;
    row_read_ = false;
  } else {
    has_row_ = rows_.step();
  }
}

void Cursor::read_column(sqlite3_context* context, int column) {
  if (column >= table()->declaration.command_column()) return read_hidden(context, column);
  if (searching_ && !row_read_) {
    rows_.reset();
    rows_.bind(1, hits_.ids[at_]);
    has_row_ = rows_.step();
    row_read_ = true;
  }
  if (has_row_) sqlite3_result_value(context, rows_.value(column + 1));
}

void Cursor::read_hidden(sqlite3_context* context, int column) const {
  if (!searching_) return;
  const Declaration& declaration = table()->declaration;
  const auto score = static_cast<double>(hits_.scores[at_]);
  if (column == declaration.score_column()) sqlite3_result_double(context, score);
  if (column == declaration.distance_column()) sqlite3_result_double(context, -score);
  if (column == declaration.k_column()) sqlite3_result_int64(context, k_);
}

// ---- Commands: INSERT INTO words(words) VALUES ('rebuild') ----

template <typename... Parts>
void check_command(bool condition, const Parts&... why) {
  require(condition, "the command is unknown or incomplete: ", why...);
}

void change_ivf(IvfState& ivf, std::span<const std::string> options,
                const std::function<void()>& progress) {
  if (options.size() == 1 && options[0] == "off") return ivf.forget();
  std::optional<std::int64_t> nlist, nprobe;
  for (const std::string& option : options) {
    const std::string name = option.substr(0, option.find('='));
    const std::string value = option.substr(std::min(name.size() + 1, option.size()));
    const char* const end = value.data() + value.size();
    std::int64_t number = 0;
    const auto [rest, error] = std::from_chars(value.data(), end, number);
    const bool counts = error == std::errc() && rest == end && number >= 1;
    check_command(counts && number <= kMostLists && (name == "nlist" || name == "nprobe"), option,
                  " is no nlist or nprobe from 1 to ", kMostLists);
    (name == "nlist" ? nlist : nprobe) = number;
  }
  check_command(nlist || nprobe, "an IVF needs nlist and nprobe");
  check_command(nlist || ivf.nprobe(), "there is no IVF yet, so nlist is needed");
  if (nlist) ivf.learn(*nlist, progress);
  ivf.set_nprobe(nprobe.value_or(ivf.nprobe().value_or(8)));
}

void run_command(Table& table, const std::string& text) {
  std::istringstream words(text);
  const std::vector<std::string> given(std::istream_iterator<std::string>(words), {});
  const bool rebuilds = given == std::vector<std::string>{"rebuild"};
  check_command(rebuilds || (!given.empty() && given[0] == "ivf"),
                "there is 'rebuild', 'ivf nlist=256 nprobe=8' and 'ivf off'");
  const RowReader reader(table.declaration);
  IvfState ivf(table.storage, reader, table.declaration.dim);
  // A few steps of SQLite's own machine call the host's progress handler.
  Statement steps(table.database, kSteps);
  const auto report_progress = [&] { steps.run(); };
  if (!rebuilds) {
    change_ivf(ivf, std::span(given).subspan(1), report_progress);
  } else if (ivf.nprobe()) {
    ivf.refill(report_progress);
  }
  table.storage.begin_generation();
}

// ---- Writing ----

// Checks a row, and gives the bytes of its vector.
std::vector<std::byte> checked(const Declaration& declaration, sqlite3_value** row) {
  for (int hidden = declaration.k_column(); hidden <= declaration.distance_column(); ++hidden) {
    require(sqlite3_value_type(row[hidden]) == SQLITE_NULL,
            "k, score and distance cannot be written");
  }
  for (std::size_t i = 0; i < declaration.columns.size(); ++i) {
    const int type = sqlite3_value_type(row[i]);
    if (!declaration.columns[i].is_number() || type == SQLITE_NULL) continue;
    if (type != SQLITE_INTEGER || sqlite3_value_int64(row[i]) == kLeastNumber) {
      throw SqlError(SQLITE_MISMATCH, joined("the column ", declaration.columns[i].name,
                                             " takes integers above -2^63, and null"));
    }
  }
  const int at = declaration.vector_column;
  const std::string& name = declaration.columns[static_cast<std::size_t>(at)].name;
  return bytes_of(vector_of(row[at], declaration.dim, name));
}

std::optional<std::int64_t> checked_rowid(sqlite3_value* value) {
  const int type = sqlite3_value_type(value);
  if (type == SQLITE_NULL) return std::nullopt;
  if (type != SQLITE_INTEGER) throw SqlError(SQLITE_MISMATCH, "a rowid is no integer");
  const std::int64_t rowid = sqlite3_value_int64(value);
  require(rowid >= 0, "the rowid ", rowid, " is below 0");
  return rowid;
}

void update(Table& table, int count, sqlite3_value** arguments, sqlite3_int64* rowid) {
  using Conflict = Storage::Conflict;
  const bool had_row = sqlite3_value_type(arguments[0]) != SQLITE_NULL;
  const std::int64_t old_rowid = sqlite3_value_int64(arguments[0]);
  if (count == 1) return table.storage.remove(old_rowid);
  sqlite3_value** const row = arguments + 2;
  sqlite3_value* const command = row[table.declaration.command_column()];
  if (sqlite3_value_type(command) != SQLITE_NULL) {
    require(!had_row, "a command is given by INSERT");
    return run_command(table, std::string(text_of(command)));
  }
  const std::vector<std::byte> vector = checked(table.declaration, row);
  const std::optional<std::int64_t> new_rowid = checked_rowid(arguments[1]);
  const bool stays = had_row && new_rowid == old_rowid;
  const bool replaces = stays || sqlite3_vtab_on_conflict(table.database) == SQLITE_REPLACE;
  const std::int64_t written =
      table.storage.insert(new_rowid, row, replaces ? Conflict::kReplace : Conflict::kFail, vector);
  if (stays) return;
  *rowid = written;
  if (had_row) table.storage.remove(old_rowid);
}

void roll_back(Table& table) {
  table.live.undo();
  table.live.end();
}

// ---- The module ----

int nothing_to_do(sqlite3_vtab*) { return SQLITE_OK; }
int nothing_to_keep(sqlite3_vtab*, int) { return SQLITE_OK; }

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
    .xBegin = of_table<[](Table& table) { table.live.begin(); }>,
    .xSync = nothing_to_do,
    .xCommit = of_table<[](Table& table) { table.live.end(); }>,
    .xRollback = of_table<roll_back>,
    .xFindFunction = nullptr,
    .xRename = of_table<[](Table& table, const char* name) { table.storage.rename(name); }>,
    .xSavepoint = nothing_to_keep,
    .xRelease = nothing_to_keep,
    .xRollbackTo = of_table<[](Table& table, int) { table.live.undo(); }>,
    .xShadowName = is_shadow_name,
};

}  // namespace
}  // namespace qx_sqlite

extern "C" __attribute__((visibility("default"))) int sqlite3_qx_init(
    sqlite3* database, char** message, const sqlite3_api_routines* api) {
  SQLITE_EXTENSION_INIT2(api);
  return qx_sqlite::guarded_in(message, [&] {
    qx_sqlite::register_vector_functions(database);
    return sqlite3_create_module_v2(database, "qx", &qx_sqlite::kModule, nullptr, nullptr);
  });
}
