#include "declaration.h"

#include <algorithm>
#include <charconv>
#include <map>
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

// The types of columns that searches can be filtered by.
const std::map<std::string, ColumnKind> kFilterTypes = {
    {"integer", ColumnKind::kInteger}, {"int", ColumnKind::kInteger},
    {"real", ColumnKind::kReal},       {"float", ColumnKind::kReal},
    {"double", ColumnKind::kReal},     {"boolean", ColumnKind::kBoolean},
    {"bool", ColumnKind::kBoolean},    {"text", ColumnKind::kText},
};
const std::map<std::string, Metric> kMetrics = {
    {"ip", Metric::kInnerProduct}, {"cosine", Metric::kCosine}, {"l2", Metric::kEuclidean}};
constexpr std::string_view kOwnNames[] = {"rowid", "oid",      "_rowid_", "k",
                                          "score", "distance", "filter"};

class Reader {
 public:
  void read(std::string_view argument) {
    argument = trimmed(argument);
    const std::size_t equals = argument.find('=');
    if (equals != std::string_view::npos) {
      option(trimmed(argument.substr(0, equals)), trimmed(argument.substr(equals + 1)), argument);
    } else {
      column(argument);
    }
  }

  Declaration finish(const std::string& table) {
    require(declared_.vector_column >= 0,
            "no column of vectors: declare one, as in 'embedding float[100]'");
    declared_.check_name(table);
    return std::move(declared_);
  }

 private:
  // metric=cosine; and dim=100, columns='length,band', partition=letter: short forms of columns.
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
        add(trimmed(one), ColumnKind::kInteger);
      }
    } else if (option == "partition") {
      add(trimmed(value), ColumnKind::kInteger);
    } else if (option == "metric") {
      const auto found = kMetrics.find(lower(value));
      require(found != kMetrics.end(), "'", value, "' is no metric: ip, cosine and l2 are");
      declared_.metric = found->second;
    } else {
      require(false, "unknown option '", name, "': metric, dim, columns and partition are");
    }
  }

  void column(std::string_view argument) {
    constexpr std::string_view kKey = " partition key";
    const bool extra = !argument.empty() && argument[0] == '+';
    const std::string_view text = trimmed(argument.substr(extra));
    const std::size_t end = std::min(text.find_first_of(kSpaces), text.size());
    const std::string_view name = text.substr(0, end);
    std::string type = words(text.substr(end));
    if (extra) {
      const std::set<std::string> types = {"", "text", "integer", "real", "blob"};
      require(types.contains(type), "'", argument, "' is no text, integer, real or blob");
      return add(name, ColumnKind::kExtra, type);
    }
    if (type.starts_with("float[") && type.ends_with("]")) {
      add(name, ColumnKind::kVector);
      declared_.dim = dim_of(std::string_view(type).substr(6, type.size() - 7), argument);
      return;
    }
    if (type.ends_with(kKey)) type.resize(type.size() - kKey.size());
    const auto found = kFilterTypes.find(type);
    require(found != kFilterTypes.end(), "'", argument,
            "' is no column: one is 'name float[100]', 'name integer', real, boolean or text, "
            "'name integer partition key' or '+name type'");
    add(name, found->second);
  }

  void add(std::string_view name, ColumnKind kind, const std::string& type = "") {
    require(is_name(name), "'", name, "' is no name of a column");
    const std::string key = lower(name);
    for (const std::string_view taken : kOwnNames) {
      require(key != taken, "the name ", key, " has a meaning of its own");
    }
    for (const Column& other : declared_.columns) {
      require(lower(other.name) != key, "two columns have the name ", key);
    }
    if (kind == ColumnKind::kVector) {
      require(declared_.vector_column < 0,
              "a table has one column of vectors: make a table for each, and join their rowids");
      declared_.vector_column = static_cast<int>(declared_.columns.size());
    }
    declared_.columns.push_back({std::string(name), kind, type});
  }

  Declaration declared_;
};

}  // namespace

std::string Column::sql_type() const {
  switch (kind) {
    case ColumnKind::kVector:
      return " BLOB";
    case ColumnKind::kReal:
      return " REAL";
    case ColumnKind::kText:
      return " TEXT";
    case ColumnKind::kExtra:
      return type.empty() ? "" : " " + type;
    default:
      return " INTEGER";
  }
}

std::string Declaration::schema(const std::string& table) const {
  std::string text = "CREATE TABLE x(";
  for (const Column& column : columns) {
    text += quoted(column.name) + column.sql_type() + ", ";
  }
  return text + quoted(table) +
         " HIDDEN, k HIDDEN, score REAL HIDDEN, distance REAL HIDDEN, filter HIDDEN)";
}

void Declaration::check_name(std::string_view table) const {
  const std::string name = lower(table);
  for (const std::string_view taken : kOwnNames) {
    require(name != taken, "the name ", taken, " has a meaning of its own");
  }
  for (const Column& column : columns) {
    require(lower(column.name) != name, "the column ", name, " has the name of the table");
  }
}

Declaration read_declaration(const std::string& table, std::span<const char* const> arguments) {
  Reader reader;
  for (const char* const argument : arguments) reader.read(argument);
  return reader.finish(table);
}

}  // namespace qx_sqlite
