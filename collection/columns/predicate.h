// Filters: a text becomes a tree, and a tree of conditions becomes one bit for each row. It knows
// columns, not what a row is.
//
//   filter      = conjunction {OR conjunction}
//   conjunction = condition {AND condition}
//   condition   = {NOT} ( '(' filter ')' | TRUE | FALSE | column [test] )
//   test        = ('=' | '<>' | '!=' | '<' | '<=' | '>' | '>=') literal | IS [NOT] NULL
//               | [NOT] BETWEEN literal AND literal | [NOT] IN '(' literal {',' literal} ')'
//   column      = word | '"' bytes '"'         a word has letters, digits, _ and bytes from 0x80
//   literal     = number | ''' bytes ''' | TRUE | FALSE     on; a mark within bytes is doubled
//
// A number is an integer of 64 bits, or a real if it has a point or an exponent. Every comparison
// with NULL is unknown, and NOT leaves it unknown. A NaN equals nothing, and is neither less nor
// greater: of a row that holds one, `=`, `<`, `<=`, `>`, `>=`, BETWEEN and IN are false, `<>`, NOT
// BETWEEN and NOT IN true. FALSE is less than TRUE.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "columns/column.h"

namespace qx::collection {

struct FilterNode;

class Predicate {
 public:
  // Refuses a text that is no filter over these columns, with the place and what is expected there.
  static Predicate parse(std::string_view text, const Schema& schema);

  Predicate(Predicate&&) noexcept;
  Predicate& operator=(Predicate&&) noexcept;
  ~Predicate();

  // Sets bit i of `passing` if the filter is true of row first + i, and clears it otherwise, for i
  // below count; bits of the last word beyond count are cleared. Whole columns at a time, without a
  // branch for each row. May be called by several threads at once. Each call looks the filter's
  // texts up in the dictionaries, so thousands of rows a call are cheaper than 64. Requires: the
  // columns of the schema; `first` is a multiple of 64, and the rows exist.
  void evaluate(std::span<const Column> columns, std::int64_t first, std::int64_t count,
                std::uint64_t* passing) const;

  // True if the filter is true of a row with these values, in the order of the schema.
  bool is_true_of(std::span<const Value> values) const;

 private:
  explicit Predicate(std::unique_ptr<const FilterNode> root);
  std::unique_ptr<const FilterNode> root_;
};

}  // namespace qx::collection
