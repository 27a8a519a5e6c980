#include "storage.h"

#include <algorithm>

namespace qx_sqlite {
namespace {

constexpr std::int64_t kVersion = 1;
// A log of more entries is given up for a new generation: reading all rows is then as quick.
constexpr std::int64_t kLongestLog = 100'000;

std::int64_t random_number() {
  std::int64_t number = 0;
  sqlite3_randomness(sizeof number, &number);
  return number;
}

}  // namespace

Storage::Storage(sqlite3* database, std::string schema, std::string table,
                 const Declaration& declaration)
    : database_(database),
      schema_(std::move(schema)),
      table_(std::move(table)),
      declaration_(declaration) {
  all_rows_sql_ = select_rows("ORDER BY rowid");
  one_row_sql_ = select_rows("WHERE rowid = ?1");
  written_after_sql_ = "SELECT DISTINCT rowid_ FROM " + name("log") + " WHERE entry > ?1";
  state_sql_ = "SELECT value FROM " + name("state") + " WHERE key = ?1";
}

std::string Storage::name(std::string_view suffix) const {
  return quoted(schema_) + "." + quoted(table_ + "_" + std::string(suffix));
}

std::string Storage::select_rows(const std::string& rest) const {
  std::string sql = "SELECT rowid";
  for (const Column& column : declaration_.columns) sql += ", " + quoted(column.name);
  return sql + " FROM " + name("rows") + " " + rest;
}

Statement& Storage::prepared(Statement& statement, const std::string& sql) {
  if (!statement) statement = Statement(database_, sql);
  return statement;
}

void Storage::create() {
  std::string columns = "rowid INTEGER PRIMARY KEY";
  for (const Column& column : declaration_.columns) {
    columns += ", " + quoted(column.name) + column.sql_type();
    if (column.kind == ColumnKind::kVector) columns += " NOT NULL";
  }
  execute(database_, "CREATE TABLE " + name("rows") + "(" + columns + ")");
  execute(database_,
          "CREATE TABLE " + name("log") + "(entry INTEGER PRIMARY KEY, rowid_ INTEGER NOT NULL)");
  // Not WITHOUT ROWID, which would store values in the index of the keys: every search reads the
  // generation, and would then read past long values.
  execute(database_, "CREATE TABLE " + name("state") + "(key TEXT PRIMARY KEY, value)");
  set("version", kVersion);
  set("generation", random_number());
}

void Storage::check() {
  require_intact(number("version") == kVersion, "the table ", table_, " is not of version ",
                 kVersion, " of its format");
  generation();
}

void Storage::drop() {
  for (const char* const suffix : kTables) {
    execute(database_, "DROP TABLE IF EXISTS " + name(suffix));
  }
}

void Storage::rename(const std::string& table) {
  for (const char* const suffix : kTables) {
    execute(database_,
            "ALTER TABLE " + name(suffix) + " RENAME TO " + quoted(table + "_" + suffix));
  }
}

std::int64_t Storage::insert(std::optional<std::int64_t> rowid, sqlite3_value** row,
                             Conflict conflict, std::span<const std::byte> vector) {
  std::string columns = "rowid";
  std::string values = "?";
  for (const Column& column : declaration_.columns) {
    columns += ", " + quoted(column.name);
    values += ", ?";
  }
  const std::string rest = "INTO " + name("rows") + "(" + columns + ") VALUES (" + values + ")";
  Statement& statement = conflict == Conflict::kReplace
                             ? prepared(replace_, "INSERT OR REPLACE " + rest)
                             : prepared(insert_, "INSERT " + rest);
  statement.bind(1, rowid);
  for (int i = 0; i < static_cast<int>(declaration_.columns.size()); ++i) {
    if (i == declaration_.vector_column) {
      statement.bind(i + 2, vector);
    } else {
      statement.bind(i + 2, row[i]);
    }
  }
  statement.run();
  const std::int64_t written = rowid ? *rowid : sqlite3_last_insert_rowid(database_);
  note(written);
  return written;
}

void Storage::remove(std::int64_t rowid) {
  prepared(remove_, "DELETE FROM " + name("rows") + " WHERE rowid = ?1").run(rowid);
  note(rowid);
}

void Storage::note(std::int64_t rowid) {
  if (last_entry() >= kLongestLog) return begin_generation();
  prepared(note_, "INSERT INTO " + name("log") + "(rowid_) VALUES (?1)").run(rowid);
}

std::int64_t Storage::generation() {
  const std::optional<std::int64_t> generation = number("generation");
  require_intact(generation.has_value(), table_, "_state has no generation");
  return *generation;
}

void Storage::begin_generation() {
  set("generation", random_number());
  execute(database_, "DELETE FROM " + name("log"));
}

std::int64_t Storage::last_entry() {
  return prepared(last_entry_, "SELECT max(entry) FROM " + name("log")).number().value_or(0);
}

std::optional<std::int64_t> Storage::number(std::string_view key) {
  return prepared(state_, state_sql_).number(key);
}

std::vector<std::byte> Storage::blob(std::string_view key) {
  std::vector<std::byte> found;
  const auto read = [&](const Statement& row) {
    if (row.type(0) != SQLITE_BLOB) return;
    const std::span<const std::byte> bytes = row.blob(0);
    found.assign(bytes.begin(), bytes.end());
  };
  prepared(state_, state_sql_).each(read, key);
  return found;
}

void Storage::set(std::string_view key,
                  std::variant<std::int64_t, std::span<const std::byte>> value) {
  Statement& statement =
      prepared(set_state_, "INSERT OR REPLACE INTO " + name("state") + " VALUES (?1, ?2)");
  std::visit([&](auto given) { statement.run(key, given); }, value);
}

void Storage::forget(std::string_view key) {
  Statement(database_, "DELETE FROM " + name("state") + " WHERE key = ?1").run(key);
}

std::int64_t Storage::longest_blob() const {
  return sqlite3_limit(database_, SQLITE_LIMIT_LENGTH, -1);
}

std::size_t Storage::most_floats() {
  const auto answer = [&](const std::string& sql) {
    return std::max<std::int64_t>(Statement(database_, sql).number().value_or(0), 0);
  };
  const std::int64_t pages = answer("PRAGMA " + quoted(schema_) + ".page_count");
  const std::int64_t page_bytes = answer("PRAGMA " + quoted(schema_) + ".page_size");
  const std::int64_t highest = answer("SELECT max(rowid) FROM " + name("rows"));
  const std::int64_t stored = pages * page_bytes / 4;
  // Compared before the product, which may be too large.
  return static_cast<std::size_t>(
      highest < stored / declaration_.dim ? (highest + 1) * declaration_.dim : stored);
}

std::int64_t Storage::count() {
  return Statement(database_, "SELECT count(*) FROM " + name("rows")).number().value_or(0);
}

}  // namespace qx_sqlite
