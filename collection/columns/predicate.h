// Filters: a text becomes a tree, and a tree of conditions becomes one bit for each row. It knows
// columns, not what a row is.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "columns/column.h"

namespace qx::collection {

class Predicate {
 public:
  // Refuses a text that is no filter over these columns, with the place and what is expected there.
  static Predicate parse(std::string_view text, const Schema& schema);

  Predicate(Predicate&&) noexcept;
  Predicate& operator=(Predicate&&) noexcept;
  ~Predicate();

  // Sets bit i of `passing` if the filter is true of row first + i, and clears it otherwise, for i
  // below count; bits of the last word beyond count are cleared. Whole columns at a time, without a
  // branch for each row. May be called by several threads at once.
  void evaluate(std::span<const Column> columns, std::int64_t first, std::int64_t count,
                std::uint64_t* passing) const;

  // True if the filter is true of a row with these values, in the order of the schema.
  bool is_true_of(std::span<const Value> values) const;
};

}  // namespace qx::collection
