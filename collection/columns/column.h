// Typed columns of rows: of a segment, immutable and compact, and of a tail, one value at a time. A
// column knows rows by their position and nothing of ids and vectors.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "support/error.h"

namespace qx::collection {

// Numbered as QX_INTEGER and so on.
enum class ColumnType : std::uint8_t { kInteger, kReal, kBoolean, kText };

struct ColumnSchema {
  std::string name;
  ColumnType type;
  friend bool operator==(const ColumnSchema& a, const ColumnSchema& b) {
    return a.name == b.name && a.type == b.type;
  }
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

// A value that is neither NULL nor a text as an integer, in the order of the values: an integer as
// it is, false and true as 0 and 1, a real by its bits. -0.0 is right before 0.0; NaNs are beyond
// the infinities.
std::int64_t key_of(const Value& value);

// What a column keeps. Arrays of rows have whole words of 64 rows: zeros where a row is NULL or
// beyond the last.
struct ColumnArrays {
  std::vector<std::int64_t> keys;        // of integers and reals: key_of()
  std::vector<std::uint64_t> booleans;   // a bit each
  std::vector<std::uint32_t> codes;      // of texts
  std::vector<std::uint64_t> known;      // a bit each; empty: no NULL
  std::vector<std::uint64_t> text_ends;  // of each text of the dictionary, in text_bytes
  std::vector<char> text_bytes;
};

// One column of a segment. Texts are codes into a dictionary of the segment's distinct texts,
// sorted by their bytes, so that a range of texts is a range of codes. A column without NULLs keeps
// no bits for them; one that is all NULL keeps nothing at all.
class Column {
 public:
  // `at(row)` gives the values, NULL or of this type; it is called once for each row, in order.
  // Texts must live until this returns. Requires: fewer than 2^32 rows.
  static Column of(ColumnType type, std::int64_t rows,
                   const std::function<Value(std::int64_t row)>& at);

  // Requires: the arrays are as they are kept, with texts that are distinct and ascending.
  Column(ColumnType type, std::int64_t rows, ColumnArrays arrays)
      : type_(type), rows_(rows), arrays_(std::move(arrays)) {}

  ColumnType type() const { return type_; }
  std::int64_t rows() const { return rows_; }
  // A text belongs to the column.
  Value at(std::int64_t row) const;
  // On the heap.
  std::int64_t bytes() const;

  const ColumnArrays& arrays() const { return arrays_; }
  bool is_all_null() const { return keys().empty() && codes().empty() && booleans().empty(); }
  const std::vector<std::int64_t>& keys() const { return arrays_.keys; }
  const std::vector<std::uint64_t>& booleans() const { return arrays_.booleans; }
  const std::vector<std::uint32_t>& codes() const { return arrays_.codes; }
  const std::vector<std::uint64_t>& known() const { return arrays_.known; }
  std::int64_t texts() const { return std::ssize(arrays_.text_ends); }
  std::string_view text(std::int64_t code) const;
  // The first code whose text is not less; texts() if all are.
  std::int64_t first_code_from(std::string_view text) const;

 private:
  using NumberedText = std::pair<std::string_view, std::uint32_t>;
  // Sorts the texts, and replaces the numbers that are codes by codes.
  void set_texts(std::vector<NumberedText>& texts);

  ColumnType type_;
  std::int64_t rows_;
  ColumnArrays arrays_;
};

}  // namespace qx::collection
