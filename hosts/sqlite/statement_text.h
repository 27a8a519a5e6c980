// What is written in a statement, beside what SQLite makes of it. To the table a condition of the
// search looks like one that SQLite has derived: of `d.id = 8 AND t.rowid = d.id` it makes t.rowid
// = 8, and it moves conditions of an outer SELECT, and those of HAVING, into the search.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qx_sqlite {

class StatementText {
 public:
  StatementText(std::string_view sql, std::string_view table);

  // Whether there is a search at all: in other statements it is that of a view or trigger.
  bool has_search() const { return has_search_; }
  // One search of one table: there is nothing to derive conditions from.
  bool is_simple() const;
  // What may have become of a condition: SQLite makes ranges of BETWEEN, = of an IN of one member,
  // and IN of several = with OR.
  enum class Test { kNone, kEqual, kIn, kUnequal, kLess, kMore, kBetween, kNull, kLike };
  // Whether a column is so compared with something that is no column, where searches of these names
  // are, or all where none is given: in the WHERE or ON of a SELECT that has a MATCH. kUnclear
  // where it is said of some of them, or less than `times`, and SQLite may have derived others.
  enum class Written { kNo, kYes, kUnclear };
  Written written(const std::set<std::string>& names, std::string_view column, Test test,
                  std::ptrdiff_t times) const;
  // Whether (a, b) is compared with something there, or has an IN anywhere, of whose members SQLite
  // may search for each. It takes such conditions apart.
  bool has_row_value() const;

 private:
  struct Token {
    std::string text;  // a name without its quotes; in small letters unless it is a value
    bool is_name;
    bool is_value;
    std::size_t select = 0;  // of which SELECT it is
    bool filters = false;    // in a WHERE or ON
    bool lists = false;      // in a FROM
  };
  void read(std::string_view sql);
  void place();
  void find_aliases(std::string_view table);
  const std::string& text(std::size_t at) const;
  bool starts_value(std::size_t at) const;
  bool is_one_member(std::size_t at) const;
  Test test_of(std::size_t at) const;
  bool is_condition(std::size_t i, const std::string& name, std::string_view column,
                    Test test) const;
  bool may_derive() const;

  std::vector<Token> tokens_;
  std::vector<bool> searches_;                             // by SELECT
  std::set<std::pair<std::size_t, std::string>> sources_;  // SELECTs, and names of the table there
  std::set<std::size_t> row_values_;                       // SELECTs
  bool lists_row_values_ = false;                          // with IN
  bool has_search_ = false;
};

}  // namespace qx_sqlite
