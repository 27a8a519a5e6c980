// Where the values of a running search come from, read off the program that SQLite has made of the
// statement, and off its text. A search must know: a condition that varies independently of the
// query, with another table of a join, is one of the join, and must not be met before the best rows
// are taken.
#pragma once

#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "database.h"
#include "statement_text.h"

namespace qx_sqlite {

// What a program says of a search.
struct Origins {
  bool known = false;
  int searches = 0;  // by this plan, in one statement
  // Of each argument: whether it is the same in the whole statement, or changes only when the query
  // may.
  std::vector<bool> follows;
  // Whether it does change.
  std::vector<bool> varies;
  // Columns of the search, -1 for the rowid, that SQLite tests by itself before it takes a row.
  std::set<int> tested;
  // The statement, or what views and triggers say.
  std::vector<StatementText> texts;

  // The names that the search may have there; none if they are not known.
  std::set<std::string> names;

  // Whether conditions on a column stand where the search does, so many times.
  StatementText::Written written(std::string_view column, StatementText::Test test,
                                 std::ptrdiff_t times) const;
};

class Programs {
 public:
  // Of the search that `cursor` runs now with `plan` as its text; `query` is the number of the
  // argument that is searched for. Where several searches cannot be told apart, what holds of all.
  Origins origins(sqlite3* database, const void* table, const std::string& name,
                  const std::string& plan, int query, const void* cursor);
  // The cursor is closed.
  void release(const void* cursor) { statements_.erase(cursor); }
  // Statements may mean something else from now on.
  void forget();

 private:
  bool has_left(sqlite3_stmt* statement, const std::string& plan, int searches,
                const void* cursor) const;

  std::map<std::string, Origins> known_;
  // Of cursors, where that is known, the statement and the plan.
  std::map<const void*, std::pair<sqlite3_stmt*, std::string>> statements_;
  bool is_reading_ = false;
};

}  // namespace qx_sqlite
