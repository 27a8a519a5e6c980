// One condition on one column: the values of which it is true. A comparison is decided here and
// nowhere else: every condition but IS NULL is a set of ranges, in which a value is or is not.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "columns/column.h"

namespace qx::collection {

using Literal = std::variant<std::int64_t, double, bool, std::string>;

// One end of a range of values: there is none, or it is right before or after a literal.
enum class Side : std::uint8_t { kOpen, kBefore, kAfter };
struct RangeEnd {
  Side side;
  const Literal& literal;
};

// Keys, both ends included; never empty.
struct KeyRange {
  std::int64_t first, last;
};
using KeyRanges = std::vector<KeyRange>;

// Texts t with from <= t < to; without `to`, all from `from` on. Never empty.
struct TextRange {
  std::string from;
  std::optional<std::string> to;
};

class Condition {
 public:
  // What a value that is not NULL must be, or that it must be NULL.
  enum class Test : std::uint8_t { kIn, kNotIn, kNull };

  Condition() = default;
  Condition(std::int32_t column, Test test) : column_(column), test_(test) {}

  // Adds the values of a column of this type from one end to the other. Requires: the literals are
  // of that type, or numbers as its values are.
  void add(ColumnType type, RangeEnd low, RangeEnd high);
  // Must be called after several add().
  void sort();

  std::int32_t column() const { return column_; }
  bool is_true_of(const Value& value) const;
  // Clears the bits of rows first + i, first being a multiple of 64, of which it is not true.
  void keep(const Column& column, std::int64_t first, std::span<std::uint64_t> bits) const;

 private:
  void keep_texts(const Column& column, std::int64_t first, std::span<std::uint64_t> bits) const;
  KeyRanges codes_of(const Column& column) const;
  // What to flip in a word of rows that are in the ranges.
  std::uint64_t flip() const { return test_ == Test::kNotIn ? ~std::uint64_t{0} : 0; }

  std::int32_t column_ = 0;
  Test test_ = Test::kIn;
  KeyRanges keys_;                // of a column of texts: none
  std::vector<TextRange> texts_;  // of other columns: none
};

}  // namespace qx::collection
