#include "declaration.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <sstream>
#include <string_view>

#include "database.h"

namespace qx_sqlite {
namespace {

constexpr std::int64_t kLargestDim = 65536;
constexpr std::string_view kSpaces = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kSpaces);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpaces) - first + 1);
}

std::string lower(std::string_view text) {
  std::string result(text);
  for (char& letter : result) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  return result;
}

// Words that spaces part, in lower case and with one space between them.
std::string words(std::string_view text) {
  std::istringstream given(lower(text));
  std::string result;
  for (std::string word; given >> word;) result += (result.empty() ? "" : " ") + word;
  return result;
}

bool is_name(std::string_view text) {
  const auto is_digit = [](char letter) { return letter >= '0' && letter <= '9'; };
  const auto in_name = [&](char letter) {
    return (letter >= 'a' && letter <= 'z') || letter == '_' || is_digit(letter) ||
           static_cast<unsigned char>(letter) >= 0x80;
  };
  const std::string name = lower(text);
  return !name.empty() && !is_digit(name[0]) && std::all_of(name.begin(), name.end(), in_name);
}

std::int64_t dim_of(std::string_view text, std::string_view argument) {
  std::int64_t dim = 0;
  text = trimmed(text);
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), dim);
  const bool whole = error == std::errc() && end == text.data() + text.size();
  require(whole && dim >= 1 && dim <= kLargestDim, "the dimension in '", argument,
          "' is no number from 1 to ", kLargestDim);
  return dim;
}

class Reader {
 public:
  explicit Reader(const std::string& table) : table_(lower(table)) {}

  void read(std::string_view argument) {
    argument = trimmed(argument);
    const std::size_t equals = argument.find('=');
    if (equals != std::string_view::npos) {
      option(trimmed(argument.substr(0, equals)), trimmed(argument.substr(equals + 1)), argument);
    } else {
      column(argument);
    }
  }

  Declaration finish() {
    require(declared_.vector_column >= 0,
            "no column of vectors: declare one, as in 'embedding float[100]'");
    return std::move(declared_);
  }

 private:
  // dim=100, columns='length,band', partition=letter: short forms of columns.
  void option(std::string_view name, std::string_view value, std::string_view argument) {
    if (value.size() >= 2 && (value[0] == '\'' || value[0] == '"') && value.back() == value[0]) {
      value = value.substr(1, value.size() - 2);
    }
    const std::string option = lower(name);
    if (option == "dim") {
      add("embedding", ColumnKind::kVector);
      declared_.dim = dim_of(value, argument);
    } else if (option == "columns") {
      std::istringstream names(std::string(value) + ',');
      for (std::string one; std::getline(names, one, ',');) {
        add(trimmed(one), ColumnKind::kNumber);
      }
    } else if (option == "partition") {
      add(trimmed(value), ColumnKind::kPartition);
    } else {
      require(false, "unknown option '", name, "': dim, columns and partition are");
    }
  }

  void column(std::string_view argument) {
    const bool extra = !argument.empty() && argument[0] == '+';
    const std::string_view text = trimmed(argument.substr(extra));
    const std::size_t end = std::min(text.find_first_of(kSpaces), text.size());
    const std::string_view name = text.substr(0, end);
    const std::string type = words(text.substr(end));
    if (extra) {
      const std::set<std::string> types = {"", "text", "integer", "real", "blob"};
      require(types.contains(type), "'", argument, "' is no text, integer, real or blob");
      add(name, ColumnKind::kExtra, type);
    } else if (type.starts_with("float[") && type.ends_with("]")) {
      add(name, ColumnKind::kVector);
      declared_.dim = dim_of(std::string_view(type).substr(6, type.size() - 7), argument);
    } else if (type == "integer" || type == "int") {
      add(name, ColumnKind::kNumber);
    } else if (type == "integer partition key" || type == "int partition key") {
      add(name, ColumnKind::kPartition);
    } else {
      require(false, "'", argument,
              "' is no column: one is 'name float[100]', 'name integer', 'name integer partition "
              "key' or '+name type'");
    }
  }

  void add(std::string_view name, ColumnKind kind, const std::string& type = "") {
    require(is_name(name), "'", name, "' is no name of a column");
    const std::string key = lower(name);
    for (const std::string_view taken : {"rowid", "oid", "_rowid_", "k", "score", "distance"}) {
      require(key != taken, "the name ", key, " has a meaning of its own");
    }
    require(key != table_, "the column ", key, " has the name of the table");
    for (const Column& other : declared_.columns) {
      require(lower(other.name) != key, "two columns have the name ", key);
      if (other.kind != kind) continue;
      require(kind != ColumnKind::kVector, "a table has one column of vectors");
      require(kind != ColumnKind::kPartition, "a table has one partition key");
    }
    if (kind == ColumnKind::kVector) {
      declared_.vector_column = static_cast<int>(declared_.columns.size());
    }
    declared_.columns.push_back({std::string(name), kind, type});
  }

  std::string table_;
  Declaration declared_;
};

}  // namespace

std::string Column::sql_type() const {
  if (kind == ColumnKind::kVector) return " BLOB";
  if (kind == ColumnKind::kExtra) return type.empty() ? "" : " " + type;
  return " INTEGER";
}

int Declaration::partition_column() const {
  const auto found = std::find_if(columns.begin(), columns.end(), [](const Column& column) {
    return column.kind == ColumnKind::kPartition;
  });
  return found == columns.end() ? -1 : static_cast<int>(found - columns.begin());
}

std::string Declaration::schema(const std::string& table) const {
  std::string text = "CREATE TABLE x(";
  for (const Column& column : columns) {
    text += quoted(column.name) + column.sql_type() + ", ";
  }
  return text + quoted(table) + " HIDDEN, k HIDDEN, score REAL HIDDEN, distance REAL HIDDEN)";
}

Declaration read_declaration(const std::string& table, std::span<const char* const> arguments) {
  Reader reader(table);
  for (const char* const argument : arguments) reader.read(argument);
  return reader.finish();
}

}  // namespace qx_sqlite
