// Columns of a segment give back what they were made of, and keep no more than they say.
#include "columns/column.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <limits>

#include "support/random.h"

namespace qx_test {
namespace {

using namespace qx::collection;
using Limits = std::numeric_limits<double>;

Column column_of(ColumnType type, const std::vector<Value>& values) {
  return Column::of(type, std::ssize(values),
                    [&](std::int64_t row) { return values[static_cast<std::size_t>(row)]; });
}

// Equal in every bit, also of NaNs and zeros.
void expect_values(const Column& column, const std::vector<Value>& values) {
  ASSERT_EQ(column.rows(), std::ssize(values));
  for (std::size_t row = 0; row < values.size(); ++row) {
    const Value value = column.at(static_cast<std::int64_t>(row));
    ASSERT_EQ(value.index(), values[row].index()) << "row " << row;
    if (const auto* real = std::get_if<double>(&value)) {
      ASSERT_EQ(std::bit_cast<std::uint64_t>(*real),
                std::bit_cast<std::uint64_t>(std::get<double>(values[row])));
    } else {
      ASSERT_EQ(value, values[row]) << "row " << row;
    }
  }
}

template <typename Body>
std::string message_of(Body body) {
  try {
    body();
  } catch (const Error& error) {
    EXPECT_EQ(error.status(), QX_INVALID);
    return error.what();
  }
  return "nothing is wrong";
}

const std::string kAsLongAsAnInteger = "12345678";

TEST(Column, GivesItsValuesBack) {
  const std::vector<std::pair<ColumnType, std::vector<Value>>> choices = {
      {ColumnType::kInteger, {INT64_MIN, INT64_MAX, std::int64_t{0}, std::int64_t{-1}}},
      {ColumnType::kReal,
       {0.0, -0.0, 2.5, -2.5, Limits::infinity(), -Limits::infinity(), Limits::denorm_min(),
        Limits::quiet_NaN(), -Limits::quiet_NaN(), Limits::max(), Limits::lowest()}},
      {ColumnType::kBoolean, {true, false}},
      {ColumnType::kText,
       {std::string_view(), std::string_view("a\0b", 3), "a", kAsLongAsAnInteger, "\xff", "ä"}}};
  Random random(1);
  for (const auto& [type, some] : choices) {
    for (const int nulls : {0, 50, 100}) {
      for (const std::int64_t rows : {0, 1, 63, 64, 65, 300}) {
        std::vector<Value> values;
        for (std::int64_t row = 0; row < rows; ++row) {
          values.push_back(random.percent(nulls) ? Value() : random.any_of(some));
        }
        const Column column = column_of(type, values);
        EXPECT_EQ(column.type(), type);
        EXPECT_EQ(column.is_all_null(), std::ranges::count(values, Value()) == rows);
        EXPECT_EQ(column.bytes() == 0, column.is_all_null());
        expect_values(column, values);
      }
    }
  }
}

TEST(Column, TakesWholeWordsOfRows) {
  const auto bytes_of = [](ColumnType type, const Value& value, std::int64_t nulls) {
    std::vector<Value> values(65, value);
    std::fill_n(values.begin(), nulls, Value());
    return column_of(type, values).bytes();
  };
  EXPECT_EQ(bytes_of(ColumnType::kInteger, std::int64_t{7}, 0), 128 * 8);
  EXPECT_EQ(bytes_of(ColumnType::kReal, 7.5, 1), 128 * 8 + 16);
  EXPECT_EQ(bytes_of(ColumnType::kBoolean, true, 0), 16);
  EXPECT_EQ(bytes_of(ColumnType::kBoolean, true, 64), 32);
  EXPECT_EQ(bytes_of(ColumnType::kText, kAsLongAsAnInteger, 1), 128 * 4 + 16 + 8 + 8);
  for (const ColumnType type : {ColumnType::kInteger, ColumnType::kBoolean, ColumnType::kText}) {
    EXPECT_EQ(bytes_of(type, {}, 65), 0);
  }
}

TEST(Column, SortsItsDistinctTextsByTheirBytes) {
  const Column column =
      column_of(ColumnType::kText, {"b", "a", {}, "\xff", "b", std::string_view("a\0", 2), ""});
  ASSERT_EQ(column.texts(), 5);
  const std::array<std::string_view, 5> expected = {"", "a", {"a\0", 2}, "b", "\xff"};
  for (std::size_t code = 0; code < 5; ++code) {
    EXPECT_EQ(column.text(static_cast<std::int64_t>(code)), expected[code]);
  }
  const std::vector<std::uint32_t> codes = {3, 1, 0, 4, 3, 2, 0};
  for (std::size_t row = 0; row < 7; ++row) {
    EXPECT_TRUE(row == 2 || column.codes()[row] == codes[row]) << row;
  }
  for (std::int64_t code = 0; code < 5; ++code) {
    EXPECT_EQ(column.first_code_from(column.text(code)), code);
    EXPECT_EQ(column.first_code_from(std::string(column.text(code)) + '\0'), code + 1);
  }
}

TEST(Column, KeepsManyTextsOnce) {
  std::vector<std::string> texts;
  texts.reserve(20000);
  for (int i = 0; i < 20000; ++i) texts.push_back(std::to_string(i * 7919 % 10000));
  const Column column = column_of(ColumnType::kText, {texts.begin(), texts.end()});
  EXPECT_EQ(column.texts(), 10000);
  expect_values(column, {texts.begin(), texts.end()});
}

TEST(Column, OrdersKeysAsValues) {
  const std::vector<double> reals = {
      -Limits::infinity(), Limits::lowest(),  -1.0, -0.0, 0.0, Limits::denorm_min(), 1.0,
      Limits::max(),       Limits::infinity()};
  for (std::size_t i = 1; i < reals.size(); ++i) EXPECT_LT(key_of(reals[i - 1]), key_of(reals[i]));
  EXPECT_GT(key_of(Limits::quiet_NaN()), key_of(Limits::infinity()));
  EXPECT_LT(key_of(-Limits::quiet_NaN()), key_of(-Limits::infinity()));
  EXPECT_EQ(key_of(std::int64_t{-5}), -5);
  EXPECT_EQ(key_of(false), 0);
  EXPECT_EQ(key_of(true), 1);
}

TEST(Schema, HasTheColumnsOfTheOptions) {
  const QxColumn columns[] = {
      {"a", QX_TEXT}, {"A", QX_INTEGER}, {"é b", QX_BOOLEAN}, {"r", QX_REAL}};
  EXPECT_EQ(make_schema(columns, 4), (Schema{{"a", ColumnType::kText},
                                             {"A", ColumnType::kInteger},
                                             {"é b", ColumnType::kBoolean},
                                             {"r", ColumnType::kReal}}));
  EXPECT_EQ(make_schema(nullptr, 0), Schema());
  EXPECT_NE(make_schema(columns, 1), (Schema{{"A", ColumnType::kText}}));
  EXPECT_NE(make_schema(columns, 1), (Schema{{"a", ColumnType::kReal}}));
}

TEST(Schema, RefusesColumnsByName) {
  const auto refused = [](const std::vector<QxColumn>& columns) {
    return message_of([&] { make_schema(columns.data(), static_cast<int>(columns.size())); });
  };
  EXPECT_EQ(refused({{"a", 0}, {nullptr, 0}}), "column 1 has no name");
  EXPECT_EQ(refused({{"", 0}}), "column 0 has no name");
  EXPECT_EQ(refused({{"a", 4}}), "column 0 has type 4, expected 0 to 3");
  EXPECT_EQ(refused({{"a", -1}}), "column 0 has type -1, expected 0 to 3");
  EXPECT_EQ(refused({{"a", 0}, {"b", 0}, {"a", 1}}), "column 2 has the name of another: a");
  const std::vector<QxColumn> many(1001, QxColumn{"a", 0});
  EXPECT_EQ(refused(many), "n_columns is 1001, expected 0 to 1000");
  EXPECT_EQ(message_of([] { make_schema(nullptr, -1); }), "n_columns is -1, expected 0 to 1000");
  EXPECT_EQ(message_of([] { make_schema(nullptr, 1); }), "columns is null");
}

TEST(HostValues, AreReadFromTheArrayOfTheType) {
  const std::int64_t integers[] = {1, 2};
  const double reals[] = {1.5, 2.5};
  const std::uint8_t booleans[] = {0, 2}, nulls[] = {1, 0};
  const QxText texts[] = {{"x", 1}, {nullptr, 0}};
  const QxValues all = {integers, reals, booleans, texts, nulls}, none = {};
  const std::vector<Value> second = {std::int64_t{2}, 2.5, true, std::string_view()};
  for (std::size_t type = 0; type < 4; ++type) {
    EXPECT_EQ(value_of(all, static_cast<ColumnType>(type), 0), Value());
    EXPECT_EQ(value_of(all, static_cast<ColumnType>(type), 1), second[type]);
    EXPECT_EQ(value_of(none, static_cast<ColumnType>(type), 1), Value());
  }
}

TEST(HostValues, AreRefusedWithTheirPlace) {
  const Schema schema = {{"n", ColumnType::kInteger}, {"t", ColumnType::kText}};
  const auto checked = [&](std::vector<QxText> texts, std::vector<std::uint8_t> nulls) {
    texts.insert(texts.begin(), QxText{"good", 4});
    const QxValues values[] = {{}, {nullptr, nullptr, nullptr, texts.data(), nulls.data()}};
    return message_of([&] { check_values(values, schema, std::ssize(texts)); });
  };
  EXPECT_EQ(checked({{"bad", -1}}, {0, 0}), "value 1 of column t is a text of -1 bytes");
  EXPECT_EQ(checked({{nullptr, 3}}, {0, 0}),
            "value 1 of column t is a text of 3 bytes whose data is null");
  EXPECT_EQ(checked({{nullptr, 3}, {"bad", -1}}, {0, 1, 1}), "nothing is wrong");
  EXPECT_EQ(checked({{nullptr, 0}}, {0, 0}), "nothing is wrong");
  const QxValues all_null[2] = {};
  EXPECT_EQ(message_of([&] { check_values(all_null, schema, 9); }), "nothing is wrong");
  EXPECT_EQ(message_of([&] { check_values(nullptr, schema, 9); }), "nothing is wrong");
}

}  // namespace
}  // namespace qx_test
