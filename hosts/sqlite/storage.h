// The ordinary tables that store the rows of a virtual table, its shadow tables:
//
//   NAME_rows   the rows, as inserted
//   NAME_log    the rowids written since the generation began, in the order of writing
//   NAME_state  the generation, and what else is known of the table
//
// Whoever holds the rows in memory reads the generation and the log to catch up: with its own
// writes as with those of another connection.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "database.h"
#include "declaration.h"

namespace qx_sqlite {

class Storage {
 public:
  static constexpr std::array<const char*, 3> kTables = {"rows", "log", "state"};

  Storage(sqlite3* database, std::string schema, std::string table, const Declaration& declaration);

  void create();
  // Throws where a table is missing or of another version.
  void check();
  void drop();
  void rename(const std::string& table);

  // How rows meet others of their rowid.
  enum class Conflict { kFail, kReplace };
  // `row` has the table's columns, or the rowid is without a value. Returns the rowid.
  std::int64_t insert(std::optional<std::int64_t> rowid, sqlite3_value** row, Conflict conflict,
                      std::span<const std::byte> vector);
  void remove(std::int64_t rowid);

  std::int64_t generation();
  // Begins another: the log is emptied, and whoever holds rows in memory reads them all anew.
  void begin_generation();
  std::int64_t last_entry();

  // What a key of the state has: a number, or a BLOB.
  std::optional<std::int64_t> number(std::string_view key);
  std::vector<std::byte> blob(std::string_view key);
  void set(std::string_view key, std::variant<std::int64_t, std::span<const std::byte>> value);
  void forget(std::string_view key);

  // Statements: all rows in the order of rowids; one row; all rowids written after
  // an entry, each once. The rows' columns are the rowid, then the declared ones.
  Statement& all_rows() { return prepared(all_rows_, all_rows_sql_); }
  Statement& one_row() { return prepared(one_row_, one_row_sql_); }
  Statement& written_after() { return prepared(written_after_, written_after_sql_); }
  std::string select_rows(const std::string& rest) const;

  std::int64_t count();
  std::int64_t longest_blob() const;
  // The vectors of all rows have no more floats than this, unless the table is damaged.
  std::size_t most_floats();

 private:
  std::string name(std::string_view suffix) const;
  Statement& prepared(Statement& statement, const std::string& sql);
  void note(std::int64_t rowid);

  sqlite3* database_;
  std::string schema_;
  std::string table_;
  const Declaration& declaration_;
  std::string all_rows_sql_, one_row_sql_, written_after_sql_, state_sql_;
  Statement all_rows_, one_row_, written_after_;
  Statement insert_, replace_, remove_, note_, last_entry_, state_, set_state_;
};

}  // namespace qx_sqlite
