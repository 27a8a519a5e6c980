// How a query of SQL reaches the rows: chosen when it is prepared, and read again when it runs.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "declaration.h"
#include "program.h"
#include "vectors.h"

namespace qx_sqlite {

// Of a scan that needs no values, of one that does, of a search, and of what only a search can
// answer but has no MATCH.
enum PlanNumber { kRowids = 0, kSearch = 1, kScan = 2, kRefused = 3 };

// A comparison of what a search finds.
struct ScoreTest {
  bool of_score;  // or else of the distance
  int op;         // of SQLite's constraints: EQ, NE, LT, LE, GT or GE
  double number;
  bool passes(double score, double distance) const;
};

// A search, as the arguments of a run give it.
struct Search {
  Floats query;
  std::int64_t k = 0;
  std::string filter;  // of the collection's language; empty: every row passes
  // Rowids: those listed, and those in a range but not among `without`.
  std::optional<std::vector<std::int64_t>> among;
  std::int64_t first = std::numeric_limits<std::int64_t>::min();
  std::int64_t last = std::numeric_limits<std::int64_t>::max();
  std::vector<std::int64_t> without;
  std::vector<ScoreTest> tests;
  // The least distance that fails a test, as far as that is known.
  double farthest = std::numeric_limits<double>::infinity();
  bool nothing_passes = false;  // a condition compares with null, say

  bool has_range() const {
    return first != std::numeric_limits<std::int64_t>::min() ||
           last != std::numeric_limits<std::int64_t>::max() || !without.empty();
  }
};

// Fills the plan of a query. Returns SQLITE_OK, or SQLITE_CONSTRAINT where another order of joins
// must be tried.
int choose_plan(const Declaration& declaration, sqlite3_index_info* info);

// Reads the arguments of a search's run, in the order that the plan's text says. `origins(query)`
// says where they come from. Throws where a condition cannot be met before the best are taken.
Search read_search(const Declaration& declaration, const char* plan, int count,
                   sqlite3_value** arguments, const std::function<Origins(int query)>& origins);

}  // namespace qx_sqlite
