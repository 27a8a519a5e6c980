#include "columns/column.h"

#include <algorithm>
#include <bit>
#include <unordered_set>

namespace qx::collection {
namespace {

constexpr std::int32_t kMostColumns = 1000;

// So many texts that came before, by their hash, are not sorted again: of few distinct texts, a row
// takes a fifteenth of the time. Whatever the hash, a text that is not found there costs no more.
constexpr std::size_t kRecentTexts = 4096;

template <typename T>
std::int64_t bytes_of(const std::vector<T>& array) {
  return static_cast<std::int64_t>(array.capacity() * sizeof(T));
}

bool bit_of(const std::vector<std::uint64_t>& bits, std::int64_t row) {
  return bits[static_cast<std::size_t>(row / 64)] >> (row % 64) & 1;
}

void set_bit(std::vector<std::uint64_t>& bits, std::int64_t row) {
  bits[static_cast<std::size_t>(row / 64)] |= std::uint64_t{1} << (row % 64);
}

// A double's bits and its key: inverse to themselves.
std::int64_t flip_if_negative(std::int64_t bits) { return bits < 0 ? bits ^ INT64_MAX : bits; }

bool is_null(const QxValues& values, std::int64_t row) {
  return values.nulls != nullptr && values.nulls[row] != 0;
}

}  // namespace

Schema make_schema(const QxColumn* columns, std::int32_t n_columns) {
  require(0 <= n_columns && n_columns <= kMostColumns,
          [&] { return "n_columns is " + std::to_string(n_columns) + ", expected 0 to 1000"; });
  require(columns != nullptr || n_columns == 0, [] { return "columns is null"; });
  Schema schema;
  std::unordered_set<std::string_view> names;
  for (std::int32_t i = 0; i < n_columns; ++i) {
    const auto& [name, type] = columns[i];
    const std::string column = "column " + std::to_string(i);
    require(name != nullptr && *name != 0, [&] { return column + " has no name"; });
    require(QX_INTEGER <= columns[i].type && columns[i].type <= QX_TEXT, [&] {
      return column + " has type " + std::to_string(columns[i].type) + ", expected 0 to 3";
    });
    require(names.insert(name).second,
            [&] { return column + " has the name of another: " + columns[i].name; });
    schema.push_back({name, static_cast<ColumnType>(type)});
  }
  return schema;
}

Value value_of(const QxValues& values, ColumnType type, std::int64_t row) {
  using enum ColumnType;
  if (is_null(values, row)) return {};
  if (type == kInteger && values.integers != nullptr) return values.integers[row];
  if (type == kReal && values.reals != nullptr) return values.reals[row];
  if (type == kBoolean && values.booleans != nullptr) return values.booleans[row] != 0;
  if (type != kText || values.texts == nullptr) return {};
  return std::string_view(values.texts[row].data, static_cast<std::size_t>(values.texts[row].size));
}

void check_values(const QxValues* values, const Schema& schema, std::int64_t n) {
  for (std::size_t column = 0; values != nullptr && column < schema.size(); ++column) {
    const QxText* texts = values[column].texts;
    if (schema[column].type != ColumnType::kText || texts == nullptr) continue;
    for (std::int64_t row = 0; row < n; ++row) {
      if (is_null(values[column], row)) continue;
      const std::int64_t size = texts[row].size;
      require(size == 0 || (size > 0 && texts[row].data != nullptr), [&] {
        return "value " + std::to_string(row) + " of column " + schema[column].name +
               " is a text of " + std::to_string(size) +
               (size < 0 ? " bytes" : " bytes whose data is null");
      });
    }
  }
}

std::int64_t key_of(const Value& value) {
  if (const auto* integer = std::get_if<std::int64_t>(&value)) return *integer;
  if (const auto* boolean = std::get_if<bool>(&value)) return *boolean ? 1 : 0;
  return flip_if_negative(std::bit_cast<std::int64_t>(std::get<double>(value)));
}

Column Column::of(ColumnType type, std::int64_t rows,
                  const std::function<Value(std::int64_t row)>& at) {
  Column column(type, rows, {});
  const auto words = static_cast<std::size_t>((rows + 63) / 64);
  std::vector<NumberedText> texts;
  std::vector<std::uint32_t> recent(kRecentTexts);
  column.arrays_.known.resize(words);
  if (type == ColumnType::kText) column.arrays_.codes.resize(words * 64);
  if (type == ColumnType::kBoolean) column.arrays_.booleans.resize(words);
  if (type <= ColumnType::kReal) column.arrays_.keys.resize(words * 64);
  std::int64_t n_known = 0;
  for (std::int64_t row = 0; row < rows; ++row) {
    const Value value = at(row);
    if (std::holds_alternative<std::monostate>(value)) continue;
    n_known += 1;
    set_bit(column.arrays_.known, row);
    if (type == ColumnType::kText) {
      const auto text = std::get<std::string_view>(value);
      std::uint32_t& number = recent[std::hash<std::string_view>()(text) % recent.size()];
      if (texts.empty() || texts[number].first != text) {
        number = static_cast<std::uint32_t>(texts.size());
        texts.emplace_back(text, number);
      }
      column.arrays_.codes[static_cast<std::size_t>(row)] = number;
    } else if (type != ColumnType::kBoolean) {
      column.arrays_.keys[static_cast<std::size_t>(row)] = key_of(value);
    } else if (std::get<bool>(value)) {
      set_bit(column.arrays_.booleans, row);
    }
  }
  if (n_known == 0) return Column(type, rows, {});
  if (n_known == rows) column.arrays_.known = std::vector<std::uint64_t>();
  if (type == ColumnType::kText) column.set_texts(texts);
  return column;
}

void Column::set_texts(std::vector<NumberedText>& texts) {
  std::ranges::sort(texts, {}, &NumberedText::first);
  std::vector<std::uint32_t> code_of(texts.size());
  for (const auto& [text, number] : texts) {
    if (arrays_.text_ends.empty() || text != this->text(this->texts() - 1)) {
      arrays_.text_bytes.insert(arrays_.text_bytes.end(), text.begin(), text.end());
      arrays_.text_ends.push_back(arrays_.text_bytes.size());
    }
    code_of[number] = static_cast<std::uint32_t>(arrays_.text_ends.size() - 1);
  }
  for (std::int64_t row = 0; row < rows_; ++row) {
    std::uint32_t& code = arrays_.codes[static_cast<std::size_t>(row)];
    if (arrays_.known.empty() || bit_of(arrays_.known, row)) code = code_of[code];
  }
  arrays_.text_ends.shrink_to_fit();
  arrays_.text_bytes.shrink_to_fit();
}

Value Column::at(std::int64_t row) const {
  if (is_all_null() || (!arrays_.known.empty() && !bit_of(arrays_.known, row))) return {};
  if (type_ == ColumnType::kBoolean) return bit_of(arrays_.booleans, row);
  const auto i = static_cast<std::size_t>(row);
  if (type_ == ColumnType::kText) return text(arrays_.codes[i]);
  if (type_ == ColumnType::kInteger) return arrays_.keys[i];
  return std::bit_cast<double>(flip_if_negative(arrays_.keys[i]));
}

std::string_view Column::text(std::int64_t code) const {
  const auto i = static_cast<std::size_t>(code);
  const std::uint64_t begin = i == 0 ? 0 : arrays_.text_ends[i - 1];
  return {arrays_.text_bytes.data() + begin,
          static_cast<std::size_t>(arrays_.text_ends[i] - begin)};
}

std::int64_t Column::first_code_from(std::string_view text) const {
  std::int64_t begin = 0, end = texts();
  while (begin < end) {
    const std::int64_t middle = begin + (end - begin) / 2;
    if (this->text(middle) < text) {
      begin = middle + 1;
    } else {
      end = middle;
    }
  }
  return begin;
}

std::int64_t Column::bytes() const {
  return bytes_of(arrays_.keys) + bytes_of(arrays_.booleans) + bytes_of(arrays_.codes) +
         bytes_of(arrays_.known) + bytes_of(arrays_.text_ends) + bytes_of(arrays_.text_bytes);
}

}  // namespace qx::collection
