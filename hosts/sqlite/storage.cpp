#include "storage.h"

#include <algorithm>
#include <cstring>

namespace qx_sqlite {
namespace {

constexpr std::int64_t kVersion = 2;
constexpr std::int64_t kOldVersion = 1;
constexpr std::int64_t kMostCommits = std::int64_t{1} << 62;
constexpr std::int64_t kChunkBytes = 1 << 18;
// Commits are kept that have written fewer rowids than this in all, and than a quarter of the rows:
// to read more rows one by one takes longer than to read all of them.
constexpr std::int64_t kFewRowids = 10'000;

std::int64_t random_number() {
  std::int64_t number = 0;
  sqlite3_randomness(sizeof number, &number);
  return number;
}

std::vector<std::byte> bytes_of_rowids(const std::vector<std::int64_t>& rowids) {
  std::vector<std::byte> bytes;
  bytes.reserve(rowids.size() * 8);
  for (const std::int64_t rowid : rowids) {
    for (int shift = 0; shift < 64; shift += 8) {
      bytes.push_back(static_cast<std::byte>(static_cast<std::uint64_t>(rowid) >> shift));
    }
  }
  return bytes;
}

std::vector<std::int64_t> rowids_of(std::span<const std::byte> bytes) {
  std::vector<std::int64_t> rowids(bytes.size() / 8);
  for (std::size_t i = 0; i < rowids.size() * 8; ++i) {
    const auto byte = std::to_integer<std::uint64_t>(bytes[i]);
    rowids[i / 8] =
        static_cast<std::int64_t>(static_cast<std::uint64_t>(rowids[i / 8]) | byte << i % 8 * 8);
  }
  return rowids;
}

// Statements of the extension are no inserts of the host.
class KeptRowid {
 public:
  explicit KeptRowid(sqlite3* database)
      : database_(database), rowid_(sqlite3_last_insert_rowid(database)) {}
  ~KeptRowid() { sqlite3_set_last_insert_rowid(database_, rowid_); }
  KeptRowid(const KeptRowid&) = delete;

 private:
  sqlite3* database_;
  std::int64_t rowid_;
};

}  // namespace

// ---- Chunks ----

void Chunk::open(sqlite3* database, const std::string& schema, const std::string& table,
                 std::int64_t chunk, bool writes) {
  if (blob_ && chunk == chunk_) return;
  database_ = database;
  chunk_ = chunk;
  if (blob_ && sqlite3_blob_reopen(blob_.get(), chunk) == SQLITE_OK) return;
  sqlite3_blob* opened = nullptr;
  blob_.reset();
  const int result = sqlite3_blob_open(database, schema.c_str(), (table + "_vectors").c_str(),
                                       "vectors", chunk, writes ? 1 : 0, &opened);
  blob_.reset(opened);
  if (result == SQLITE_OK) return;
  blob_.reset();
  require_intact(result != SQLITE_ERROR, "the vectors of ", table, " are damaged: chunk ", chunk,
                 " is missing");
  throw SqlError(result, sqlite3_errmsg(database));
}

void Chunk::read(std::int64_t at, std::span<std::byte> bytes) {
  const int result = sqlite3_blob_read(blob_.get(), bytes.data(), static_cast<int>(bytes.size()),
                                       static_cast<int>(at));
  require_intact(result != SQLITE_ERROR, "a chunk of vectors is damaged: it is too short");
  if (result != SQLITE_OK) throw SqlError(result, sqlite3_errmsg(database_));
}

void Chunk::write(std::int64_t at, std::span<const std::byte> bytes) {
  const int result = sqlite3_blob_write(blob_.get(), bytes.data(), static_cast<int>(bytes.size()),
                                        static_cast<int>(at));
  require_intact(result != SQLITE_ERROR, "a chunk of vectors is damaged: it is too short");
  if (result != SQLITE_OK) throw SqlError(result, sqlite3_errmsg(database_));
}

// ---- Tables ----

Storage::Storage(sqlite3* database, std::string schema, std::string table,
                 const Declaration& declaration)
    : database_(database),
      schema_(std::move(schema)),
      table_(std::move(table)),
      declaration_(declaration),
      chunk_rows_(std::max<std::int64_t>(kChunkBytes / (4 * declaration.dim), 1)) {}

std::string Storage::name(std::string_view suffix) const {
  return quoted(schema_) + "." + quoted(table_ + "_" + std::string(suffix));
}

Statement& Storage::prepared(Statement& statement, const std::string& sql) {
  if (!statement) statement = Statement(database_, sql);
  return statement;
}

// Each declared column but the vector, with something before and after it.
std::string Storage::assignments(std::string_view before, std::string_view after) const {
  std::string sql;
  for (const Column& column : declaration_.columns) {
    if (column.kind != ColumnKind::kVector) sql += joined(before, quoted(column.name), after);
  }
  return sql;
}

void Storage::create_tables() {
  std::string columns;
  for (const Column& column : declaration_.columns) {
    if (column.kind != ColumnKind::kVector)
      columns += ", " + quoted(column.name) + column.sql_type();
  }
  const std::pair<const char*, std::string> tables[] = {
      {"values", "rowid INTEGER PRIMARY KEY, \"#\" INTEGER NOT NULL, \"#list\" INTEGER" + columns},
      {"vectors", "chunk INTEGER PRIMARY KEY, vectors BLOB NOT NULL"},
      {"free", "place INTEGER PRIMARY KEY"},
      {"commits",
       "entry INTEGER PRIMARY KEY, stamp INTEGER NOT NULL, places INTEGER NOT NULL, "
       "total INTEGER NOT NULL, rowids BLOB"}};
  for (const auto& [table, definition] : tables) {
    execute(database_, "CREATE TABLE " + name(table) + "(" + definition + ")");
  }
}

void Storage::create() {
  create_tables();
  execute(database_, "CREATE TABLE " + name("state") + "(key TEXT PRIMARY KEY, value)");
  set("version", kVersion);
  places_ = 0;
  note_all();
  flush();
}

void Storage::check() {
  if (is_checked_) return;
  const std::optional<std::int64_t> version = number("version");
  require(version != kOldVersion, "the table ", table_, " is of an older layout: INSERT INTO ",
          table_, "(", table_, ") VALUES ('migrate')");
  require_intact(version == kVersion, "the table ", table_,
                 " is of no version of its format up to ", kVersion);
  is_checked_ = true;
}

void Storage::migrate() {
  require(number("version") == kOldVersion, "the table ", table_, " is of the present layout");
  const KeptRowid kept(database_);
  create_tables();
  places_ = 0;
  std::string sql = "SELECT rowid";
  for (const Column& column : declaration_.columns) sql += ", " + quoted(column.name);
  Statement(database_, sql + " FROM " + name("rows") + " ORDER BY rowid")
      .each([&](const Statement& row) {
        std::vector<sqlite3_value*> values;
        values.reserve(declaration_.columns.size());
        for (int i = 0; i < declaration_.command_column(); ++i) values.push_back(row.value(i + 1));
        const Floats vector =
            vector_of(row.value(declaration_.vector_column + 1), declaration_.dim, "of a row");
        insert(row.integer(0), values.data(), Conflict::kFail, vector);
        if (std::ssize(writes_) >= chunk_rows_) flush();
      });
  // SQLite drops no table within a statement.
  for (const char* const old : {"rows", "log"}) execute(database_, "DELETE FROM " + name(old));
  execute(database_, "DELETE FROM " + name("state"));
  set("version", kVersion);
  note_all();
  flush();
}

void Storage::drop() {
  for (const char* const suffix : kTables) {
    execute(database_, "DROP TABLE IF EXISTS " + name(suffix));
  }
  for (const char* const old : {"rows", "log"}) {
    execute(database_, "DROP TABLE IF EXISTS " + name(old));
  }
}

void Storage::rename(const std::string& table) {
  declaration_.check_name(table);
  for (const char* const suffix : kTables) {
    execute(database_,
            "ALTER TABLE " + name(suffix) + " RENAME TO " + quoted(table + "_" + suffix));
  }
}

// ---- Rows ----

std::string Storage::select_rows(std::string_view rest, Columns columns) const {
  std::string sql = "SELECT rowid, \"#\"";
  for (const Column& column : declaration_.columns) {
    const bool all = columns == Columns::kAll && column.kind != ColumnKind::kVector;
    if (all || column.is_filter()) sql += ", " + quoted(column.name);
  }
  if (columns == Columns::kFiltersAndList) sql += ", \"#list\"";
  return joined(sql, " FROM ", name("values"), " ", rest);
}

void Storage::read_vectors(Chunk* chunk, std::int64_t place, std::span<float> vectors) const {
  require_intact(place >= 0, "a row of ", table_, " has the place ", place);
  chunk->open(database_, schema_, table_, place / chunk_rows_, false);
  chunk->read(place % chunk_rows_ * declaration_.dim * 4, std::as_writable_bytes(vectors));
  turn_order(vectors);
}

Floats Storage::read_vector(Chunk* chunk, std::int64_t place) const {
  Floats vector(static_cast<std::size_t>(declaration_.dim));
  read_vectors(chunk, place, vector);
  return vector;
}

void Storage::bind_values(Statement& statement, int first, sqlite3_value** row) {
  int at = first;
  for (std::size_t i = 0; i < declaration_.columns.size(); ++i) {
    if (declaration_.columns[i].kind != ColumnKind::kVector) statement.bind(at++, row[i]);
  }
}

std::int64_t Storage::insert(std::optional<std::int64_t> rowid, sqlite3_value** row,
                             Conflict conflict, std::span<const float> vector) {
  if (conflict == Conflict::kReplace && rowid) {
    const std::optional<std::int64_t> there = one_row().number(*rowid);
    if (there) {
      update(*rowid, *rowid, row, conflict, vector);
      return *rowid;
    }
  }
  const std::int64_t place = next_place();
  std::string parameters;
  for (std::size_t i = 0; i + 1 < declaration_.columns.size(); ++i) parameters += ", ?";
  Statement& statement =
      prepared(insert_, "INSERT INTO " + name("values") + "(rowid, \"#\"" + assignments(", ", "") +
                            ") VALUES (?, ?" + parameters + ")");
  bind_values(statement, 3, row);
  statement.run(rowid, std::optional(place));
  const std::int64_t written = rowid ? *rowid : sqlite3_last_insert_rowid(database_);
  take_place(place);
  write_vector(place, vector);
  note(written);
  return written;
}

void Storage::update(std::int64_t old_rowid, std::int64_t rowid, sqlite3_value** row,
                     Conflict conflict, std::span<const float> vector) {
  const KeptRowid kept(database_);
  if (old_rowid != rowid && conflict == Conflict::kReplace) remove(rowid);
  Statement& statement =
      prepared(update_, "UPDATE " + name("values") +
                            " SET rowid = ?2, \"#list\" = iif(?3, NULL, \"#list\")" +
                            assignments(", ", " = ?") + " WHERE rowid = ?1 RETURNING \"#\"");
  bind_values(statement, 4, row);
  const auto place = statement.number(std::optional(old_rowid), std::optional(rowid),
                                      std::optional(std::int64_t{!vector.empty()}));
  if (!place) return;
  if (!vector.empty()) write_vector(*place, vector);
  note(old_rowid);
  if (rowid != old_rowid) note(rowid);
}

void Storage::remove(std::int64_t rowid) {
  const KeptRowid kept(database_);
  const auto place =
      prepared(remove_, "DELETE FROM " + name("values") + " WHERE rowid = ?1 RETURNING \"#\"")
          .number(std::optional(rowid));
  if (!place) return;
  prepared(free_, "INSERT OR IGNORE INTO " + name("free") + " VALUES (?1)").run(place);
  has_free_ = true;
  note(rowid);
}

// ---- Places ----

std::int64_t Storage::next_place() {
  if (has_free_.value_or(true)) {
    const auto lowest = prepared(lowest_free_, "SELECT min(place) FROM " + name("free")).number();
    has_free_ = lowest.has_value();
    require_intact(!lowest || (*lowest >= 0 && *lowest < kMostPlaces), "the table ", table_,
                   "_free is damaged");
    if (lowest) return *lowest;
  }
  if (!places_) {
    stamp();  // there is a commit
    latest().each([&](const Statement& row) { places_ = row.integer(2); });
  }
  require_intact(*places_ >= 0 && *places_ < kMostPlaces, "the table ", table_, " has ", *places_,
                 " places");
  return *places_;
}

void Storage::take_place(std::int64_t place) {
  if (*has_free_) {
    const KeptRowid kept(database_);
    prepared(take_free_, "DELETE FROM " + name("free") + " WHERE place = ?1")
        .run(std::optional(place));
  } else {
    places_ = place + 1;
  }
}

void Storage::write_vector(std::int64_t place, std::span<const float> vector) {
  writes_.push_back({place, floats_.size()});
  floats_.insert(floats_.end(), vector.begin(), vector.end());
}

void Storage::note(std::int64_t rowid) { written_.push_back(rowid); }

void Storage::note_all() { all_written_ = true; }

void Storage::forget() {
  writes_.clear();
  floats_.clear();
  written_.clear();
  all_written_ = false;
  places_.reset();
  has_free_.reset();
}

void Storage::flush() {
  if (written_.empty() && !all_written_ && writes_.empty()) return;
  const KeptRowid kept(database_);
  if (!places_) {
    has_free_ = false;
    next_place();
    has_free_.reset();
  }
  const auto by_place = [](const Write& a, const Write& b) { return a.place < b.place; };
  if (!std::is_sorted(writes_.begin(), writes_.end(), by_place)) {
    std::stable_sort(writes_.begin(), writes_.end(), by_place);
  }
  const std::span writes(writes_);
  turn_order(floats_);
  for (std::size_t first = 0, end = 0; first < writes.size(); first = end) {
    const std::int64_t chunk = writes[first].place / chunk_rows_;
    while (end < writes.size() && writes[end].place / chunk_rows_ == chunk) ++end;
    write_chunk(chunk, writes.subspan(first, end - first));
  }
  write_commit();
  writes_.clear();
  floats_.clear();
  written_.clear();
  all_written_ = false;
}

// Writes runs of places whose vectors follow each other, at once.
void Storage::write_chunk(std::int64_t chunk, std::span<const Write> writes) {
  const auto dim = static_cast<std::size_t>(declaration_.dim);
  const auto bytes_at = [&](std::size_t first, std::size_t count) {
    return std::as_bytes(std::span(floats_).subspan(writes[first].at, count * dim));
  };
  const auto run_from = [&](std::size_t first) {
    std::size_t end = first + 1;
    while (end < writes.size() && writes[end].place == writes[end - 1].place + 1 &&
           writes[end].at == writes[end - 1].at + dim) {
      ++end;
    }
    return end - first;
  };
  Statement& insert = prepared(new_chunk_, "INSERT OR IGNORE INTO " + name("vectors") +
                                               " VALUES (?1, coalesce(?2, zeroblob(?3)))");
  const bool whole = std::ssize(writes) == chunk_rows_ && run_from(0) == writes.size();
  if (whole) insert.bind_static(2, bytes_at(0, writes.size()));
  insert.bind(3, std::optional(chunk_rows_ * declaration_.dim * 4));
  insert.run(std::optional(chunk));
  if (whole && sqlite3_changes(database_) == 1) return;
  Chunk opened;
  opened.open(database_, schema_, table_, chunk, true);
  for (std::size_t first = 0, count = 0; first < writes.size(); first += count) {
    count = run_from(first);
    opened.write(writes[first].place % chunk_rows_ * declaration_.dim * 4, bytes_at(first, count));
  }
}

// ---- Commits ----

void Storage::write_commit() {
  const std::int64_t kept = kFewRowids + *places_ / 4;
  std::int64_t entry = 0, total = 0;
  latest().each([&](const Statement& row) {
    entry = row.integer(0);
    total = row.integer(3);
  });
  require_intact(entry < kMostCommits && total >= 0 && total < kMostCommits, "the table ", table_,
                 "_commits is damaged");
  const bool all = all_written_ || std::ssize(written_) > kept;
  Statement& insert =
      prepared(commit_, "INSERT INTO " + name("commits") + " VALUES (?1, ?2, ?3, ?4, ?5)");
  total += std::ssize(written_);
  const std::vector<std::byte> rowids = bytes_of_rowids(written_);
  if (!all) insert.bind(5, std::span<const std::byte>(rowids));
  insert.run(std::optional(entry + 1), std::optional(random_number()), places_,
             std::optional(total));
  if (all) {
    execute(database_, joined("DELETE FROM ", name("commits"), " WHERE entry <= ", entry));
  } else if (entry % 16 == 0 || written_.size() > 1000) {
    prepared(trim_, "DELETE FROM " + name("commits") + " WHERE entry < (SELECT entry FROM " +
                        name("commits") + " WHERE total >= ?1 ORDER BY entry LIMIT 1)")
        .run(std::optional(total - kept));
  }
}

Statement& Storage::latest() {
  return prepared(latest_, "SELECT entry, stamp, places, total FROM " + name("commits") +
                               " ORDER BY entry DESC LIMIT 1");
}

std::int64_t Storage::stamp() {
  std::optional<std::int64_t> stamp;
  latest().each([&](const Statement& row) { stamp = row.integer(1); });
  require_intact(stamp.has_value(), "the table ", table_, "_commits is empty");
  return *stamp;
}

void Storage::commits(const std::function<bool(const Commit&)>& look) {
  Statement all(database_, "SELECT stamp, rowids FROM " + name("commits") + " ORDER BY entry DESC");
  while (all.step()) {
    Commit commit{all.integer(0), {}};
    if (all.type(1) == SQLITE_BLOB) commit.rowids = rowids_of(all.blob(1));
    if (look(commit)) break;
  }
}

// ---- Commands ----

// Rows of the highest places move to the free ones.
void Storage::optimize() {
  flush();
  const KeptRowid kept(database_);
  std::vector<std::pair<std::int64_t, std::int64_t>> rows;  // place, rowid
  Statement(database_, "SELECT \"#\", rowid FROM " + name("values"))
      .each([&](const Statement& row) { rows.emplace_back(row.integer(0), row.integer(1)); });
  std::sort(rows.begin(), rows.end());
  const std::int64_t count = std::ssize(rows);
  std::vector<bool> taken(static_cast<std::size_t>(count));
  std::size_t moved = rows.size();  // the first that has no place below `count`
  while (moved > 0 && rows[moved - 1].first >= count) --moved;
  for (std::size_t i = 0; i < moved; ++i) {
    require_intact(rows[i].first >= 0, "a row has the place ", rows[i].first);
    taken[static_cast<std::size_t>(rows[i].first)] = true;
  }
  Statement move(database_, "UPDATE " + name("values") + " SET \"#\" = ?2 WHERE rowid = ?1");
  Chunk chunk;
  for (std::int64_t place = 0; moved < rows.size() && place < count; ++place) {
    if (taken[static_cast<std::size_t>(place)]) continue;
    write_vector(place, read_vector(&chunk, rows[moved].first));
    move.run(std::optional(rows[moved++].second), std::optional(place));
  }
  chunk.close();
  places_ = count;
  flush();
  has_free_ = false;
  execute(database_, "DELETE FROM " + name("free"));
  execute(database_, joined("DELETE FROM ", name("vectors"),
                            " WHERE chunk >= ", (count + chunk_rows_ - 1) / chunk_rows_));
  execute(database_, joined("UPDATE ", name("commits"), " SET places = ", count));
}

Floats Storage::centroids() {
  Floats centroids;
  prepared(state_, "SELECT value FROM " + name("state") + " WHERE key = ?1")
      .each(
          [&](const Statement& row) {
            centroids.resize(row.blob(0).size() / sizeof(float));
            const std::size_t bytes = centroids.size() * sizeof(float);
            if (bytes > 0) std::memcpy(centroids.data(), row.blob(0).data(), bytes);
          },
          std::string_view("centroids"));
  turn_order(centroids);
  require_intact(centroids.size() % static_cast<std::size_t>(declaration_.dim) == 0,
                 "the centroids of ", table_, " are damaged");
  return centroids;
}

void Storage::set_lists(std::span<const float> centroids, std::span<const std::int64_t> rowids,
                        std::span<const std::uint32_t> lists) {
  const KeptRowid kept(database_);
  Floats stored(centroids.begin(), centroids.end());
  turn_order(stored);
  Statement(database_, "INSERT OR REPLACE INTO " + name("state") + " VALUES ('centroids', ?1)")
      .run(std::as_bytes(std::span<const float>(stored)));
  if (centroids.empty()) execute(database_, "UPDATE " + name("values") + " SET \"#list\" = NULL");
  Statement one(database_, "UPDATE " + name("values") + " SET \"#list\" = ?2 WHERE rowid = ?1");
  for (std::size_t i = 0; i < rowids.size(); ++i) {
    one.run(std::optional(rowids[i]), std::optional(std::int64_t{lists[i]}));
  }
}

std::optional<std::int64_t> Storage::number(std::string_view key) {
  return prepared(state_, "SELECT value FROM " + name("state") + " WHERE key = ?1").number(key);
}

void Storage::set(std::string_view key, std::optional<std::int64_t> value) {
  Statement(database_, "INSERT OR REPLACE INTO " + name("state") + " VALUES (?1, ?2)")
      .run(key, value);
}

}  // namespace qx_sqlite
