// The ordinary tables that store the rows of a virtual table, its shadow tables:
//
//   NAME_values   of each row its values, its place: which vector is its own, and its list; NULL if
//                 that is to be found
//   NAME_vectors  the vectors, in chunks of many places
//   NAME_free     places below the highest that no row has
//   NAME_commits  stamps, random numbers that name what the rows are; with each the rowids that
//                 were written since the stamp before, or NULL if those are not known
//   NAME_state    the version of this layout, and settings
//
// Vectors and rowids that are written wait in memory until SQLite begins a savepoint or commits, or
// something is read: chunks are written once for many rows.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "database.h"
#include "declaration.h"
#include "vectors.h"

namespace qx_sqlite {

// What a commit has changed: all of the rows if `rowids` is empty-handed.
struct Commit {
  std::int64_t stamp = 0;
  std::optional<std::vector<std::int64_t>> rowids;
};

// A chunk of vectors that is read or written in parts.
class Chunk {
 public:
  void open(sqlite3* database, const std::string& schema, const std::string& table,
            std::int64_t chunk, bool writes);
  void close() { blob_.reset(); }
  // Throws where the chunk is too short.
  void read(std::int64_t at, std::span<std::byte> bytes);
  void write(std::int64_t at, std::span<const std::byte> bytes);

 private:
  struct Close {
    void operator()(sqlite3_blob* blob) const { sqlite3_blob_close(blob); }
  };
  sqlite3* database_ = nullptr;
  std::int64_t chunk_ = -1;
  std::unique_ptr<sqlite3_blob, Close> blob_;
};

class Storage {
 public:
  static constexpr std::array<const char*, 5> kTables = {"values", "vectors", "free", "commits",
                                                         "state"};

  static constexpr std::int64_t kMostPlaces = std::int64_t{1} << 44;

  Storage(sqlite3* database, std::string schema, std::string table, const Declaration& declaration);

  void create();
  // Must be called before anything is read or written. Throws where the layout is unknown, or of
  // the version before, whose rows are in NAME_rows with their vectors. Not when SQLite connects to
  // the table: a transaction that has read cannot write after another has.
  void check();
  void migrate();
  void drop();
  void rename(const std::string& table);

  // The rows of a statement have the rowid, the place, then declared columns but the vector, and
  // last the list.
  static constexpr int kFirstValue = 2;
  enum class Columns { kAll, kFilters, kFiltersAndList };
  std::string select_rows(std::string_view rest, Columns columns = Columns::kAll) const;
  std::string select_rowids(std::string_view rest) const {
    return joined("SELECT rowid FROM ", name("values"), " ", rest);
  }
  std::int64_t count() const {
    return *Statement(database_, "SELECT count(*) FROM " + name("values")).number();
  }
  Statement& one_row() { return prepared(one_row_, select_rows("WHERE rowid = ?1")); }
  // Of places that follow each other in one chunk.
  void read_vectors(Chunk* chunk, std::int64_t place, std::span<float> vectors) const;
  Floats read_vector(Chunk* chunk, std::int64_t place) const;

  // How rows meet others of their rowid.
  enum class Conflict { kFail, kReplace };
  // `row` has the table's columns; without a rowid one is chosen. Returns the rowid.
  std::int64_t insert(std::optional<std::int64_t> rowid, sqlite3_value** row, Conflict conflict,
                      std::span<const float> vector);
  // Without floats the vector stays.
  void update(std::int64_t old_rowid, std::int64_t rowid, sqlite3_value** row, Conflict conflict,
              std::span<const float> vector);
  void remove(std::int64_t rowid);

  // Writes what waits, or forgets it.
  void flush();
  void forget();
  // Begins anew: whoever holds rows in memory reads them all.
  void note_all();
  // Gives back places that no row has.
  void optimize();

  std::int64_t stamp();
  // Calls look(commit) for each known commit, the latest first, until that returns true.
  void commits(const std::function<bool(const Commit&)>& look);

  // Settings, and what else is known of the table.
  std::optional<std::int64_t> number(std::string_view key);
  void set(std::string_view key, std::optional<std::int64_t> value);

  // The centroids of lists, and of each of some rows its list.
  Floats centroids();
  void set_lists(std::span<const float> centroids, std::span<const std::int64_t> rowids,
                 std::span<const std::uint32_t> lists);

  std::int64_t rows_of_chunk() const { return chunk_rows_; }
  sqlite3* database() const { return database_; }
  const std::string& schema() const { return schema_; }
  const std::string& table() const { return table_; }

 private:
  struct Write {
    std::int64_t place;
    std::size_t at;  // in floats_
  };
  std::string name(std::string_view suffix) const;
  Statement& prepared(Statement& statement, const std::string& sql);
  Statement& latest();
  std::string assignments(std::string_view before, std::string_view after) const;
  void bind_values(Statement& statement, int first, sqlite3_value** row);
  std::int64_t next_place();
  void take_place(std::int64_t place);
  void write_vector(std::int64_t place, std::span<const float> vector);
  void write_chunk(std::int64_t chunk, std::span<const Write> writes);
  void note(std::int64_t rowid);
  void write_commit();
  void create_tables();

  sqlite3* database_;
  std::string schema_;
  std::string table_;
  const Declaration& declaration_;
  std::int64_t chunk_rows_;

  // What waits.
  std::vector<Write> writes_;
  Floats floats_;
  std::vector<std::int64_t> written_;
  bool all_written_ = false;
  bool is_checked_ = false;
  // How many places there are, and whether some are free; not known at first.
  std::optional<std::int64_t> places_;
  std::optional<bool> has_free_;

  Statement one_row_, insert_, update_, replace_, remove_, free_, lowest_free_, take_free_;
  Statement latest_, commit_, trim_, state_, new_chunk_;
};

}  // namespace qx_sqlite
