// What is written in a statement, beside what SQLite makes of it. To the table a condition of the
// search looks like one that SQLite has derived: of `d.id = 8 AND t.rowid = d.id` it makes t.rowid
// = 8, and it moves conditions of an outer SELECT, and those of HAVING, into the search.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace qx_sqlite {

class StatementText {
 public:
  StatementText(std::string_view sql, std::string_view table);

  // Whether there is a search at all: in other statements it is that of a view or trigger.
  bool has_search() const { return has_search_; }
  // One search of one table: there is nothing to derive conditions from.
  bool is_simple() const;
  // What may have become of a condition: SQLite makes ranges of BETWEEN, and = of an IN.
  enum class Test { kNone, kEqual, kUnequal, kRange, kNull, kLike };
  // Whether a column is so compared with something that is no column, where a search is: in the
  // WHERE or ON of a SELECT that has a MATCH.
  bool has_condition(std::string_view column, Test test) const;

 private:
  struct Token {
    std::string text;  // a name without its quotes; in small letters unless it is a value
    bool is_name;
    bool is_value;
    std::size_t select = 0;  // of which SELECT it is
    bool filters = false;    // in a WHERE or ON
  };
  void read(std::string_view sql);
  void place();
  void find_aliases(std::string_view table);
  const std::string& text(std::size_t at) const;
  bool starts_value(std::size_t at) const;
  Test test_of(std::size_t at) const;

  std::vector<Token> tokens_;
  std::vector<bool> searches_;  // by SELECT
  std::set<std::string> aliases_;
  bool has_search_ = false;
};

}  // namespace qx_sqlite
