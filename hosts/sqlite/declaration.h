// What CREATE VIRTUAL TABLE ... USING qx(...) declares.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qx_sqlite {

enum class ColumnKind {
  kVector,  // embedding float[100]
  kInteger,
  kReal,
  kBoolean,
  kText,   // length integer: a search can be filtered by it
  kExtra,  // +word text: kept with the row, and no more
};

struct Column {
  std::string name;
  ColumnKind kind;
  std::string type;  // of kExtra, as declared

  bool is_filter() const { return kind != ColumnKind::kVector && kind != ColumnKind::kExtra; }
  std::string sql_type() const;
};

enum class Metric { kInnerProduct, kCosine, kEuclidean };  // as the collection numbers them

// The columns of a table, in the order of its declaration.
struct Declaration {
  std::vector<Column> columns;
  std::int64_t dim = 0;
  int vector_column = -1;
  Metric metric = Metric::kInnerProduct;

  // The statement that tells SQLite of the columns: those declared, then the hidden ones.
  std::string schema(const std::string& table) const;
  // Throws where a table of this name would have two columns of one name.
  void check_name(std::string_view table) const;

  // The hidden columns come in this order.
  int command_column() const { return static_cast<int>(columns.size()); }
  int k_column() const { return command_column() + 1; }
  int score_column() const { return command_column() + 2; }
  int distance_column() const { return command_column() + 3; }
  int filter_column() const { return command_column() + 4; }
};

// Reads the arguments between the brackets. Throws an SqlError that says what is wrong.
Declaration read_declaration(const std::string& table, std::span<const char* const> arguments);

}  // namespace qx_sqlite
