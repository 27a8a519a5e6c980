// How a query of SQL reaches the rows: chosen when it is prepared, and read again when it runs.
#pragma once

#include <cstdint>
#include <vector>

#include "declaration.h"
#include "live_rows.h"
#include "vectors.h"

namespace qx_sqlite {

enum PlanNumber { kScan = 0, kOneRow = 1, kSearch = 2 };

// A search, as the arguments of a run give it.
struct Search {
  Floats query;
  std::int64_t k = 0;
  std::vector<Condition> conditions;
  bool nothing_passes = false;  // a condition compares with null, say
};

// Fills the plan of a query. Returns SQLITE_OK, or SQLITE_CONSTRAINT where another order of joins
// must be tried. Throws where the query cannot be answered as it stands.
int choose_plan(const Declaration& declaration, const LiveRows& live, sqlite3_index_info* info);

// Reads the arguments of a search's run, in the order that the plan's text says.
Search read_search(const Declaration& declaration, const char* plan, int count,
                   sqlite3_value** arguments);

}  // namespace qx_sqlite
