// A fuzz target: the input is SQL, run on a database with a small table of vectors. Whatever it
// does to the table and to its shadow tables, the process goes on, and nothing is read or written
// where it must not be. At the end a search of what is left must not end it either.
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int sqlite3_qx_init(sqlite3* database, char** message, const void* api);

namespace {

constexpr int kSteps = 200'000;  // of SQLite's machine, before a statement is interrupted
constexpr int kLongest = 100'000;

constexpr const char* kTable =
    "CREATE VIRTUAL TABLE t USING qx(e float[2], label integer, a integer, p integer partition key,"
    " +w text);"
    "INSERT INTO t(rowid, e, label, a, p, w) VALUES (1, '[1,0]', 1, 2, 3, 'x'), (2, '[0,1]', 1, -1,"
    " 3, 'y'), (3, '[1,1]', NULL, 0, 4, 'z'), (9000000, '[-1,2]', 5, 7, NULL, NULL);"
    "SELECT rowid FROM t WHERE e MATCH '[1,2]' AND k = 2;";
constexpr const char* kSearches =
    "SELECT rowid, score, w FROM t WHERE e MATCH '[1,2]' AND k = 3;"
    "SELECT rowid FROM t WHERE e MATCH '[1,2]' AND k = 3 AND p = 3 AND a > 0;";

int steps_left = 0;
int interrupt(void*) { return --steps_left <= 0; }

void run(sqlite3* database, const char* sql) {
  steps_left = kSteps / 100;
  sqlite3_exec(database, sql, nullptr, nullptr, nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const int registered =
      sqlite3_auto_extension(reinterpret_cast<void (*)()>(&sqlite3_qx_init));
  sqlite3* database = nullptr;
  if (registered != SQLITE_OK || sqlite3_open(":memory:", &database) != SQLITE_OK) std::abort();
  sqlite3_limit(database, SQLITE_LIMIT_LENGTH, kLongest);
  sqlite3_progress_handler(database, 100, interrupt, nullptr);
  run(database, kTable);
  run(database, std::string(reinterpret_cast<const char*>(data), size).c_str());
  run(database, kSearches);
  run(database, "ROLLBACK");
  run(database, kSearches);
  if (sqlite3_close(database) != SQLITE_OK) {
    std::fprintf(stderr, "a statement of the extension was not finished\n");
    std::abort();
  }
  return 0;
}
