// The loadable extension: the virtual table module `qx` and its functions, as SQLite calls them.
// The decisions are made in the other files; exceptions become SQL errors here and go no further.
#include <sqlite3ext.h>
SQLITE_EXTENSION_INIT1

#include <charconv>
#include <memory>
#include <new>
#include <string>
#include <string_view>

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
constexpr int kProgressSteps = 1000;

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

struct Cursor : sqlite3_vtab_cursor {
  Table* table() const { return static_cast<Table*>(pVtab); }

  // Of a scan, its rows; of a search, the row of the present hit, once it is asked for.
  Statement rows;
  bool row_read = false;
  bool has_row = false;

  bool searching = false;
  std::int64_t k = 0;
  qx::Hits hits;
  std::size_t at = 0;
};

Table* table_of(sqlite3_vtab* table) { return static_cast<Table*>(table); }
Cursor* cursor_of(sqlite3_vtab_cursor* cursor) { return static_cast<Cursor*>(cursor); }

// Calls what may throw. Its error is handed to `show` as text.
template <typename Show, typename Function>
int guarded(Show show, Function function) {
  try {
    return function();
  } catch (const SqlError& error) {
    show(error.what());
    return error.code();
  } catch (const std::bad_alloc&) {
    return SQLITE_NOMEM;
  } catch (const std::exception& error) {
    show(error.what());
    return SQLITE_ERROR;
  }
}
template <typename Function>
int guarded_in(sqlite3_vtab* table, Function function) {
  return guarded(
      [&](const char* text) {
        sqlite3_free(table->zErrMsg);
        table->zErrMsg = sqlite3_mprintf("%s", text);
      },
      function);
}

// ---- Lifecycle of a table ----

int open_table(sqlite3* database, int count, const char* const* arguments, sqlite3_vtab** out,
               char** message, bool create) {
  return guarded([&](const char* text) { *message = sqlite3_mprintf("%s", text); },
                 [&] {
                   const std::span given(arguments, static_cast<std::size_t>(count));
                   const std::string name = given[2];
                   auto table = std::make_unique<Table>(database, given[1], given[2],
                                                        read_declaration(name, given.subspan(3)));
                   const int declared =
                       sqlite3_declare_vtab(database, table->declaration.schema(name).c_str());
                   if (declared != SQLITE_OK) throw SqlError(declared, sqlite3_errmsg(database));
                   sqlite3_vtab_config(database, SQLITE_VTAB_CONSTRAINT_SUPPORT, 1);
                   if (create) table->storage.create();
                   table->storage.check();
                   *out = table.release();
                   return SQLITE_OK;
                 });
}
int create_table(sqlite3* database, void*, int count, const char* const* arguments,
                 sqlite3_vtab** out, char** message) {
  return open_table(database, count, arguments, out, message, true);
}
int connect_table(sqlite3* database, void*, int count, const char* const* arguments,
                  sqlite3_vtab** out, char** message) {
  return open_table(database, count, arguments, out, message, false);
}

int disconnect_table(sqlite3_vtab* table) {
  delete table_of(table);
  return SQLITE_OK;
}
int destroy_table(sqlite3_vtab* table) {
  const int result = guarded_in(table, [&] {
    table_of(table)->storage.drop();
    return SQLITE_OK;
  });
  if (result == SQLITE_OK) delete table_of(table);
  return result;
}
int rename_table(sqlite3_vtab* table, const char* name) {
  return guarded_in(table, [&] {
    table_of(table)->storage.rename(name);
    return SQLITE_OK;
  });
}
int is_shadow_name(const char* suffix) {
  for (const char* const own : Storage::kTables) {
    if (sqlite3_stricmp(suffix, own) == 0) return 1;
  }
  return 0;
}

// ---- Transactions ----

int begin(sqlite3_vtab* table) {
  table_of(table)->live.begin();
  return SQLITE_OK;
}
int commit(sqlite3_vtab* table) {
  table_of(table)->live.end();
  return SQLITE_OK;
}
int roll_back(sqlite3_vtab* table) {
  return guarded_in(table, [&] {
    table_of(table)->live.undo();
    table_of(table)->live.end();
    return SQLITE_OK;
  });
}
int roll_back_to(sqlite3_vtab* table, int) {
  return guarded_in(table, [&] {
    table_of(table)->live.undo();
    return SQLITE_OK;
  });
}
int nothing_to_do(sqlite3_vtab*) { return SQLITE_OK; }
int nothing_to_keep(sqlite3_vtab*, int) { return SQLITE_OK; }

// ---- Reading ----

int best_index(sqlite3_vtab* base, sqlite3_index_info* info) {
  return guarded_in(base, [&] {
    Table* const table = table_of(base);
    return choose_plan(table->declaration, info, [&](const std::vector<Condition>& conditions) {
      return std::string(name_of(table->live.access_path(conditions)));
    });
  });
}

int open_cursor(sqlite3_vtab* table, sqlite3_vtab_cursor** out) {
  return guarded_in(table, [&] {
    *out = new Cursor{};
    return SQLITE_OK;
  });
}
int close_cursor(sqlite3_vtab_cursor* cursor) {
  delete cursor_of(cursor);
  return SQLITE_OK;
}

int filter(sqlite3_vtab_cursor* base, int number, const char* plan, int count,
           sqlite3_value** arguments) {
  return guarded_in(base->pVtab, [&] {
    Cursor* const cursor = cursor_of(base);
    Table* const table = cursor->table();
    cursor->searching = number == kSearch;
    cursor->row_read = false;
    cursor->at = 0;
    if (number == kSearch) {
      const Search search = read_search(table->declaration, plan, count, arguments);
      cursor->k = search.k;
      cursor->hits = {};
      cursor->rows = Statement(table->database, table->storage.select_rows("WHERE rowid = ?1"));
      if (search.nothing_passes) return SQLITE_OK;
      table->live.catch_up();
      cursor->hits = table->live.search(search.query, search.k, search.conditions);
      return SQLITE_OK;
    }
    cursor->rows = Statement(
        table->database, table->storage.select_rows(number == kOneRow ? "WHERE rowid = ?1" : ""));
    if (number == kOneRow) cursor->rows.bind(1, arguments[0]);
    cursor->has_row = cursor->rows.step();
    return SQLITE_OK;
  });
}

int next(sqlite3_vtab_cursor* base) {
  return guarded_in(base->pVtab, [&] {
    Cursor* const cursor = cursor_of(base);
    if (cursor->searching) {
      ++cursor->at;
      cursor->row_read = false;
    } else {
      cursor->has_row = cursor->rows.step();
    }
    return SQLITE_OK;
  });
}

int at_end(sqlite3_vtab_cursor* base) {
  const Cursor* const cursor = cursor_of(base);
  return cursor->searching ? cursor->at >= cursor->hits.size() : !cursor->has_row;
}

int read_rowid(sqlite3_vtab_cursor* base, sqlite3_int64* rowid) {
  const Cursor* const cursor = cursor_of(base);
  *rowid = cursor->searching ? cursor->hits.ids[cursor->at] : cursor->rows.integer(0);
  return SQLITE_OK;
}

int read_column(sqlite3_vtab_cursor* base, sqlite3_context* context, int column) {
  return guarded_in(base->pVtab, [&] {
    Cursor* const cursor = cursor_of(base);
    const Declaration& declaration = cursor->table()->declaration;
    if (column >= declaration.command_column()) {
      if (!cursor->searching) return SQLITE_OK;
      const auto score = static_cast<double>(cursor->hits.scores[cursor->at]);
      if (column == declaration.score_column()) sqlite3_result_double(context, score);
      if (column == declaration.distance_column()) sqlite3_result_double(context, -score);
      if (column == declaration.k_column()) sqlite3_result_int64(context, cursor->k);
      return SQLITE_OK;
    }
    if (cursor->searching && !cursor->row_read) {
      cursor->rows.reset();
      cursor->rows.bind(1, cursor->hits.ids[cursor->at]);
      cursor->has_row = cursor->rows.step();
      cursor->row_read = true;
    }
    if (cursor->has_row) sqlite3_result_value(context, cursor->rows.value(column + 1));
    return SQLITE_OK;
  });
}

// ---- Commands: INSERT INTO words(words) VALUES ('rebuild') ----

class Command {
 public:
  Command(Table* table, std::string_view text)
      : table_(table),
        text_(text),
        reader_(table->declaration),
        ivf_(table->storage, reader_, table->declaration.dim) {}

  void run() {
    const std::string_view name = word();
    if (name == "rebuild") {
      finish();
      if (ivf_.nprobe()) ivf_.refill([this] { report_progress(); });
      table_->storage.begin_generation();
    } else if (name == "ivf") {
      ivf();
    } else {
      fail("there is 'rebuild', 'ivf nlist=256 nprobe=8' and 'ivf off'");
    }
  }

 private:
  std::string_view word() {
    const std::size_t first = std::min(text_.find_first_not_of(' '), text_.size());
    text_.remove_prefix(first);
    const std::string_view found = text_.substr(0, text_.find(' '));
    text_.remove_prefix(found.size());
    return found;
  }
  void finish() {
    if (!word().empty()) fail("nothing may follow it");
  }
  [[noreturn]] void fail(const std::string& why) const {
    throw SqlError("the command is unknown or incomplete: " + why);
  }

  void ivf() {
    std::optional<std::int64_t> nlist;
    std::optional<std::int64_t> nprobe;
    for (std::string_view option = word(); !option.empty(); option = word()) {
      if (option == "off") {
        finish();
        ivf_.forget();
        table_->storage.begin_generation();
        return;
      }
      const std::size_t equals = std::min(option.find('='), option.size() - 1);
      std::int64_t number = 0;
      const char* const end = option.data() + option.size();
      const auto [rest, error] = std::from_chars(option.data() + equals + 1, end, number);
      const std::string_view name = option.substr(0, equals);
      if (error != std::errc() || rest != end || number < 1 || number > kMostLists ||
          (name != "nlist" && name != "nprobe")) {
        fail(std::string(option) + " is no nlist or nprobe from 1 to " +
             std::to_string(kMostLists));
      }
      (name == "nlist" ? nlist : nprobe) = number;
    }
    if (!nlist && !nprobe) fail("an IVF needs nlist and nprobe");
    if (nlist) {
      ivf_.learn(*nlist, [this] { report_progress(); });
    } else if (!ivf_.nprobe()) {
      fail("there is no IVF yet, so nlist is needed");
    }
    ivf_.set_nprobe(nprobe.value_or(ivf_.nprobe().value_or(8)));
    table_->storage.begin_generation();
  }

  // A few steps of SQLite's own machine, which call the host's progress handler.
  void report_progress() {
    if (!steps_) {
      steps_ = Statement(table_->database,
                         "WITH RECURSIVE n(i) AS (VALUES (1) UNION ALL SELECT i + 1 FROM n "
                         "WHERE i < " +
                             std::to_string(kProgressSteps) + ") SELECT count(*) FROM n");
    }
    steps_.run();
  }

  Table* table_;
  std::string_view text_;
  RowReader reader_;
  IvfState ivf_;
  Statement steps_;
};

// ---- Writing ----

// The numbers and the vector of a row, checked.
std::vector<std::byte> checked(const Declaration& declaration, sqlite3_value** row) {
  for (const int hidden :
       {declaration.k_column(), declaration.score_column(), declaration.distance_column()}) {
    if (sqlite3_value_type(row[hidden]) != SQLITE_NULL) {
      throw SqlError("k, score and distance cannot be written");
    }
  }
  std::vector<std::byte> vector;
  for (std::size_t i = 0; i < declaration.columns.size(); ++i) {
    const Column& column = declaration.columns[i];
    sqlite3_value* const value = row[i];
    switch (column.kind) {
      case ColumnKind::kVector:
        vector = bytes_of(vector_of(value, declaration.dim, column.name));
        break;
      case ColumnKind::kNumber:
      case ColumnKind::kPartition:
        if (sqlite3_value_type(value) != SQLITE_NULL &&
            (sqlite3_value_type(value) != SQLITE_INTEGER ||
             sqlite3_value_int64(value) == std::numeric_limits<std::int64_t>::min())) {
          throw SqlError(SQLITE_MISMATCH,
                         "the column " + column.name + " takes integers above -2^63, and null");
        }
        break;
      case ColumnKind::kExtra:
        break;
    }
  }
  return vector;
}

std::optional<std::int64_t> checked_rowid(sqlite3_value* value) {
  if (sqlite3_value_type(value) == SQLITE_NULL) return std::nullopt;
  if (sqlite3_value_type(value) != SQLITE_INTEGER) {
    throw SqlError(SQLITE_MISMATCH, "a rowid is no integer");
  }
  const std::int64_t rowid = sqlite3_value_int64(value);
  if (rowid < 0) throw SqlError("the rowid " + std::to_string(rowid) + " is below 0");
  return rowid;
}

int update(sqlite3_vtab* base, int count, sqlite3_value** arguments, sqlite3_int64* rowid) {
  return guarded_in(base, [&] {
    Table* const table = table_of(base);
    const bool had_row = sqlite3_value_type(arguments[0]) != SQLITE_NULL;
    const std::int64_t old_rowid = sqlite3_value_int64(arguments[0]);
    if (count == 1) {
      table->storage.remove(old_rowid);
      return SQLITE_OK;
    }
    sqlite3_value** const row = arguments + 2;
    sqlite3_value* const command = row[table->declaration.command_column()];
    if (sqlite3_value_type(command) != SQLITE_NULL) {
      if (had_row) throw SqlError("a command is given by INSERT");
      Command(table, text_of(command)).run();
      return SQLITE_OK;
    }
    const std::vector<std::byte> vector = checked(table->declaration, row);
    const std::optional<std::int64_t> new_rowid = checked_rowid(arguments[1]);
    const bool replaces = sqlite3_vtab_on_conflict(table->database) == SQLITE_REPLACE;
    if (had_row && new_rowid == old_rowid) {
      table->storage.insert(new_rowid, row, Storage::Conflict::kReplace, vector);
      return SQLITE_OK;
    }
    *rowid = table->storage.insert(
        new_rowid, row, replaces ? Storage::Conflict::kReplace : Storage::Conflict::kFail, vector);
    if (had_row) table->storage.remove(old_rowid);
    return SQLITE_OK;
  });
}

constexpr sqlite3_module kModule = {
    .iVersion = 3,
    .xCreate = create_table,
    .xConnect = connect_table,
    .xBestIndex = best_index,
    .xDisconnect = disconnect_table,
    .xDestroy = destroy_table,
    .xOpen = open_cursor,
    .xClose = close_cursor,
    .xFilter = filter,
    .xNext = next,
    .xEof = at_end,
    .xColumn = read_column,
    .xRowid = read_rowid,
    .xUpdate = update,
    .xBegin = begin,
    .xSync = nothing_to_do,
    .xCommit = commit,
    .xRollback = roll_back,
    .xFindFunction = nullptr,
    .xRename = rename_table,
    .xSavepoint = nothing_to_keep,
    .xRelease = nothing_to_keep,
    .xRollbackTo = roll_back_to,
    .xShadowName = is_shadow_name,
};

}  // namespace
}  // namespace qx_sqlite

extern "C" __attribute__((visibility("default"))) int sqlite3_qx_init(
    sqlite3* database, char** message, const sqlite3_api_routines* api) {
  SQLITE_EXTENSION_INIT2(api);
  return qx_sqlite::guarded([&](const char* text) { *message = sqlite3_mprintf("%s", text); },
                            [&] {
                              qx_sqlite::register_vector_functions(database);
                              return sqlite3_create_module_v2(database, "qx", &qx_sqlite::kModule,
                                                              nullptr, nullptr);
                            });
}
