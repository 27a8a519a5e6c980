// Typed columns of rows: of a segment, immutable and compact, and of a tail, one value at a time. A
// column knows rows by their position and nothing of ids and vectors.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "support/error.h"

namespace qx::collection {

enum class ColumnType : std::uint8_t { kInteger, kReal, kBoolean, kText };

struct ColumnSchema {
  std::string name;
  ColumnType type;
  friend bool operator==(const ColumnSchema&, const ColumnSchema&) = default;
};
using Schema = std::vector<ColumnSchema>;

// The schema of the options, checked.
Schema make_schema(const QxColumn* columns, std::int32_t n_columns);

// A value, or NULL. A text belongs to whatever gave the value.
using Value = std::variant<std::monostate, std::int64_t, double, bool, std::string_view>;

// Value `row` of the host's array, null array being all NULL. Requires: the array is of this type.
Value value_of(const QxValues& values, ColumnType type, std::int64_t row);

// Refuses values that are no values of their column: a text of a negative size, or with null data
// and a size. `values` has n rows of each column of the schema, or is null.
void check_values(const QxValues* values, const Schema& schema, std::int64_t n);

// One column of a segment. Texts are codes into a dictionary of the segment's distinct texts,
// sorted by their bytes, so that a range of texts is a range of codes. A column without NULLs keeps
// no bits for them; one that is all NULL keeps nothing at all.
class Column {
 public:
  // `at(row)` gives the values.
  template <typename At>
  static Column of(ColumnType type, std::int64_t rows, At at);

  ColumnType type() const { return type_; }
  std::int64_t rows() const { return rows_; }
  Value at(std::int64_t row) const;
  std::int64_t bytes() const;

 private:
  // (to be designed)
  ColumnType type_;
  std::int64_t rows_;
};

}  // namespace qx::collection
