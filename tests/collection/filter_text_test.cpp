// Texts of filters: what is refused, with the place, what is there and what is expected; numbers;
// and texts that nobody wrote.
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "columns/predicate.h"
#include "support/random.h"

namespace qx_test {
namespace {

using namespace qx::collection;

const Schema kSchema = {{"i", ColumnType::kInteger},
                        {"r", ColumnType::kReal},
                        {"b", ColumnType::kBoolean},
                        {"t", ColumnType::kText}};

std::string refusal_of(std::string_view text) {
  try {
    Predicate::parse(text, kSchema);
  } catch (const Error& error) {
    EXPECT_EQ(error.status(), QX_INVALID);
    return error.what();
  }
  return "nothing is wrong";
}

const std::string kCondition = "a column, NOT, TRUE, FALSE or '('";
const std::string kNumber = "a number of 64 bits to compare with ";
const std::string kText = "a text in single quotes to compare with t";
const std::string kRest = "AND, OR or the end";
const std::string kLongest(38, 'x');

const struct {
  std::string text;
  int place;
  std::string found, expected;
} kRefusals[] = {
    {"", 0, "the end", kCondition},
    {" \n", 2, "the end", kCondition},
    {"i = 1 AND", 9, "the end", kCondition},
    {"i = 1 OR AND", 9, "AND", kCondition},
    {"null", 0, "null", kCondition},
    {"i = 1; ", 5, ";", kRest},
    {"i = 1 i = 2", 6, "i", kRest},
    {"TRUE = b", 5, "=", kRest},
    {"i = 1)", 5, ")", kRest},
    {"b b", 2, "b", kRest},
    {"(i = 1", 6, "the end", "AND, OR or ')'"},
    {"(b (", 3, "(", "AND, OR or ')'"},
    {"()", 1, ")", kCondition},
    {"5 = i", 0, "5", kCondition},
    {"'i' = 5", 0, "'i'", kCondition},
    {"x = 1", 0, "x", "the name of a column"},
    {"I = 1", 0, "I", "the name of a column"},
    {"\"i = 1", 0, "\"i = 1", "its closing quote"},
    {"\"\" = 1", 0, "\"\"", "the name of a column"},
    {"i", 1, "the end", "a comparison of i"},
    {"t AND b", 2, "AND", "a comparison of t"},
    {"i == 1", 3, "=", kNumber + "i"},
    {"i = ", 4, "the end", kNumber + "i"},
    {"i = -", 4, "-", kNumber + "i"},
    {"i = - 1", 4, "-", kNumber + "i"},
    {"i = j", 4, "j", kNumber + "i"},
    {"i = 'x'", 4, "'x'", kNumber + "i"},
    {"i = TRUE", 4, "TRUE", kNumber + "i"},
    {"i = NULL", 4, "NULL", kNumber + "i; write IS NULL"},
    {"i IN (1, null)", 9, "null", kNumber + "i; write IS NULL"},
    {"r <> nan", 5, "nan", kNumber + "r"},
    {"i = 9223372036854775808", 4, "9223372036854775808", kNumber + "i"},
    {"i = -9223372036854775809", 4, "-9223372036854775809", kNumber + "i"},
    {"r = 1e309", 4, "1e309", kNumber + "r"},
    {"r = 1e", 4, "1e", kNumber + "r"},
    {"r = 1.5x9 ", 4, "1.5x9", kNumber + "r"},
    {"r = 0x10", 4, "0x10", kNumber + "r"},
    {"r = .", 4, ".", kNumber + "r"},
    {"r = +.e1", 4, "+", kNumber + "r"},
    {"r = 1.2.3", 7, ".3", kRest},
    {"t = 3", 4, "3", kText},
    {"t = \"a\"", 4, "\"a\"", kText},
    {"t = NULL", 4, "NULL", kText + "; write IS NULL"},
    {"t = 'it''", 4, "'it''", "its closing quote"},
    {"t = '", 4, "'", "its closing quote"},
    {"b = 1", 4, "1", "TRUE or FALSE to compare with b"},
    {"b = NULL", 4, "NULL", "TRUE or FALSE to compare with b; write IS NULL"},
    {"b NOT", 5, "the end", "IN or BETWEEN"},
    {"i NOT = 3", 6, "=", "IN or BETWEEN"},
    {"i IS 3", 5, "3", "NULL or NOT NULL"},
    {"i IS NOT 3", 9, "3", "NULL"},
    {"i BETWEEN 1 OR 2", 12, "OR", "AND"},
    {"i IN 3", 5, "3", "'('"},
    {"i IN ()", 6, ")", kNumber + "i"},
    {"i IN (1 2)", 8, "2", "',' or ')'"},
    {"i IN (1,", 8, "the end", kNumber + "i"},
    {"i = '" + kLongest + "'", 4, "'" + kLongest + "'", kNumber + "i"},
    {"i = '" + kLongest + "x'", 4, "'" + kLongest + "x...", kNumber + "i"},
    {"i = '" + kLongest + "\xC3\xA4'", 4, "'" + kLongest + "...", kNumber + "i"},
    {"i = '" + kLongest + "\xC3\xBF'", 4, "'" + kLongest + "...", kNumber + "i"},
    {std::string(41, '\x80'), 0, "...", "the name of a column"},
    {std::string(201, '('), 200, "(", "no more than 200 open parentheses"},
};

TEST(FilterText, IsRefusedWithThePlaceWhatIsThereAndWhatIsExpected) {
  for (const auto& [text, place, found, expected] : kRefusals) {
    std::ostringstream refusal;
    refusal << "filter, byte " << place << ": found " << found << ", expected " << expected;
    EXPECT_EQ(refusal_of(text), refusal.str());
  }
}

TEST(FilterText, HasNumbersInEveryNotation) {
  const auto is_true = [](const std::string& text, double value) {
    const Value row[] = {{}, value, {}, {}};
    return Predicate::parse(text, kSchema).is_true_of(row);
  };
  for (const std::string number : {"12.5", "+12.5", "1.25e1", "1.25E+1", "125e-1", "0012.50"}) {
    EXPECT_TRUE(is_true("r = " + number, 12.5)) << number;
  }
  for (const std::string zero : {"0", "-0", "+0", "0.", ".0", "-.0", "-0e9"}) {
    EXPECT_TRUE(is_true("r=" + zero, -0.0)) << zero;
    EXPECT_TRUE(is_true("NOT r<" + zero, -0.0)) << zero;
  }
}

TEST(FilterText, IsNotReadBeyondItsEnd) {
  const Value row[] = {std::int64_t{1}, {}, {}, "a"};
  for (const std::string_view text : {"i = 12", "i = 1.5", "i = 1e5", "i = 1x"}) {
    EXPECT_TRUE(Predicate::parse(text.substr(0, 5), kSchema).is_true_of(row)) << text;
  }
  EXPECT_TRUE(Predicate::parse(std::string_view("t = 'a''", 7), kSchema).is_true_of(row));
}

// Pieces of filters and bytes: a text is refused, or is a filter on which both evaluations agree.
TEST(FilterText, OfAnyBytesIsRefusedOrEvaluatedAlikeInBothWays) {
  static const std::vector<std::string> pieces = {
      "i",         "r",    "b", "t",  " ",    "=",     "<",    ">",    "!",    "(",
      ")",         ",",    "'", "\"", "NOT ", " AND ", " OR ", " IN ", " IS ", "NULL",
      " BETWEEN ", "TRUE", "1", "-",  ".",    "e",     "'a'",  "2.5"};
  const std::vector<Value> rows[] = {
      {std::int64_t{1}, 2.5, true, "a"}, {std::int64_t{12}, -1.0, false, "i"}, {{}, {}, {}, {}}};
  std::vector<Column> columns;
  for (std::size_t i = 0; i < 4; ++i) {
    columns.push_back(
        Column::of(kSchema[i].type, 3, [&](std::int64_t row) { return rows[row][i]; }));
  }
  Random random(22);
  int taken = 0;
  for (int round = 0; round < 100000; ++round) {
    std::string text;
    for (std::int64_t i = random.between(0, 12); i > 0; --i) {
      text += random.percent(95) ? random.any_of(pieces)
                                 : std::string(1, static_cast<char>(random.between(0, 255)));
    }
    if (refusal_of(text) != "nothing is wrong") continue;
    ++taken;
    const Predicate predicate = Predicate::parse(text, kSchema);
    std::uint64_t word = 0;
    predicate.evaluate(columns, 0, 3, &word);
    for (std::size_t i = 0; i < 3; ++i) {
      ASSERT_EQ(word >> i & 1, predicate.is_true_of(rows[i])) << text;
    }
  }
  EXPECT_GT(taken, 500);
}

}  // namespace
}  // namespace qx_test
